#include "quarnel/platform/heap.h"

#include <atomic>
#include <mutex>
#include <vector>

#include "quarnel/platform/faults.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/platform/win32/winapi.h"

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
  void* p = ::HeapAlloc(::GetProcessHeap(), flags & kHeapZeroMemory, bytes);
  if (p == nullptr) USetLastError(kErrNotEnoughMemory);  // HeapAlloc sets none
  return p;
}

void* UHeapReAlloc(unsigned flags, void* block, std::size_t bytes) {
  unsigned winerr = 0;
  if (UShouldFail(UCall::kHeapReAlloc, &winerr)) {
    USetLastError(winerr);
    return nullptr;
  }
  // A null block is a new one, as the C library's realloc has it.
  void* p = block == nullptr
                ? ::HeapAlloc(::GetProcessHeap(), flags & kHeapZeroMemory, bytes)
                : ::HeapReAlloc(::GetProcessHeap(), flags & kHeapZeroMemory, block, bytes);
  if (p == nullptr) USetLastError(kErrNotEnoughMemory);
  return p;
}

int UHeapFree(void* block) {
  if (block == nullptr) return 1;
  if (g_deferFree.load(std::memory_order_relaxed)) {
    std::lock_guard<std::mutex> hold(g_deferLock);
    if (g_deferred == nullptr) g_deferred = new std::vector<void*>;
    g_deferred->push_back(block);
    return 1;
  }
  return ::HeapFree(::GetProcessHeap(), 0, block) ? 1 : 0;
}

int UHeapValidate() {
  unsigned winerr = 0;
  if (UShouldFail(UCall::kHeapValidate, &winerr)) {
    USetLastError(winerr);
    return 0;
  }
  return ::HeapValidate(::GetProcessHeap(), 0, nullptr) ? 1 : 0;
}

std::size_t quarnel_internal::HeapUsableSize(void* block) {
  if (block == nullptr) return 0;
  const SIZE_T n = ::HeapSize(::GetProcessHeap(), 0, block);
  return n == static_cast<SIZE_T>(-1) ? 0 : n;
}

std::size_t UHeapCompact() { return ::HeapCompact(::GetProcessHeap(), 0); }

void USetHeapFreeDeferred(int on) {
  std::lock_guard<std::mutex> hold(g_deferLock);
  g_deferFree.store(on != 0, std::memory_order_relaxed);
  if (on == 0 && g_deferred != nullptr) {
    for (void* p : *g_deferred) ::HeapFree(::GetProcessHeap(), 0, p);
    delete g_deferred;
    g_deferred = nullptr;
  }
}
