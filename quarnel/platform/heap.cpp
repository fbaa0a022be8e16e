#include "quarnel/platform/heap.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "quarnel/platform/faults.h"
#include "quarnel/platform/lasterror.h"

namespace {
constexpr unsigned kErrNotEnoughMemory = 8;

std::atomic<bool> g_deferFree{false};
std::mutex g_deferLock;
std::vector<void*>* g_deferred = nullptr;
}  // namespace

void* UHeapAlloc(unsigned flags, std::size_t bytes) {
  unsigned winerr = 0;
  if (UShouldFail(UCall::kHeapAlloc, &winerr)) {
    USetLastError(winerr);
    return nullptr;
  }
  void* p = (flags & kHeapZeroMemory) ? std::calloc(1, bytes ? bytes : 1)
                                      : std::malloc(bytes ? bytes : 1);
  if (p == nullptr) USetLastError(kErrNotEnoughMemory);
  return p;
}

void* UHeapReAlloc(unsigned flags, void* block, std::size_t bytes) {
  unsigned winerr = 0;
  if (UShouldFail(UCall::kHeapReAlloc, &winerr)) {
    USetLastError(winerr);
    return nullptr;
  }
  const std::size_t old = block && (flags & kHeapZeroMemory) ? malloc_usable_size(block) : 0;
  void* p = std::realloc(block, bytes ? bytes : 1);
  if (p == nullptr) {
    USetLastError(kErrNotEnoughMemory);
    return nullptr;
  }
  if ((flags & kHeapZeroMemory) && bytes > old)
    std::memset(static_cast<char*>(p) + old, 0, bytes - old);
  return p;
}

std::size_t quarnel_internal::HeapUsableSize(void* block) {
  return block ? malloc_usable_size(block) : 0;
}

int UHeapFree(void* block) {
  if (g_deferFree.load(std::memory_order_relaxed)) {
    std::lock_guard<std::mutex> hold(g_deferLock);
    if (g_deferred == nullptr) g_deferred = new std::vector<void*>;
    g_deferred->push_back(block);
    return 1;
  }
  std::free(block);
  return 1;
}

int UHeapValidate() {
  unsigned winerr = 0;
  if (UShouldFail(UCall::kHeapValidate, &winerr)) {
    USetLastError(winerr);
    return 0;
  }
  return 1;
}

std::size_t UHeapCompact() {
  malloc_trim(0);
  return 0;
}

void USetHeapFreeDeferred(int on) {
  std::lock_guard<std::mutex> hold(g_deferLock);
  g_deferFree.store(on != 0, std::memory_order_relaxed);
  if (on == 0 && g_deferred != nullptr) {
    for (void* p : *g_deferred) std::free(p);
    delete g_deferred;
    g_deferred = nullptr;
  }
}
