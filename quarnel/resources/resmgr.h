// The module and resource manager.
//
// Text, icons, bitmaps, cursors and raw data live in resource modules: the
// host executable, the default resource module "vellores.dll"
// (libvellores.so) and any further modules the host loads with DLLoadLib.
// A module may declare, in its id resource (type 10, id 10001, 'DYL.'), the
// range of resource ids and the range of error codes it owns; the manager
// keeps one range record per entered module, refuses overlapping ones, and
// maps an error code to the string list and key of its message (RMGetErrID,
// used by the %E conversion).
//
// Search order. RMGetKList looks in "vellores.dll" (when it is loaded), then
// in the host executable, then in each module loaded with DLLoadLib, newest
// first. Every other lookup looks in the host executable first and then in
// the loaded modules. The host executable's resources are those it carries
// itself (cmake: quarnel_host_resources) and, ahead of them, the string lists
// a host registers at run time with RMAddHostKList.
//
// Threads: any thread may call. One process-wide monitor, the module lock,
// guards the range records, the list of loaded modules and every walk over
// them; the raw-resource cache has a monitor of its own. Pointers to resource
// bytes (RMGetKList) stay valid while their module stays loaded.
//
// Images. The library draws nothing on Linux: RMGetIcon, RMGetNamedIcon,
// RMGetBitmap, RMGetNamedBitmap and RMGetCursor return an RMImage, an opaque
// handle to the chosen resource's bytes and the size chosen, which the host's
// drawing layer turns into whatever it draws with (see RMImage).
#ifndef QUARNEL_RESOURCES_RESMGR_H_
#define QUARNEL_RESOURCES_RESMGR_H_

#include "quarnel/containers/tmonitor.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/export.h"
#include "quarnel/platform/module.h"

class TString;
class TMemory;

// Assertions (module "resmgr").
enum : int {
  kResmgrLineRestoreFailed = 866,  // an old range record could not be put back
  kResmgrLineFreeFailed = 897,     // FreeLibrary failed while unloading
};

// ---- modules ------------------------------------------------------------------

// Loads the module `name` and enters it with the ranges of its id resource
// (all four 0 when it has none). 0, or -630 (not loadable; id resource too
// small, unreadable), -631 (already entered: the extra load is released),
// -632 (range conflict), or the id resource's header check error (-690 for
// a header in the other byte order, -691 .. -694). Every failure is logged.
QUARNEL_API int DLLoadLib(TString* name);
// The same, with the four range values to use when the module has no id
// resource. For a module that is already loaded, replaces its range record
// by one with these values instead (the old one stays when the new one
// conflicts).
QUARNEL_API int DLLoadLib(TString* name, int firstRes, int lastRes, int firstErr, int lastErr);
// Unloads a module loaded with DLLoadLib and drops its range record; logs
// "DLUnloadLib: "name" wasn't loaded!" (515) for an unknown name.
QUARNEL_API void DLUnloadLib(TString* name);
// Checks a module file without entering it or running any of its code: it
// must carry raw-data resource 10002, and its id resource, if any, must pass
// the header check. 0, -630 or the check's error; logged.
QUARNEL_API int DLCheckLib(TString* name);

// One range record, as RMGetRanges reports it.
struct RMRangeRecord {
  HMODULE module;  // null for the library's built-in entry
  int firstRes;
  int lastRes;
  int firstErr;  // upper end of the error range (e.g. -1000)
  int lastErr;   // lower end (e.g. -2000)
};
// Copies up to `max` range records, in list order, into `out`; returns how
// many there are. The built-in entry (resources 16000..16001, errors
// -1000..-2000) is first once a module has been entered.
QUARNEL_API int RMGetRanges(RMRangeRecord* out, int max);

// ---- strings ------------------------------------------------------------------

// The bytes of string list `listId` (type 256) and their size, or null (size
// 0) when no module holds it. The bytes belong to the module: a caller that
// may run while another thread unloads modules holds RMModuleLock() from the
// lookup until it has read them (TString::LoadKString does).
QUARNEL_API const void* RMGetKList(int listId, int* size);

// The module lock. Re-entrant; held briefly by every lookup and by DLLoadLib
// and DLUnloadLib.
QUARNEL_API TMonitor& RMModuleLock();

namespace quarnel_internal {
// A lookup in a well-formed string list (every entry sound, up to its 0xFFFF
// end) through an index kept for the lists read most recently: 1 with the
// text of the first entry tagged `key`, 0 when no entry has that tag, -1
// when the list is not well formed (the caller walks it and reports what it
// meets). The answer is the one a walk from the start gives. Call with the
// module lock held; the index is dropped when a module or a host list comes
// or goes.
int KListLookup(const unsigned char* list, int size, unsigned key, const unsigned char** text,
                int* length);
}  // namespace quarnel_internal

// The 8-bit text of the entry tagged `key` in list `listId`, copied without a
// terminator into the MemAlloc block *handle (resized with MemRealloc; a null
// *handle gets a new block). Returns the text's length, or -1 when there is no
// such list or entry, or the list is malformed.
QUARNEL_API int RMGetKStringAnsi(int listId, unsigned key, void** handle);

