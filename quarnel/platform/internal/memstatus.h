// What each platform supplies to the shared memory-status calls: a fresh
// reading of the system's figures, and the test seam's reservation limit that
// its reservations obey.
#ifndef QUARNEL_PLATFORM_INTERNAL_MEMSTATUS_H_
#define QUARNEL_PLATFORM_INTERNAL_MEMSTATUS_H_

#include <cstddef>

#include "quarnel/platform/vmem.h"

namespace quarnel_internal {

// Fills every field from the system (zeros where it cannot be read).
void ReadMemoryStatus(UMEMORYSTATUS* status);

// The limit USetVirtualReserveLimit set: 0 for none.
std::size_t VirtualReserveLimit();

}  // namespace quarnel_internal

#endif  // QUARNEL_PLATFORM_INTERNAL_MEMSTATUS_H_
