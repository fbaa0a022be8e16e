// Resource lookups used by the text layer.
//
// This is the part of the module and resource manager that text needs:
// string lists and the error-text lookup. Resource modules are not loaded yet
// in this version of the library, so the module list is empty; a host (or a
// test) can still hand the library string lists that it carries itself with
// RMAddHostKList, and RMGetKList finds them as lists of the host executable.
#ifndef QUARNEL_RESOURCES_RESMGR_H_
#define QUARNEL_RESOURCES_RESMGR_H_

#include "quarnel/foundation/export.h"

// The bytes of string list `listId` and their size, or null when no module
// holds it.
QUARNEL_API const void* RMGetKList(int listId, int* size);

// The string list and key of the message of error `err`: 1 when a module's
// error range holds it, else 0.
QUARNEL_API int RMGetErrID(int err, unsigned short* listId, unsigned* key);

// Registers string list `listId` as carried by the host executable (the bytes
// must stay valid until removed); a null `data` removes it. Returns 1.
QUARNEL_API int RMAddHostKList(int listId, const void* data, int size);

#endif  // QUARNEL_RESOURCES_RESMGR_H_
