#include "quarnel/platform/vmem.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <map>
#include <mutex>
#include <string_view>

#include "quarnel/platform/faults.h"
#include "quarnel/platform/internal/memstatus.h"
#include "quarnel/platform/lasterror.h"

namespace {

constexpr unsigned kErrNotEnoughMemory = 8;
constexpr unsigned kErrInvalidParameter = 87;
constexpr unsigned kErrInvalidAddress = 487;

// The reservations this process made, base to size: munmap needs the size
// that VirtualFree with MEM_RELEASE does not pass, and commits and decommits
// must stay inside a reservation.
std::mutex g_lock;
std::map<std::uintptr_t, std::size_t>& Reservations() {
  static auto* map = new std::map<std::uintptr_t, std::size_t>;
  return *map;
}

std::size_t PageSize() {
  static const std::size_t size = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  return size;
}

std::uintptr_t RoundDown(std::uintptr_t v, std::size_t page) { return v & ~(page - 1); }

bool ProtectionOf(unsigned protect, int* prot) {
  switch (protect) {
    case kPageNoAccess:
      *prot = PROT_NONE;
      return true;
    case kPageReadOnly:
      *prot = PROT_READ;
      return true;
    case kPageReadWrite:
      *prot = PROT_READ | PROT_WRITE;
      return true;
    case kPageExecute:
      *prot = PROT_EXEC;
      return true;
    case kPageExecuteRead:
      *prot = PROT_READ | PROT_EXEC;
      return true;
    case kPageExecuteReadWrite:
      *prot = PROT_READ | PROT_WRITE | PROT_EXEC;
      return true;
    default:
      return false;
  }
}

void* Fail(unsigned winerr) {
  USetLastError(winerr);
  return nullptr;
}

// The reservation holding the page range [lo, hi); false when the range is not
// wholly inside one. Called under g_lock.
bool FindReservation(std::uintptr_t lo, std::uintptr_t hi, std::uintptr_t* base,
                     std::size_t* size) {
  auto& map = Reservations();
  auto it = map.upper_bound(lo);
  if (it == map.begin()) return false;
  --it;
  if (hi > it->first + it->second) return false;
  *base = it->first;
  *size = it->second;
  return true;
}

void* Reserve(void* addr, std::size_t size) {
  unsigned winerr = 0;
  if (UShouldFail(UCall::kVirtualReserve, &winerr)) return Fail(winerr);
  const std::size_t limit = quarnel_internal::VirtualReserveLimit();
  if (limit != 0 && size > limit) return Fail(kErrNotEnoughMemory);
  const std::size_t page = PageSize();
  if (size > SIZE_MAX - page) return Fail(kErrNotEnoughMemory);
  const std::size_t bytes = (size + page - 1) & ~(page - 1);
  int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
  void* want = nullptr;
  if (addr != nullptr) {
    want = reinterpret_cast<void*>(RoundDown(reinterpret_cast<std::uintptr_t>(addr), page));
    flags |= MAP_FIXED_NOREPLACE;
  }
  void* p = ::mmap(want, bytes, PROT_NONE, flags, -1, 0);
  if (p == MAP_FAILED) return Fail(errno == EEXIST ? kErrInvalidAddress : kErrNotEnoughMemory);
  if (want != nullptr && p != want) {  // a kernel that ignores MAP_FIXED_NOREPLACE
    ::munmap(p, bytes);
    return Fail(kErrInvalidAddress);
  }
  std::lock_guard<std::mutex> hold(g_lock);
  Reservations()[reinterpret_cast<std::uintptr_t>(p)] = bytes;
  return p;
}

void* Commit(void* addr, std::size_t size, int prot) {
  unsigned winerr = 0;
  if (UShouldFail(UCall::kVirtualCommit, &winerr)) return Fail(winerr);
  const std::size_t page = PageSize();
  const std::uintptr_t a = reinterpret_cast<std::uintptr_t>(addr);
  if (size > UINTPTR_MAX - a - page) return Fail(kErrInvalidParameter);
  const std::uintptr_t lo = RoundDown(a, page);
  const std::uintptr_t hi = RoundDown(a + size + page - 1, page);
  std::uintptr_t base;
  std::size_t reserved;
  std::lock_guard<std::mutex> hold(g_lock);
  if (!FindReservation(lo, hi, &base, &reserved)) return Fail(kErrInvalidAddress);
  if (::mprotect(reinterpret_cast<void*>(lo), hi - lo, prot) != 0) return Fail(kErrNotEnoughMemory);
  return reinterpret_cast<void*>(lo);
}

}  // namespace

