// The symbol map resource (type 256, id 1): the names of a linked module's
// functions by their offsets from its load address, packed with MemComp
// (the record layout is in quarnel/foundation/internal/symmap.h). The crash
// report names stack frames by it.
#ifndef QUARNEL_TOOLS_QNRC_SYMBOLS_H_
#define QUARNEL_TOOLS_QNRC_SYMBOLS_H_

#include <cstdint>
#include <string>
#include <vector>

#include "tools/qnrc/compiler.h"

namespace qnrc {

struct Function {
  std::uint64_t offset;
  std::string name;  // as the symbol table holds it (mangled)
  bool global;
};

constexpr std::size_t kMaxSymbolName = 255;  // bytes of a name kept in the map

// The unpacked map: one record per function offset (below 2^32), in
// increasing offset order, then the end marker. Where several symbols share
// an offset the global one is kept, then the shorter name, then the first in
// byte order. Names are demangled and cut to kMaxSymbolName bytes.
std::vector<unsigned char> BuildSymbolMap(std::vector<Function> functions);

// The packed map of the functions in `module` (the bytes of a linked ELF
// file or Windows module) as resource 256/1. False with `error` when the
// file is neither.
bool SymbolMapResource(const std::vector<unsigned char>& module, Resource* resource,
                       std::string* error);

// True when `module` (ELF: in its resource container; Windows: as its Win32
// resource 256/1) carries a symbol map equal to the one its own functions
// give (false with `error` otherwise): a module whose code moved when its map
// was linked in fails.
bool CheckSymbolMap(const std::vector<unsigned char>& module, std::string* error);

}  // namespace qnrc

#endif  // QUARNEL_TOOLS_QNRC_SYMBOLS_H_
