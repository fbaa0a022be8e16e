// Modules and their resources, with Win32 meaning (LoadLibrary,
// LoadLibraryEx, FreeLibrary, GetModuleHandle, GetModuleFileName,
// FindResource, SizeofResource, LoadResource, LockResource, FreeResource,
// LoadString).
//
// A module is a shared object loaded with dlopen, or a file read as data, or
// the host executable. Its resources are the blob (resblob.h) that it carries
// in a section of its own and exports as the symbol "quarnel_resources"; a
// module without that symbol has no resources. The host executable carries
// one the same way when it exports the symbol from the executable itself
// (the CMake helper quarnel_host_resources does that).
//
// Names. A name with a "/" is a path and is used as it is. Otherwise a name
// "X.dll" (any case of ".dll") is looked for as "libX.so", then "X.so", then
// as given; any other name only as given. Each of these is looked for in the
// application folder (the environment record's appFolder), then in the folder
// of the shared object that holds this library, then through the loader's own
// search (LD_LIBRARY_PATH, the run path, the cache and the system folders).
// A data-file load looks in the same two folders and then in each folder of
// LD_LIBRARY_PATH, since it does not go through the loader.
//
// Loading the same shared object again gives the same module with one more
// reference; UFreeLibrary drops one, and the last one unloads it. A data-file
// load makes a new module each time: the blob is read from the file (the ELF
// section and dynamic symbol tables are parsed, bounds-checked) and none of
// the module's code runs.
//
// Failures return null or 0 and set the last error: 2 no such file (data
// file), 6 invalid module handle, 13 the module's resource blob is malformed,
// 87 bad parameter, 126 module not found, 193 not a loadable module (not an
// ELF file, or one whose tables lie outside the file), 1813 no resource of
// that type, 1814 no resource of that id or name. The fault seam can make
// ULoadLibrary and ULoadLibraryEx (UCall::kLoadLibrary), UFreeLibrary
// (kFreeLibrary) and ULoadResource (kLoadResource) fail with a chosen error.
//
// Threads: every call may come from any thread; the table of loaded modules
// has its own lock. A module must not be freed while another thread reads its
// resources (the resource manager's module lock sees to that).
#ifndef QUARNEL_PLATFORM_MODULE_H_
#define QUARNEL_PLATFORM_MODULE_H_

#include <string>
#include <vector>

#include "quarnel/foundation/export.h"
#include "quarnel/platform/resblob.h"

#if defined(_WIN32)
// On Windows the handles are the system's own: a module as LoadLibraryEx
// gives it (a host may pass its own), a resource as FindResource finds it,
// its data as LoadResource gives it. Resources are the module's real Win32
// resources, and module names are searched as LoadLibraryEx searches them,
// after the application folder.
struct HINSTANCE__;
struct HRSRC__;
using HMODULE = HINSTANCE__*;
using HRSRC = HRSRC__*;
using HGLOBAL = void*;
#else
struct UModule;
using HMODULE = UModule*;
// A resource of a module (the address of its directory entry) and its data.
using HRSRC = const void*;
using HGLOBAL = const void*;
#endif

enum : unsigned {
  kLoadLibraryAsDatafile = 2,  // ULoadLibraryEx: read the resources only, run nothing
};

// The symbol under which a module exports its resource blob.
constexpr const char kResourceSymbol[] = "quarnel_resources";

QUARNEL_API HMODULE ULoadLibrary(const char16_t* name);
// `flags` kLoadLibraryAsDatafile reads the file as data; 0 is ULoadLibrary.
QUARNEL_API HMODULE ULoadLibraryEx(const char16_t* name, unsigned flags);
// Drops one reference. 1 on success, 0 on failure. The host executable is
// never unloaded (1, nothing done).
QUARNEL_API int UFreeLibrary(HMODULE module);
// The loaded shared object of that name (not a data-file module), without a
// new reference; null `name` gives the host executable. Null (126) when none.
QUARNEL_API HMODULE UGetModuleHandle(const char16_t* name);
// The module's file path (the host executable's for null), cut to size - 1
// units and terminated. Returns the units written, 0 on failure.
QUARNEL_API int UGetModuleFileName(HMODULE module, char16_t* buffer, int size);
// The address of the exported symbol `name` of a shared object (the host
// executable's for null). Null when there is none (127) or the handle is not a
// loaded shared object (6).
QUARNEL_API void* UGetProcAddress(HMODULE module, const char* name);

QUARNEL_API HRSRC UFindResource(HMODULE module, int id, unsigned type);
QUARNEL_API HRSRC UFindResourceNamed(HMODULE module, const char16_t* name, int length,
                                     unsigned type);
QUARNEL_API unsigned USizeofResource(HMODULE module, HRSRC resource);
QUARNEL_API HGLOBAL ULoadResource(HMODULE module, HRSRC resource);
QUARNEL_API const void* ULockResource(HGLOBAL data);
// The `index`-th resource of the module (from 0, in the order the module
// keeps them), for tools that list what a module holds (EnumResourceTypes
// and EnumResourceNames in one walk). 1 and `*entry` filled; 0 past the last
// one (last error 1813) or for an invalid module (6).
QUARNEL_API int UEnumResource(HMODULE module, int index, UResEntry* entry);

// Resources live as long as their module: nothing to free. Returns 0.
QUARNEL_API int UFreeResource(HGLOBAL data);

// String `id` of the module's string tables (type 6, block id / 16 + 1), at
// most size - 1 units and a terminator. Returns the units copied; 0 when the
// string is absent or empty (1814 when absent).
QUARNEL_API int ULoadString(HMODULE module, unsigned id, char16_t* buffer, int size);

// A number that changes whenever a shared object enters or leaves the table
// of loaded modules (callers cache UGetModuleHandle results against it).
unsigned UModuleGeneration();

#if !defined(_WIN32)
// The module's checked resource blob (empty for a module without one).
UResBlob UModuleResources(HMODULE module);

namespace quarnel_internal {
// The file names a module name is looked for as, in order.
std::vector<std::string> ModuleNameCandidates(const std::string& name);
}  // namespace quarnel_internal
#endif

#endif  // QUARNEL_PLATFORM_MODULE_H_
