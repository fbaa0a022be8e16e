// qnrc, the resource compiler: turns a resource script into the resource
// container that modules carry (docs/resource-format.md).
//
// Script syntax. Statements are separated by line ends only where a text
// continues; "#" starts a comment to the end of the line. Numbers are decimal
// or 0x hexadecimal, optionally negative. Texts are in double quotes with the
// escapes \n \r \t \0 \\ \" \' and \xHH; adjacent texts join. A tag is four
// characters in single quotes ('KMkm').
//
//   moduleid FIRSTRES LASTRES FIRSTERR LASTERR
//       the module id resource (type 10, id 10001): 'DYL.', versions 769,
//       and the four range values
//   stringlist ID { 'TAG' "text" ... }
//       a string list (type 256): 16-bit length, tag, 8-bit text (the bytes
//       of the script, UTF-8 as it stands), pad to even, 0xFFFF at the end
//   stringtable { ID "text" ... }
//       strings for ULoadString (type 6, blocks of 16, UTF-16 text)
//   data ID { ITEMS }            raw data (type 10)
//   data ID file "PATH"
//   resource TYPE ID { ITEMS }   any type; ID may also be a "NAME"
//   resource TYPE ID file "PATH"
//   icon ID "FILE.ico"           an icon group (14) and its images (3)
//   cursor ID "FILE.cur"         a cursor group (12) and its images (1)
//   bitmap ID "FILE.bmp"         a bitmap (2): the file without its 14-byte header
//
// ITEMS: a number is one byte (-128..255); u16 N, u32 N are little-endian
// words, u16be N, u32be N big-endian ones; a text gives its bytes (no
// terminator). Paths are relative to the script's folder.
#ifndef QUARNEL_TOOLS_QNRC_COMPILER_H_
#define QUARNEL_TOOLS_QNRC_COMPILER_H_

#include <functional>
#include <string>
#include <vector>

namespace qnrc {

struct Resource {
  unsigned type = 0;
  int id = 0;
  std::u16string name;  // empty for a numbered resource
  std::vector<unsigned char> data;
  int line = 0;  // where the script defines it
};

struct Error {
  int line = 0;  // 0: not tied to a line
  std::string message;
};

// Reads a file named by the script (path already joined with the script's
// folder); false when it cannot be read.
using FileReader = std::function<bool(const std::string& path, std::vector<unsigned char>* bytes)>;

// Compiles `script`. On success fills `resources` (sorted as the container
// stores them) and returns true; otherwise `error` says what and where.
bool Compile(const std::string& script, const std::string& folder, const FileReader& reader,
             std::vector<Resource>* resources, Error* error);

// Adds `resource` to sorted `resources` in its place; false (nothing added)
// when one of the same type and id or name is there.
bool AddResource(std::vector<Resource>* resources, Resource resource);

// The container of sorted resources, byte for byte.
std::vector<unsigned char> BuildBlob(const std::vector<Resource>& resources);

// C++ source defining the exported, relocation-free array `symbol` that
// holds `blob`, in a section of its own (".qnres").
std::string BlobToCpp(const std::vector<unsigned char>& blob, const std::string& symbol,
                      const std::string& scriptName);

// A resource script for the Windows toolchain's resource compiler (windres,
// rc) that gives a DLL or an executable the same resources as real Win32
// resources: each becomes a user-defined resource of its type and id (or
// name) with its exact bytes. Most are written into the script as raw data;
// cursors, icons and their groups, which the resource compiler reads in a
// form of its own, as files beside it: `sideFiles` receives their paths
// (`folder` + "/" + a name of their own) and bytes for the caller to write.
// Windows numbers types and ids 1 to 65535 only, so a resource outside that
// range makes this fail (false, with `error` naming it).
struct SideFile {
  std::string path;
  std::vector<unsigned char> bytes;
};
bool ResourcesToRc(const std::vector<Resource>& resources, const std::string& scriptName,
                   const std::string& folder, std::string* rc, std::vector<SideFile>* sideFiles,
                   Error* error);

}  // namespace qnrc

#endif  // QUARNEL_TOOLS_QNRC_COMPILER_H_
