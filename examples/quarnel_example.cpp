// The main job of this version of the library: a host that installs a log
// hook, lets the library map a few platform failures into library error
// codes (each mapping is logged through the hook), and formats messages with
// the library's engine.
#include <cerrno>
#include <cstdio>
#include <string>

#include "quarnel/quarnel.h"
#include "quarnel/foundation/error.h"
#include "quarnel/platform/lasterror.h"

namespace {

// UTF-16 to UTF-8 for printing on the terminal.
std::string Utf8(const TString& s) {
  std::string out;
  for (short i = 0; i < s.Length(); ++i) {
    const char32_t c = s.GetAt(i);
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

// The host's log hook: formats the line with the library's own engine and
// prints it with its level.
int PrintLogLine(unsigned level, const char* format, const Args* args) {
  TString line;
  FormatLogLine(&line, format, args);
  std::printf("log %u: %s\n", level, Utf8(line).c_str());
  return 0;
}

}  // namespace

int main() {
  HookDebugLogfChar(PrintLogLine);

  std::printf("-- platform failures mapped to library codes\n");
  const struct {
    const char* what;
    int err;
  } failures[] = {
      {"OpenSettings: open failed", ENOENT},
      {"SaveChunk: WriteFile failed", ENOSPC},
      {"LockFile: flock failed", EACCES},
      {"ReadHeader: read failed", EIO},
  };
  for (const auto& f : failures) {
    const unsigned winerr = UWinErrorFromErrno(f.err);
    const int code = MapAndLogErr(nullptr, f.what, winerr);
    TString message;
    message.SPrintf(u"%s: errno %d is Windows error %u, library code %d", f.what, f.err, winerr, code);
    std::printf("%s\n", Utf8(message).c_str());
  }

  std::printf("-- the formatting engine\n");
  TString name(u"vellomarch.cfh");
  TString line;
  line.SPrintf(u"%S: %d of %d chunks (%x), %K on disk, type %Y", &name, 1234567, 2000000, 0xBEEFu,
               3u * 1024 * 1024, 0x4366682Eu);
  std::printf("%s\n", Utf8(line).c_str());
  line.SPrintf(u"[%-8s|%8s|%08d|%~d]", "left", "right", 42, 1234567);
  std::printf("%s\n", Utf8(line).c_str());
  return 0;
}