void* UVirtualAlloc(void* addr, std::size_t size, unsigned type, unsigned protect) {
  int prot;
  if (size == 0 || !ProtectionOf(protect, &prot) || (type & ~(kMemCommit | kMemReserve)) != 0 ||
      (type & (kMemCommit | kMemReserve)) == 0) {
    return Fail(kErrInvalidParameter);
  }
  if ((type & kMemReserve) != 0 || addr == nullptr) {
    void* p = Reserve(addr, size);
    if (p == nullptr || (type & kMemCommit) == 0) return p;
    // A reservation made for this call is given back when its commit fails.
    void* c = Commit(p, size, prot);
    if (c == nullptr) {
      const unsigned winerr = UGetLastError();
      UVirtualFree(p, 0, kMemRelease);
      USetLastError(winerr);
    }
    return c;
  }
  return Commit(addr, size, prot);
}

int UVirtualFree(void* addr, std::size_t size, unsigned type) {
  const std::size_t page = PageSize();
  const std::uintptr_t a = reinterpret_cast<std::uintptr_t>(addr);
  std::lock_guard<std::mutex> hold(g_lock);
  auto& map = Reservations();
  if (type == kMemRelease) {
    auto it = map.find(a);
    if (it == map.end()) {
      USetLastError(kErrInvalidAddress);
      return 0;
    }
    if (size != 0 && size != it->second) {
      USetLastError(kErrInvalidParameter);
      return 0;
    }
    ::munmap(addr, it->second);
    map.erase(it);
    return 1;
  }
  if (type == kMemDecommit) {
    std::uintptr_t lo;
    std::uintptr_t hi;
    if (size == 0) {
      auto it = map.find(a);
      if (it == map.end()) {
        USetLastError(kErrInvalidAddress);
        return 0;
      }
      lo = a;
      hi = a + it->second;
    } else {
      if (size > UINTPTR_MAX - a - page) {
        USetLastError(kErrInvalidParameter);
        return 0;
      }
      lo = RoundDown(a, page);
      hi = RoundDown(a + size + page - 1, page);
    }
    std::uintptr_t base;
    std::size_t reserved;
    if (!FindReservation(lo, hi, &base, &reserved)) {
      USetLastError(kErrInvalidAddress);
      return 0;
    }
    void* p = reinterpret_cast<void*>(lo);
    ::madvise(p, hi - lo, MADV_DONTNEED);
    ::mprotect(p, hi - lo, PROT_NONE);
    return 1;
  }
  USetLastError(kErrInvalidParameter);
  return 0;
}