// String `id` of the modules' string tables into `dst`, at most max - 1
// units. Returns its length, 0 when no module has it (dst is then empty).
QUARNEL_API int RMGetString(int id, TString* dst, int max);

// The string list and key of the message of error `err`: the first range
// record whose error range holds it (first >= err > last) gives the list
// (its last resource id - 1) and the key (the four decimal digits of
// first - err as a four-character code: -1005 gives list 16000, key '0005').
// Returns 1, or 0 when no range holds err.
QUARNEL_API int RMGetErrID(int err, unsigned short* listId, unsigned* key);

// Registers string list `listId` as one of the host executable's (the bytes
// must stay valid until removed); a null `data` removes it. Returns 1.
QUARNEL_API int RMAddHostKList(int listId, const void* data, int size);

// ---- raw data -----------------------------------------------------------------

// Copies resource `id` of `type` (-1 means 10, raw data) into `dst`, resized
// to the resource's size. 0, the error of TMemory::SetSize, or the mapped
// last error when no module has it (-1026, resource not found). A repeated
// request for the same id and type is served from a one-entry cache.
QUARNEL_API int RMGetRawResource(TMemory* dst, int id, short type);

// ---- images -------------------------------------------------------------------

struct TPoint {
  int x;
  int y;
};

enum : int {
  kRMImageBitmap = 0,  // bytes: the device-independent bitmap (header, colours, bits)
  kRMImageIcon = 1,    // bytes: one icon image (its bitmap header and masks, or PNG data)
  kRMImageCursor = 2,  // bytes: the cursor image after its 4-byte hot spot
};

enum : unsigned {
  kRMLoadShared = 0x8000,  // image option: one handle per module and resource, owned by the library
  kRMLoadSharedImage = 0x2000,  // the bitmap loads' own shared-image flag
};

// What an image handle stands for. A shared handle (bitmaps, cursors, the
// system icons, icons loaded with kRMLoadShared) belongs to the library and
// stays valid while its module stays loaded; any other handle owns a copy of
// its bytes and is released with RMDestroyImage.
struct RMImage {
  int kind;                    // kRMImageBitmap, kRMImageIcon, kRMImageCursor
  int id;                      // the resource id (0 for a named resource; the system id
                               // 32513, 32515 or 32516 for a system icon)
  const unsigned char* bytes;  // null for a system icon
  unsigned size;
  int width;  // the size chosen (an icon's requested size; a bitmap's or cursor's own)
  int height;
  int hotX;  // a cursor's hot spot, else 0
  int hotY;
  int shared;
};

// The icon group (type 14) `id`: the smallest width and the smallest height
// over its entries (taken separately), 1; 16 x 16 and 0 when there is none.
QUARNEL_API int RMGetDefaultIconSize(int id, int* width, int* height);
// The entry that fits the display scale best: with a scale of 1000 as the
// default size; else the largest entry above the default size that is at
// most the scaled default size in both directions. 1, or 0 when the group
// is absent.
QUARNEL_API int RMGetBestScaledIconSize(int id, int* width, int* height);

// Icon `id`: 16001, 16002 and 16003 are the system's stop, exclamation and
// information icons (shared, *shared = 1, reported as 32 x 32). Any other id
// is loaded at its default size, or (when the display scale is not 1000) at
// the scaled default size when `scaled` is non-zero, else at the best scaled
// size when `bestScaled` is non-zero; the size chosen goes to *size. The
// image of the group that fits that size best is taken (an exact match, else
// the smallest larger one, else the largest). `options` are the load options:
// kRMLoadShared makes a shared handle. `size` and `shared` may be null.
// Null when no module has the icon.
QUARNEL_API const RMImage* RMGetIcon(int id, int options, int scaled, int bestScaled, TPoint* size,
                                     int* shared);
// The icon group named `name`, at its default size; `flags` as RMGetIcon's options.
QUARNEL_API const RMImage* RMGetNamedIcon(TString* name, int flags);
// Bitmap (type 2) by id or name; shared. Null when absent or malformed.
QUARNEL_API const RMImage* RMGetBitmap(int id);
QUARNEL_API const RMImage* RMGetNamedBitmap(TString* name);
// Cursor group (type 12) `id`: its 32-pixel image, else its first; shared.
QUARNEL_API const RMImage* RMGetCursor(int id);
// Releases a handle that is not shared; shared handles and null are ignored.
QUARNEL_API void RMDestroyImage(const RMImage* image);

// The display scale in per mille (1000 = 100 %), which icon sizes follow.
// The host sets it before other threads start.
QUARNEL_API void SetGlobalScaleFactor(int perMille);
QUARNEL_API int GetGlobalScaleFactor();
// `value` scaled by the display scale, rounded to the nearest integer.
QUARNEL_API int GlobalScale(int value);

#endif  // QUARNEL_RESOURCES_RESMGR_H_
