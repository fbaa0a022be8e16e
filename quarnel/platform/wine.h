// Whether the Windows build runs under Wine rather than on Windows: the
// library's tests use it to name a Windows behaviour that Wine does not
// reproduce, where they compare the system's answers with recorded ones.
#ifndef QUARNEL_PLATFORM_WINE_H_
#define QUARNEL_PLATFORM_WINE_H_

#if defined(_WIN32)
// 1 under Wine (its ntdll exports wine_get_version), 0 on Windows.
int URunsUnderWine();
#else
inline int URunsUnderWine() { return 0; }
#endif

#endif  // QUARNEL_PLATFORM_WINE_H_