int UVirtualMove(const void* from, void* to, std::size_t size) {
  const std::size_t page = PageSize();
  const auto f = reinterpret_cast<std::uintptr_t>(from);
  const auto t = reinterpret_cast<std::uintptr_t>(to);
  if (size == 0 || f % page != 0 || t % page != 0 || size > UINTPTR_MAX - page) return 0;
  const std::size_t bytes = (size + page - 1) & ~(page - 1);
  if (f > UINTPTR_MAX - bytes || t > UINTPTR_MAX - bytes) return 0;
  std::lock_guard<std::mutex> hold(g_lock);
  std::uintptr_t fromBase, toBase;
  std::size_t fromSize, toSize;
  if (!FindReservation(f, f + bytes, &fromBase, &fromSize) ||
      !FindReservation(t, t + bytes, &toBase, &toSize) || fromBase == toBase) {
    return 0;
  }
  void* moved = ::mremap(const_cast<void*>(from), bytes, bytes, MREMAP_MAYMOVE | MREMAP_FIXED, to);
  if (moved == MAP_FAILED) return 0;
  // The hole the pages left becomes reserved space again, so that the source
  // reservation stays whole until it is released.
  ::mmap(const_cast<void*>(from), bytes, PROT_NONE,
         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
  return 1;
}

std::size_t UVirtualPageSize() { return PageSize(); }

namespace {

// Reads up to `cap` bytes of a /proc file; the count read (0 when it cannot
// be read). Status is read often (every growth check of the memory blocks),
// so without stdio.
std::size_t ReadSmallFile(const char* path, char* buf, std::size_t cap) {
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  std::size_t n = 0;
  while (n < cap) {
    const ssize_t got = ::read(fd, buf + n, cap - n);
    if (got <= 0) break;
    n += static_cast<std::size_t>(got);
  }
  ::close(fd);
  return n;
}

// The decimal number at `at` (after blanks), 0 when there is none.
unsigned long long Number(std::string_view text, std::size_t at) {
  while (at < text.size() && (text[at] == ' ' || text[at] == '\t')) ++at;
  unsigned long long v = 0;
  for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at)
    v = v * 10 + (text[at] - '0');
  return v;
}

// The number after `key` at the start of a line, 0 when the key is missing.
unsigned long long Field(std::string_view text, std::string_view key) {
  for (std::size_t at = 0; at < text.size();) {
    if (text.compare(at, key.size(), key) == 0) return Number(text, at + key.size());
    const std::size_t eol = text.find('\n', at);
    if (eol == std::string_view::npos) break;
    at = eol + 1;
  }
  return 0;
}

}  // namespace

namespace quarnel_internal {

void ReadMemoryStatus(UMEMORYSTATUS* status) {
  std::memset(status, 0, sizeof *status);
  status->dwLength = sizeof(UMEMORYSTATUS);
  unsigned long long totalKb = 0, availKb = 0, swapTotalKb = 0, swapFreeKb = 0;
  char text[8192];
  const std::size_t n = ReadSmallFile("/proc/meminfo", text, sizeof text);
  const std::string_view meminfo(text, n);
  totalKb = Field(meminfo, "MemTotal:");
  availKb = Field(meminfo, "MemAvailable:");
  swapTotalKb = Field(meminfo, "SwapTotal:");
  swapFreeKb = Field(meminfo, "SwapFree:");
  // The first figure of statm is the process's virtual size in pages.
  const std::size_t m = ReadSmallFile("/proc/self/statm", text, sizeof text);
  const unsigned long long vmSizeKb = Number(std::string_view(text, m), 0) * (PageSize() / 1024);
  status->dwTotalPhys = static_cast<std::size_t>(totalKb) * 1024;
  status->dwAvailPhys = static_cast<std::size_t>(availKb) * 1024;
  status->dwTotalPageFile = static_cast<std::size_t>(totalKb + swapTotalKb) * 1024;
  status->dwAvailPageFile = static_cast<std::size_t>(availKb + swapFreeKb) * 1024;
  if (totalKb != 0 && availKb <= totalKb) {
    status->dwMemoryLoad = static_cast<unsigned>((totalKb - availKb) * 100 / totalKb);
  }
  std::size_t total = std::size_t{1} << 47;
  struct rlimit lim;
  if (::getrlimit(RLIMIT_AS, &lim) == 0 && lim.rlim_cur != RLIM_INFINITY && lim.rlim_cur < total) {
    total = static_cast<std::size_t>(lim.rlim_cur);
  }
  const std::size_t used = static_cast<std::size_t>(vmSizeKb) * 1024;
  status->dwTotalVirtual = total;
  status->dwAvailVirtual = used < total ? total - used : 0;
}

}  // namespace quarnel_internal
