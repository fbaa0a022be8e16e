#include "quarnel/platform/locale.h"

#include <string>

#include "quarnel/platform/codepage.h"
#include "quarnel/platform/env.h"
#include "quarnel/platform/win32/winapi.h"

namespace {

// 0, LOCALE_USER_DEFAULT and LOCALE_SYSTEM_DEFAULT name the process's locale,
// which the environment record may set apart from the user's.
unsigned ResolveLcid(unsigned lcid) {
  return lcid == 0 || lcid == LOCALE_USER_DEFAULT || lcid == LOCALE_SYSTEM_DEFAULT
             ? UGetDefaultLCID()
             : lcid;
}

}  // namespace

unsigned UGetDefaultLCID() {
  const unsigned set = QuarnelEnv()->lcid;
  return set != 0 ? set : ::GetUserDefaultLCID();
}

int UGetLocaleInfoW(unsigned lcid, unsigned lctype, char16_t* buf, int len) {
  return ::GetLocaleInfoW(ResolveLcid(lcid), lctype, quarnel_internal::W(buf), len);
}

// LOCALE_USE_CP_ACP converts through the environment record's page; where
// that is the system's, the system does it.
int UGetLocaleInfoA(unsigned lcid, unsigned lctype, char* buf, int len) {
  lcid = ResolveLcid(lcid);
  if ((lctype & kLocaleUseCpAcp) == 0 || (lctype & kLocaleReturnNumber) != 0 ||
      UGetACP() == ::GetACP()) {
    return ::GetLocaleInfoA(lcid, lctype, buf, len);
  }
  const int units = ::GetLocaleInfoW(lcid, lctype & ~kLocaleUseCpAcp, nullptr, 0);
  if (units <= 0) return 0;
  std::u16string wide(static_cast<std::size_t>(units), u'\0');
  if (::GetLocaleInfoW(lcid, lctype & ~kLocaleUseCpAcp, quarnel_internal::W(wide.data()), units) <=
      0) {
    return 0;
  }
  return UWideCharToMultiByte(UGetACP(), 0, wide.data(), -1, buf, len, nullptr, nullptr);
}

int UCompareStringW(unsigned lcid, unsigned flags, const char16_t* a, int lenA, const char16_t* b,
                    int lenB) {
  return ::CompareStringW(ResolveLcid(lcid), flags, quarnel_internal::W(a), lenA,
                          quarnel_internal::W(b), lenB);
}
