// RMGetRawResource: resource bytes copied into a TMemory block, with a
// one-entry cache of the last resource found.
#include <cstring>

#include "quarnel/foundation/error.h"
#include "quarnel/foundation/tmemory.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/resources/internal/modlist.h"
#include "quarnel/resources/resmgr.h"

int RMGetRawResource(TMemory* dst, int id, short type) {
  if (dst == nullptr) return kErrBadParameter;
  const unsigned t = type == -1 ? unsigned{kResTypeRawData} : static_cast<unsigned short>(type);
  // The cache's lock is held throughout, and before the module lock, so that
  // DLUnloadLib (which takes them in the same order) cannot free the cached
  // bytes while they are copied. The block is sized after the module lock is
  // left: TMemory takes the memory lock, under which it may log (and so look
  // up list 16000 under the module lock).
  TMonitorHold cacheHold(quarnel_internal::RawCacheLock());
  quarnel_internal::RawCache& cache = quarnel_internal::TheRawCache();
  if (!cache.valid || cache.id != id || cache.type != t) {
    TMonitorHold hold(quarnel_internal::ModuleLock());
    const unsigned char* data = nullptr;
    HMODULE owner = nullptr;
    unsigned size = 0;
    for (HMODULE m : quarnel_internal::SearchModules()) {
      HRSRC r = UFindResource(m, id, t);
      if (r == nullptr) continue;
      HGLOBAL g = ULoadResource(m, r);
      data = static_cast<const unsigned char*>(g != nullptr ? ULockResource(g) : nullptr);
      if (data == nullptr) return MapWindowsError(UGetLastError());
      size = USizeofResource(m, r);
      owner = m;
      break;
    }
    if (data == nullptr) return MapWindowsError(UGetLastError());
    cache = quarnel_internal::RawCache{true, id, t, owner, data, size};
  }
  const int err = dst->SetSize(cache.size);
  if (err != kErrNone) return err;
  if (cache.size != 0) std::memcpy(dst->MemPtr(), cache.data, cache.size);
  return kErrNone;
}
