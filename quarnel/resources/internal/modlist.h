// The resource manager's shared state, for its own files: the module lock,
// the modules that lookups search, and the shared image handles each
// module owns.
#ifndef QUARNEL_RESOURCES_INTERNAL_MODLIST_H_
#define QUARNEL_RESOURCES_INTERNAL_MODLIST_H_

#include <vector>

#include "quarnel/containers/tmonitor.h"
#include "quarnel/platform/module.h"

struct RMImage;

namespace quarnel_internal {

// The module lock: guards the range records, the loaded-module list, the
// host's registered lists and the shared image handles.
TMonitor& ModuleLock();

// The raw-resource cache's lock. Where both are held, it is taken first.
TMonitor& RawCacheLock();

// The modules that every lookup but RMGetKList searches, in order: the host
// executable, then the modules loaded with DLLoadLib, newest first. Call with
// the module lock held.
std::vector<HMODULE> SearchModules();

// The bytes of resource (type, id) of `module`, or null; *size gets their
// size. Call with the module lock held.
const unsigned char* ModuleResource(HMODULE module, unsigned type, int id, unsigned* size);

// Image handles: drops every shared handle of `module` (it is being
// unloaded). Call with the module lock held.
void ReleaseModuleImages(HMODULE module);

// The one-entry cache of RMGetRawResource: the last resource found, guarded
// by RawCacheLock.
struct RawCache {
  bool valid = false;
  int id = 0;
  unsigned type = 0;
  HMODULE module = nullptr;
  const unsigned char* data = nullptr;
  unsigned size = 0;
};
RawCache& TheRawCache();

// The raw-resource cache forgets resources of `module` (it is being
// unloaded). Call with the raw cache lock held.
void ForgetRawResources(HMODULE module);

}  // namespace quarnel_internal

#endif  // QUARNEL_RESOURCES_INTERNAL_MODLIST_H_
