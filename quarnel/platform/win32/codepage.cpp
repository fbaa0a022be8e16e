#include "quarnel/platform/codepage.h"

#include <cstring>

#include "quarnel/platform/env.h"
#include "quarnel/platform/faults.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/platform/win32/winapi.h"

namespace {

// CP_ACP and CP_THREAD_ACP are the environment record's page, which a host
// or a test may set apart from the system's.
unsigned ResolveCodePage(unsigned codePage) {
  return codePage == kCpAcp || codePage == kCpThreadAcp ? UGetACP() : codePage;
}

}  // namespace

unsigned UGetACP() { return QuarnelEnv()->acp; }

int UMultiByteToWideChar(unsigned codePage, unsigned flags, const char* src, int srcLen,
                         char16_t* dst, int dstLen) {
  unsigned err = 0;
  if (UShouldFail(UCall::kMultiByteToWideChar, &err)) {
    USetLastError(err);
    return 0;
  }
  return ::MultiByteToWideChar(ResolveCodePage(codePage), flags, src, srcLen,
                               quarnel_internal::W(dst), dstLen);
}

int UWideCharToMultiByte(unsigned codePage, unsigned flags, const char16_t* src, int srcLen,
                         char* dst, int dstLen, const char* defaultChar, int* usedDefault) {
  unsigned err = 0;
  if (UShouldFail(UCall::kWideCharToMultiByte, &err)) {
    USetLastError(err);
    return 0;
  }
  BOOL used = FALSE;
  const int n =
      ::WideCharToMultiByte(ResolveCodePage(codePage), flags, quarnel_internal::W(src), srcLen, dst,
                            dstLen, defaultChar, usedDefault != nullptr ? &used : nullptr);
  if (usedDefault != nullptr) *usedDefault = used ? 1 : 0;
  return n;
}

int UIsDBCSLeadByteEx(unsigned codePage, unsigned char byte) {
  return ::IsDBCSLeadByteEx(ResolveCodePage(codePage), byte) ? 1 : 0;
}

int UIsDBCSLeadByte(unsigned char byte) { return UIsDBCSLeadByteEx(kCpAcp, byte); }

int UGetCPInfo(unsigned codePage, UCPINFO* info) {
  CPINFO cp;
  if (info == nullptr || !::GetCPInfo(ResolveCodePage(codePage), &cp)) {
    USetLastError(ERROR_INVALID_PARAMETER);
    return 0;
  }
  static_assert(sizeof cp.DefaultChar == sizeof info->DefaultChar &&
                sizeof cp.LeadByte == sizeof info->LeadByte);
  info->MaxCharSize = cp.MaxCharSize;
  std::memcpy(info->DefaultChar, cp.DefaultChar, sizeof cp.DefaultChar);
  std::memcpy(info->LeadByte, cp.LeadByte, sizeof cp.LeadByte);
  return 1;
}
