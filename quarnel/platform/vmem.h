// Virtual memory, with Win32 meaning (VirtualAlloc, VirtualFree,
// GlobalMemoryStatus).
//
// A reservation is address space without memory behind it (an inaccessible
// mapping that the system does not count against its commit limit); commit
// gives pages of a reservation read/write (or the asked) access, zero-filled
// the first time; decommit throws the pages' contents away and makes them
// inaccessible again; release unmaps the whole reservation. Failing calls
// return null or 0 and set the last error: 8 not enough memory, 87 bad
// parameter, 487 an address that is not (or not wholly) reserved.
#ifndef QUARNEL_PLATFORM_VMEM_H_
#define QUARNEL_PLATFORM_VMEM_H_

#include <cstddef>

#include "quarnel/foundation/export.h"

enum : unsigned {
  kMemCommit = 0x1000,    // MEM_COMMIT
  kMemReserve = 0x2000,   // MEM_RESERVE
  kMemDecommit = 0x4000,  // MEM_DECOMMIT
  kMemRelease = 0x8000,   // MEM_RELEASE

  kPageNoAccess = 0x01,          // PAGE_NOACCESS
  kPageReadOnly = 0x02,          // PAGE_READONLY
  kPageReadWrite = 0x04,         // PAGE_READWRITE
  kPageExecute = 0x10,           // PAGE_EXECUTE
  kPageExecuteRead = 0x20,       // PAGE_EXECUTE_READ
  kPageExecuteReadWrite = 0x40,  // PAGE_EXECUTE_READWRITE
};

// VirtualAlloc. kMemReserve (alone or with kMemCommit) reserves `size` bytes
// rounded up to whole pages, at `addr` when it is not null (rounded down to a
// page; 487 when that space is taken), and returns the reservation's base.
// kMemCommit alone commits the pages covering [addr, addr + size) of an
// existing reservation with `protect` and returns the first page's address;
// a null `addr` with kMemCommit alone reserves and commits. Committing
// committed pages keeps their contents and changes their protection.
// Failure: null and the last error. The fault seam's kVirtualReserve and
// kVirtualCommit entries make reservations and commits fail.
QUARNEL_API void* UVirtualAlloc(void* addr, std::size_t size, unsigned type, unsigned protect);

// VirtualFree. kMemDecommit decommits the pages covering [addr, addr + size)
// of a reservation (size 0 with the reservation's base: all of it).
// kMemRelease releases the reservation whose base is `addr`; `size` must be 0
// (or the reservation's size). Returns 1, or 0 and the last error.
QUARNEL_API int UVirtualFree(void* addr, std::size_t size, unsigned type);

// Moves the contents of [from, from + size) (size rounded up to whole pages;
// both addresses on page boundaries; the source pages committed) onto the
// same number of pages at `to`, inside another reservation, which end up
// committed with those contents. Where the system can move pages (mremap),
// nothing is copied; the source range is left reserved without contents.
// Returns 1 when moved, 0 when not (bad arguments, or the system refused):
// the caller then copies. Sets no last error.
QUARNEL_API int UVirtualMove(const void* from, void* to, std::size_t size);

// The page size of the system.
QUARNEL_API std::size_t UVirtualPageSize();

// GlobalMemoryStatus. Figures in bytes: physical memory from /proc/meminfo
// (MemTotal, MemAvailable), the page file as physical memory plus swap, the
// virtual figures for this process's address space (its limit, or the
// 128 TiB of the x86-64 user space, less what the process has mapped).
struct UMEMORYSTATUS {
  unsigned dwLength;
  unsigned dwMemoryLoad;  // percent of physical memory in use
  std::size_t dwTotalPhys;
  std::size_t dwAvailPhys;
  std::size_t dwTotalPageFile;
  std::size_t dwAvailPageFile;
  std::size_t dwTotalVirtual;
  std::size_t dwAvailVirtual;
};
QUARNEL_API void UGlobalMemoryStatus(UMEMORYSTATUS* status);

// ---- Test seam ----
// Reservations of more than `limit` bytes fail with 8 (0: no limit), so that
// a search for the largest reservation has a known answer.
void USetVirtualReserveLimit(std::size_t limit);
// UGlobalMemoryStatus answers a copy of `*status` (null: the real figures).
void USetGlobalMemoryStatusOverride(const UMEMORYSTATUS* status);

#endif  // QUARNEL_PLATFORM_VMEM_H_
