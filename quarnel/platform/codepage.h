// Code pages, with Win32 meaning (GetACP, GetCPInfo, MultiByteToWideChar,
// WideCharToMultiByte, IsDBCSLeadByteEx).
//
// UTF-8 (65001), 1252 and 10000 (Mac Roman; code page 2, CP_MACCP, is 10000)
// by the library's own tables, matching Windows byte for byte, best-fit
// included: a table lookup per byte or unit, no allocation. 932 (Shift-JIS)
// through glibc's "CP932" converter, corrected where Windows differs (its
// tables are built once, on first use, from any thread). Other pages through
// iconv as "CP<n>" (65000 as "UTF-7"); a page iconv does not know fails
// with 87. CP_ACP and
// CP_THREAD_ACP are the environment record's page, CP_OEMCP is 437.
//
// Both conversions: a source length of -1 converts up to and including the
// terminator (the result counts it); any other length converts exactly that
// many units or bytes and writes no terminator. A destination length of 0
// asks for the size and writes nothing. Failures return 0 and set the last
// error: 87 bad parameter (null source, source length 0 or below -1, negative
// destination length, null destination with a non-zero length, an unknown
// page), 1004 flags the page does not take, 122 destination too small (it
// then holds as many whole characters as fit), 1113 invalid input when the
// caller asked for it to be reported. Success leaves the last error alone.
// The fault seam (UCall::kMultiByteToWideChar, kWideCharToMultiByte) can make
// any call fail with a chosen error.
//
// To UTF-16: every byte of 1252 and 10000 converts (1252's five unassigned
// bytes to U+0081, U+008D, U+008F, U+0090, U+009D). Invalid UTF-8 becomes one
// U+FFFD per maximal ill-formed subsequence. In 932 a lead byte takes the next
// byte with it when that byte lies in 40..FC, and a pair that is no character
// becomes U+30FB; a lead byte at the end or before any other byte becomes
// U+30FB on its own.
//
// From UTF-16: a unit the page cannot hold becomes the default character
// (`defaultChar`, else '?') and sets *usedDefault; a best-fit mapping (U+0100
// to 'A') does not. Each surrogate is a unit of its own for 1252, 10000 and
// 932. UTF-8 writes U+FFFD for a lone surrogate, and refuses a default
// character or a usedDefault flag (87), as do the stateful pages.
#ifndef QUARNEL_PLATFORM_CODEPAGE_H_
#define QUARNEL_PLATFORM_CODEPAGE_H_

#include "quarnel/foundation/export.h"

enum : unsigned {
  kCpAcp = 0,
  kCpOemCp = 1,  // 437
  kCpMacCp = 2,  // 10000
  kCpThreadAcp = 3,
  kCp932 = 932,
  kCp1252 = 1252,
  kCpMacRoman = 10000,
  kCpUtf7 = 65000,
  kCpUtf8 = 65001,
};

// MultiByteToWideChar flags. Composition and glyph characters are accepted
// and change nothing; MB_ERR_INVALID_CHARS makes invalid input fail with 1113.
enum : unsigned {
  kMbPrecomposed = 0x1,
  kMbComposite = 0x2,
  kMbUseGlyphChars = 0x4,
  kMbErrInvalidChars = 0x8,
};

// WideCharToMultiByte flags. WC_NO_BEST_FIT_CHARS turns best-fit mappings into
// the default character; WC_ERR_INVALID_CHARS (UTF-8 only) makes a lone
// surrogate fail with 1113; the others are accepted and change nothing.
enum : unsigned {
  kWcDiscardNs = 0x10,
  kWcSepChars = 0x20,
  kWcDefaultChar = 0x40,
  kWcErrInvalidChars = 0x80,
  kWcCompositeCheck = 0x200,
  kWcNoBestFitChars = 0x400,
};

// The system ANSI code page, from the environment record.
QUARNEL_API unsigned UGetACP();

// Win32 MultiByteToWideChar. Returns the units written (or needed), 0 on
// failure.
QUARNEL_API int UMultiByteToWideChar(unsigned codePage, unsigned flags, const char* src, int srcLen,
                                     char16_t* dst, int dstLen);
// Win32 WideCharToMultiByte. Returns the bytes written (or needed), 0 on
// failure. `defaultChar` (one byte, or a lead and a trail byte for 932) and
// `usedDefault` may be null; *usedDefault is written whenever the conversion
// ran, the 122 failure included.
QUARNEL_API int UWideCharToMultiByte(unsigned codePage, unsigned flags, const char16_t* src,
                                     int srcLen, char* dst, int dstLen, const char* defaultChar,
                                     int* usedDefault);
// Win32 CPINFO.
struct UCPINFO {
  unsigned MaxCharSize;          // bytes of the longest character
  unsigned char DefaultChar[2];  // what an unconvertible unit becomes
  unsigned char LeadByte[12];    // lead-byte ranges (first, last), ended by 0, 0
};

// Win32 GetCPInfo: 1 and *info filled for a page the conversions support and
// can describe: 65001 (4 bytes), 65000 (5), 1252 and 10000 (1), 932 (2, lead
// bytes 81..9F and E0..FC), 936, 949 and 950 (2, lead bytes 81..FE), and
// other iconv pages whose bytes each stand alone (1). The default character
// is '?' on every page. Otherwise 0 with last error 87 (also for a null
// `info`), *info untouched.
QUARNEL_API int UGetCPInfo(unsigned codePage, UCPINFO* info);

// 1 when `byte` starts a double-byte character of the page (932, and the
// lead ranges 81..FE of 936, 949 and 950); 0 for every other page.
QUARNEL_API int UIsDBCSLeadByteEx(unsigned codePage, unsigned char byte);
// IsDBCSLeadByte: the same for the system ANSI code page.
QUARNEL_API int UIsDBCSLeadByte(unsigned char byte);

#endif  // QUARNEL_PLATFORM_CODEPAGE_H_
