// The loaded modules and the memory map as the crash report reads them, with
// the meaning of VirtualQuery, GetModuleFileNameA and IsBadReadPtr /
// IsBadWritePtr: which module holds an address, which of its sections, what
// the module's file says about it (its resources, its dynamic symbols), and
// whether memory may be read. Every call is handler-safe (see crashsignal.h):
// the tables live in fixed storage, files are read with pread into fixed
// buffers, and no memory is touched that the map does not show as readable.
#ifndef QUARNEL_PLATFORM_INTERNAL_CRASHMODULE_H_
#define QUARNEL_PLATFORM_INTERNAL_CRASHMODULE_H_

#include <cstddef>
#include <cstdint>

// One loaded object: its load bias (what its symbol values are relative to)
// and the address ranges of its loaded segments.
struct UModuleInfo {
  static constexpr int kMaxSegments = 8;
  static constexpr int kMaxPath = 512;
  std::uintptr_t base;
  int segments;
  std::uintptr_t lo[kMaxSegments];
  std::uintptr_t hi[kMaxSegments];
  char path[kMaxPath];  // the file it was loaded from ("" when it has none)
};

// Takes a snapshot of the loaded objects (dl_iterate_phdr): the main program
// (its file read through /proc/self/exe), every shared object, the vdso.
// Returns the number of modules (at most 512). Takes the loader's own lock
// for the walk: call it before other threads are held.
int USnapshotModules();

// The module of the snapshot whose segments hold `address`, or null.
const UModuleInfo* UModuleOf(std::uintptr_t address);

// The file name of a module without its folders ("" for none).
const char* UModuleBaseName(const UModuleInfo* module);

// The section of the module's file holding `address`: the first allocated
// section whose range contains it, numbered as the file numbers its sections
// (the first real one is 1), and the offset in it. False when the file cannot
// be read or no section holds the address.
bool UModuleSectionOf(const UModuleInfo& module, std::uintptr_t address, unsigned* section,
                      std::uint32_t* offset);

// Copies the module's resource container (the bytes of its ".qnres"
// section, as its file holds them) to `buf`. Returns the size, or 0 when it
// has none, it cannot be read or it is larger than `capacity`.
std::size_t UModuleReadResources(const UModuleInfo& module, void* buf, std::size_t capacity);

// The dynamic symbol naming `address`, by dladdr's rule: the defined symbol
// with the highest value at or below the address whose size covers it (a
// symbol of size 0 only at its own address). Its name goes to `name`
// (zero-terminated, cut to fit) and its address to *symbol. False when none.
bool UModuleDynamicSymbol(const UModuleInfo& module, std::uintptr_t address, char* name,
                          std::size_t size, std::uintptr_t* symbol);

// Reads the process's memory map (/proc/self/maps) into fixed storage (at
// most 16384 mappings). False when it cannot be read.
bool USnapshotMemoryMap();

// True when the last snapshot shows every byte of [p, p + size) readable
// (and writable when `write`).
bool UMemoryAccessible(std::uintptr_t p, std::size_t size, bool write);

// True when `address` lies in a stack guard by the last snapshot: an
// inaccessible mapping directly below a readable and writable one, or the
// unmapped megabyte below the "[stack]" mapping.
bool UInStackGuard(std::uintptr_t address);

#endif  // QUARNEL_PLATFORM_INTERNAL_CRASHMODULE_H_
