// The Windows headers as the platform's Win32 files include them: lean, and
// without the min and max macros that would break the standard library.
#ifndef QUARNEL_PLATFORM_WIN32_WINAPI_H_
#define QUARNEL_PLATFORM_WIN32_WINAPI_H_

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>
// After windows.h, which they need: the loader's module list, ntdll's calls.
#include <psapi.h>
#include <winternl.h>

#include <string>

namespace quarnel_internal {

// UTF-8 host paths and texts of the environment record to UTF-16 and back
// (Windows' wide calls take UTF-16; wchar_t is 16 bits here).
std::wstring WideOf(const std::string& utf8);
std::string Utf8Of(const wchar_t* wide, std::size_t n);
std::string Utf8Of(const std::wstring& wide);

inline const wchar_t* W(const char16_t* s) { return reinterpret_cast<const wchar_t*>(s); }
inline wchar_t* W(char16_t* s) { return reinterpret_cast<wchar_t*>(s); }

}  // namespace quarnel_internal

#endif  // QUARNEL_PLATFORM_WIN32_WINAPI_H_
