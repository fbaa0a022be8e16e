// Network connections with Win32 meaning (WNetGetConnection,
// WNetAddConnection2), on the drive map.
//
// A share \\server\share is the folder <unc root>/server/share (drivemap.h).
// A drive is a network drive when its host folder lies inside a share's
// folder: its drive type is remote, and its remote name is the share's
// name followed by the rest of the folder ("D=/net/srv/share/sub" is
// \\srv\share\sub). Connecting a share succeeds when its folder is there
// (mounted already, for example by an automounter); otherwise the
// environment record's connector (QuarnelEnvType::netConnect) is asked when
// the host installed one.
//
// Both calls return the Windows error number (0 for success), as the WNet
// calls do, and set the last error to it.
#ifndef QUARNEL_PLATFORM_NETAPI_H_
#define QUARNEL_PLATFORM_NETAPI_H_

#include <string>

#include "quarnel/foundation/export.h"

// The remote name of drive `localName` ("D:"). 1200 for a name that is not a
// drive letter and colon, 2250 for a drive that is not a network drive (or
// not mapped), 234 when `*length` units cannot hold the name and its
// terminator (*length then says how many are needed).
QUARNEL_API unsigned UNetGetConnection(const char16_t* localName, char16_t* remoteName,
                                       unsigned* length);
// Connects the share `remoteName` ("\\server\share", a trailing backslash
// allowed) with an account (`user`, `password`; null for none). 0 when the
// share's folder is reachable, at once or after the connector; else the
// connector's error, or 53 when the server's folder is missing and 67 when
// the share's is (or the connector said 0 but the folder is still missing,
// or the name is not a share's).
QUARNEL_API unsigned UNetAddConnection(const char16_t* remoteName, const char16_t* password,
                                       const char16_t* user);

namespace quarnel_internal {
// The remote name of a host folder inside a share's folder ("\\srv\share"
// and the rest), "" when it lies in none.
std::u16string RemoteNameOfHost(const std::string& hostFolder);
}  // namespace quarnel_internal

#endif  // QUARNEL_PLATFORM_NETAPI_H_
