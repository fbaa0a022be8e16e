// Code pages, with Win32 meaning (GetACP, MultiByteToWideChar,
// WideCharToMultiByte, IsDBCSLeadByteEx).
//
// UTF-8 (65001), 1252, 10000 (Mac Roman; code page 2, CP_MACCP, is 10000) by
// the library's own tables, matching Windows byte for byte, best-fit
// included; 932 (Shift-JIS) and other pages through iconv. A size query
// (destination length 0) returns the units or bytes needed. Failures return 0
// and set the last error: 87 bad parameter, 122 buffer too small, 1113 no
// mapping for a byte sequence.
#ifndef QUARNEL_PLATFORM_CODEPAGE_H_
#define QUARNEL_PLATFORM_CODEPAGE_H_

#include "quarnel/foundation/export.h"

enum : unsigned {
  kCpAcp = 0,
  kCpMacCp = 2,
  kCp932 = 932,
  kCp1252 = 1252,
  kCpMacRoman = 10000,
  kCpUtf8 = 65001,
};

enum : unsigned { kMbPrecomposed = 0x1 };

// The system ANSI code page, from the environment record.
QUARNEL_API unsigned UGetACP();

// Win32 MultiByteToWideChar: srcLen -1 converts up to and including the
// terminator; dstLen 0 asks for the size.
QUARNEL_API int UMultiByteToWideChar(unsigned codePage, unsigned flags, const char* src,
                                     int srcLen, char16_t* dst, int dstLen);
// Win32 WideCharToMultiByte, with Windows' best-fit mappings; `defaultChar`
// and `usedDefault` may be null.
QUARNEL_API int UWideCharToMultiByte(unsigned codePage, unsigned flags, const char16_t* src,
                                     int srcLen, char* dst, int dstLen, const char* defaultChar,
                                     int* usedDefault);
QUARNEL_API int UIsDBCSLeadByteEx(unsigned codePage, unsigned char byte);
// IsDBCSLeadByte: the same for the system ANSI code page.
QUARNEL_API int UIsDBCSLeadByte(unsigned char byte);

#endif  // QUARNEL_PLATFORM_CODEPAGE_H_
