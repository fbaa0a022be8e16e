// FindFirstFile, FindNextFile and FindClose over the drive map.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "quarnel/platform/faults.h"
#include "quarnel/platform/fileapi.h"
#include "quarnel/platform/internal/fileops.h"
#include "quarnel/platform/internal/handles.h"
#include "quarnel/platform/lasterror.h"

using namespace quarnel_internal;

namespace {

constexpr unsigned kWinFileNotFound = 2;
constexpr unsigned kWinInvalidHandle = 6;
constexpr unsigned kWinNoMoreFiles = 18;
constexpr unsigned kWinInvalidParameter = 87;

void CopyName(char16_t* dst, std::size_t cap, const std::u16string& name) {
  const std::size_t n = std::min(name.size(), cap - 1);
  std::memcpy(dst, name.data(), n * sizeof(char16_t));
  dst[n] = 0;
}

// Fills `data` for `entry` of the folder open as `folderFd`; false when the
// entry is gone.
bool Fill(int folderFd, const FolderEntry& entry, UWIN32_FIND_DATAW* data) {
  struct stat st;
  if (fstatat(folderFd, entry.host.c_str(), &st, 0) != 0 &&
      fstatat(folderFd, entry.host.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    return false;
  }
  std::memset(data, 0, sizeof *data);
  const bool dots = entry.host == "." || entry.host == "..";
  data->dwFileAttributes = AttributesOf(st, dots ? std::string() : entry.host);
  data->ftCreationTime = FileTimeOf(st.st_mtim);
  data->ftLastAccessTime = FileTimeOf(st.st_atim);
  data->ftLastWriteTime = FileTimeOf(st.st_mtim);
  if (!S_ISDIR(st.st_mode)) {
    const auto size = static_cast<std::uint64_t>(st.st_size);
    data->nFileSizeHigh = static_cast<std::uint32_t>(size >> 32);
    data->nFileSizeLow = static_cast<std::uint32_t>(size);
  }
  CopyName(data->cFileName, kMaxPath, entry.name);
  CopyName(data->cAlternateFileName, 14, entry.shortName);
  return true;
}

// Hands out the next entry that still exists; false at the end.
bool Next(UFindObject* f, UWIN32_FIND_DATAW* data) {
  for (;;) {
    const std::size_t at = f->next;
    if (at >= f->own.size() + f->picks.size()) return false;
    ++f->next;
    const FolderEntry& e =
        at < f->own.size() ? f->own[at] : (*f->listing)[f->picks[at - f->own.size()]];
    if (Fill(f->folderFd, e, data)) return true;
  }
}

int Refuse(unsigned err) {
  USetLastError(err);
  return 0;
}

}  // namespace

UHANDLE UFindFirstFile(const char16_t* pattern, UWIN32_FIND_DATAW* data) {
  unsigned err = 0;
  if (UShouldFail(UCall::kFindFirstFile, &err)) {
    USetLastError(err);
    return kInvalidHandleValue;
  }
  if (pattern == nullptr || data == nullptr) {
    USetLastError(kWinInvalidParameter);
    return kInvalidHandleValue;
  }
  const std::u16string longForm = LongPathForm(pattern);
  Resolved r;
  if ((err = ResolvePath(longForm.c_str(), true, &r)) != 0) {
    USetLastError(err);
    return kInvalidHandleValue;
  }
  if (r.isRoot || r.win.trailingSeparator) {
    USetLastError(kWinFileNotFound);
    return kInvalidHandleValue;
  }
  auto find = std::make_unique<UFindObject>();
  const std::u16string& last = r.win.parts.back();
  if (!r.parentExists) {
    USetLastError(HasWildcard(last) ? 3u : MissingError(r));
    return kInvalidHandleValue;
  }
  find->folderFd = ::open(r.parentHost.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (find->folderFd < 0) {
    USetLastError(3);
    return kInvalidHandleValue;
  }
  if (!HasWildcard(last)) {
    if (!r.exists) {
      USetLastError(MissingError(r));
      return kInvalidHandleValue;
    }
    find->own.push_back(
        FolderEntry{r.leaf, WideFromHost(r.leaf), ShortNameIn(r.parentHost, r.leaf)});
  } else {
    if (!FolderEntries(r.parentHost, &find->listing)) {
      USetLastError(3);
      return kInvalidHandleValue;
    }
    if (r.win.parts.size() > 1) {  // a root has no "." and ".."
      for (const char16_t* dot : {u".", u".."}) {
        if (WildcardMatch(last, dot))
          find->own.push_back(FolderEntry{HostFromWide(dot), dot, std::u16string()});
      }
    }
    const std::vector<FolderEntry>& all = *find->listing;
    const bool every = last == u"*" || last == u"*.*";
    find->picks.reserve(every ? all.size() : 16);
    for (std::size_t i = 0; i < all.size(); ++i) {
      if (every || WildcardMatch(last, all[i].name))
        find->picks.push_back(static_cast<std::uint32_t>(i));
    }
  }
  if (!Next(find.get(), data)) {
    USetLastError(kWinFileNotFound);
    return kInvalidHandleValue;
  }
  const UHANDLE h = AddHandle(find.release());
  USetLastError(h == kInvalidHandleValue ? 4 : 0);
  return h;
}

int UFindNextFile(UHANDLE handle, UWIN32_FIND_DATAW* data) {
  unsigned err = 0;
  if (UShouldFail(UCall::kFindNextFile, &err)) return Refuse(err);
  auto* find = static_cast<UFindObject*>(FindHandle(handle, UObject::kFind));
  if (find == nullptr) return Refuse(kWinInvalidHandle);
  if (data == nullptr) return Refuse(kWinInvalidParameter);
  if (!Next(find, data)) return Refuse(kWinNoMoreFiles);
  return 1;
}

int UFindClose(UHANDLE handle) {
  if (FindHandle(handle, UObject::kFind) == nullptr) return Refuse(kWinInvalidHandle);
  unsigned err = 0;
  if (UShouldFail(UCall::kCloseHandle, &err)) return Refuse(err);
  delete RemoveHandle(handle);
  return 1;
}
