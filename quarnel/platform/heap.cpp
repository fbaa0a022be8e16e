#include "quarnel/platform/heap.h"

#include <malloc.h>

#include <cstdlib>
#include <cstring>

void* UHeapAlloc(unsigned flags, std::size_t bytes) {
  void* p = (flags & kHeapZeroMemory) ? std::calloc(1, bytes ? bytes : 1) : std::malloc(bytes ? bytes : 1);
  return p;
}

void* UHeapReAlloc(unsigned flags, void* block, std::size_t bytes) {
  const std::size_t old = block ? malloc_usable_size(block) : 0;
  void* p = std::realloc(block, bytes ? bytes : 1);
  if (p && (flags & kHeapZeroMemory) && bytes > old) std::memset(static_cast<char*>(p) + old, 0, bytes - old);
  return p;
}

int UHeapFree(void* block) {
  std::free(block);
  return 1;
}

int UHeapValidate() { return 1; }

std::size_t UHeapCompact() {
  malloc_trim(0);
  return 0;
}
