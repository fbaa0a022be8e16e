#include "quarnel/platform/drivemap.h"

#include <dirent.h>
#include <errno.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "quarnel/platform/env.h"
#include "quarnel/platform/internal/resolve.h"
#include "quarnel/platform/lasterror.h"

namespace quarnel_internal {

namespace {

constexpr unsigned kWinPathNotFound = 3;
constexpr unsigned kWinBadNetPath = 53;
constexpr unsigned kWinBadNetName = 67;
constexpr unsigned kWinInsufficientBuffer = 122;

std::string HostCwd() {
  char buf[4096];
  return getcwd(buf, sizeof buf) ? std::string(buf) : std::string("/");
}

// Lexical normalisation of a host path: absolute, no ".", "..", "//" or
// trailing slash (except "/").
std::string NormalHost(const std::string& path) {
  std::string full = !path.empty() && path[0] == '/' ? path : JoinHost(HostCwd(), path);
  std::vector<std::string> parts;
  std::size_t i = 0;
  while (i <= full.size()) {
    std::size_t j = full.find('/', i);
    if (j == std::string::npos) j = full.size();
    const std::string part = full.substr(i, j - i);
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
    } else if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
    i = j + 1;
  }
  std::string out;
  for (const std::string& p : parts) out += "/" + p;
  return out.empty() ? "/" : out;
}

struct DriveMap {
  std::shared_mutex lock;
  std::string drives[26];
  std::string uncRoot = "/net";
  std::u16string current;
};

DriveMap& Map() {
  static DriveMap* map = [] {
    auto* m = new DriveMap;
    m->drives['Z' - 'A'].assign(1, '/');
    if (const char* spec = std::getenv("QUARNEL_DRIVES")) {
      std::string s(spec);
      std::size_t i = 0;
      while (i < s.size()) {
        std::size_t j = s.find(';', i);
        if (j == std::string::npos) j = s.size();
        const std::string item = s.substr(i, j - i);
        const std::size_t eq = item.find('=');
        if (eq == 1 && std::isalpha(static_cast<unsigned char>(item[0]))) {
          const int d = std::toupper(static_cast<unsigned char>(item[0])) - 'A';
          const std::string folder = item.substr(2);
          m->drives[d] = folder.empty() ? std::string() : NormalHost(folder);
        }
        i = j + 1;
      }
    }
    if (const char* unc = std::getenv("QUARNEL_UNC_ROOT"); unc && *unc)
      m->uncRoot = NormalHost(unc);
    return m;
  }();
  return *map;
}

// ---- the folder index behind case-insensitive names -------------------------

bool SameTime(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool Before(const timespec& a, const timespec& b) {
  return a.tv_sec < b.tv_sec || (a.tv_sec == b.tv_sec && a.tv_nsec < b.tv_nsec);
}

// One folder's entries in find order (their upper-cased names), and the
// entries by folded name. `trusted`: the folder had not changed within the
// clock tick of the scan, so an unchanged change time proves the index
// complete and a miss needs no new scan. The 8.3 names are made the first
// time they are asked for; a listing handed out is not changed afterwards.
struct FolderIndex {
  dev_t dev = 0;
  ino_t ino = 0;
  timespec mtime{};
  timespec ctime{};
  bool trusted = false;
  bool shortNamesMade = false;
  std::shared_ptr<std::vector<FolderEntry>> listing;
  std::unordered_map<std::u16string, std::size_t> byFold;
};

constexpr std::size_t kIndexedFolders = 32;

struct IndexCache {
  std::mutex lock;
  std::list<std::string> order;  // most recently used first
  std::unordered_map<std::string, std::pair<FolderIndex, std::list<std::string>::iterator>> map;
};

IndexCache& Cache() {
  static auto* cache = new IndexCache;
  return *cache;
}

bool Scan(const std::string& folder, FolderIndex* index) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  struct stat st;
  if (stat(folder.c_str(), &st) != 0) return false;
  DIR* dir = opendir(folder.c_str());
  if (!dir) return false;
  std::vector<FolderEntry> found;
  std::vector<std::u16string> folds;
  while (dirent* e = readdir(dir)) {
    const char* n = e->d_name;
    if (n[0] == '.' && (n[1] == 0 || (n[1] == '.' && n[2] == 0))) continue;
    found.push_back(FolderEntry{n, WideFromHost(n), std::u16string()});
    folds.push_back(FoldName(found.back().name));
  }
  closedir(dir);
  std::vector<std::uint32_t> order(found.size());
  for (std::uint32_t i = 0; i < order.size(); ++i) order[i] = i;
  // Names equal but for case: the lowest host name first, and it answers
  // for all of them.
  std::sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
    const int c = folds[a].compare(folds[b]);
    return c != 0 ? c < 0 : found[a].host < found[b].host;
  });
  auto listing = std::make_shared<std::vector<FolderEntry>>();
  listing->reserve(found.size());
  index->byFold.clear();
  index->byFold.reserve(found.size());
  for (std::uint32_t i : order) {
    index->byFold.emplace(std::move(folds[i]), listing->size());
    listing->push_back(std::move(found[i]));
  }
  index->listing = std::move(listing);
  index->shortNamesMade = false;
  index->dev = st.st_dev;
  index->ino = st.st_ino;
  index->mtime = st.st_mtim;
  index->ctime = st.st_ctim;
  index->trusted = Before(st.st_mtim, now) && Before(st.st_ctim, now);
  return true;
}

// Under the cache's lock: the index of `folder` (whose stat is `st`),
// rescanned when the folder changed since, and with `complete` also when the
// index cannot prove it saw every name. Null when the folder cannot be read.
FolderIndex* IndexOf(IndexCache& cache, const std::string& folder, const struct stat& st,
                     bool complete, bool* rescanned) {
  *rescanned = false;
  auto it = cache.map.find(folder);
  if (it == cache.map.end()) {
    FolderIndex index;
    if (!Scan(folder, &index)) return nullptr;
    *rescanned = true;
    cache.order.push_front(folder);
    it = cache.map.emplace(folder, std::make_pair(std::move(index), cache.order.begin())).first;
    if (cache.map.size() > kIndexedFolders) {
      cache.map.erase(cache.order.back());
      cache.order.pop_back();
    }
    return &it->second.first;
  }
  cache.order.splice(cache.order.begin(), cache.order, it->second.second);
  FolderIndex& index = it->second.first;
  const bool same = index.dev == st.st_dev && index.ino == st.st_ino &&
                    SameTime(index.mtime, st.st_mtim) && SameTime(index.ctime, st.st_ctim);
  if (!same || (complete && !index.trusted)) {
    if (!Scan(folder, &index)) return nullptr;
    *rescanned = true;
  }
  return &index;
}

// Gives every entry that is not a valid 8.3 name its 8.3 name, in find
// order. A name's number starts after the last one its group (the names
// with the same first 8.3 name) took, and after the last one taken by the
// names that shorten to the same base for a number of that many digits, so
// that each entry costs a few tries however crowded the folder.
void MakeShortNames(FolderIndex* index) {
  if (index->shortNamesMade) return;
  index->shortNamesMade = true;
  std::vector<FolderEntry>& list = *index->listing;
  std::vector<bool> isShort(list.size());
  std::vector<std::u16string> shortFolds;
  shortFolds.reserve(list.size());  // `taken` points into it
  std::unordered_set<std::u16string_view> taken;
  for (std::size_t i = 0; i < list.size(); ++i) {
    isShort[i] = IsShortName(list[i].name);
    if (isShort[i]) taken.insert(shortFolds.emplace_back(FoldName(list[i].name)));
  }
  // Where a group's or a shortened base's numbers stand, by a hash of its
  // text: a clash of hashes only makes a name start further on.
  const std::hash<std::u16string_view> hash;
  auto key = [&](std::u16string_view base, std::u16string_view ext, std::size_t digits) {
    return (hash(base) * 0x9E3779B97F4A7C15u) ^ hash(ext) ^ (digits << 56);
  };
  std::unordered_map<std::size_t, int> lastOfGroup, lastOfFamily;
  for (std::size_t i = 0; i < list.size(); ++i) {
    if (isShort[i]) continue;
    const ShortNameStem stem = ShortStemOf(list[i].name);
    const std::u16string_view base(stem.base), ext(stem.ext);
    int& groupLast = lastOfGroup[key(base.substr(0, 6), ext, 0)];
    for (int n = groupLast + 1;; ++n) {
      std::size_t digits = 1;
      for (int v = n; v >= 10; v /= 10) ++digits;
      int& familyLast =
          lastOfFamily[key(base.substr(0, digits >= 7 ? 1 : 7 - digits), ext, digits)];
      if (n <= familyLast) {
        n = familyLast;  // the loop's ++n goes past it
        continue;
      }
      std::u16string& alt = list[i].shortName;
      alt = ShortNameFrom(stem, n);
      if (!taken.insert(alt).second) continue;
      groupLast = familyLast = n;
      break;
    }
  }
}

// The on-disk name in `folder` that equals `wide` ignoring case (or is its
// 8.3 name), "" when none.
std::string FindFolded(const std::string& folder, const std::u16string& wide) {
  const std::u16string key = FoldName(wide);
  struct stat st;
  if (stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return std::string();
  IndexCache& cache = Cache();
  std::lock_guard<std::mutex> hold(cache.lock);
  bool rescanned = false;
  FolderIndex* index = IndexOf(cache, folder, st, false, &rescanned);
  if (index == nullptr) return std::string();
  auto hit = index->byFold.find(key);
  if (hit != index->byFold.end()) {
    const std::string& host = (*index->listing)[hit->second].host;
    struct stat probe;
    if (lstat(JoinHost(folder, host).c_str(), &probe) == 0) return host;
  }
  if (!rescanned && !index->trusted) {
    if (!Scan(folder, index)) return std::string();
    hit = index->byFold.find(key);
    if (hit != index->byFold.end()) return (*index->listing)[hit->second].host;
  }
  if (key.find(u'~') == std::u16string::npos || !IsShortName(key)) return std::string();
  MakeShortNames(index);
  for (const FolderEntry& e : *index->listing)
    if (e.shortName == key) return e.host;
  return std::string();
}

// Finds `name` in `folder`: as given, else ignoring case. Returns the
// on-disk name, "" when absent.
std::string FindName(const std::string& folder, const std::u16string& name) {
  const std::string exact = HostFromWide(name);
  struct stat st;
  if (lstat(JoinHost(folder, exact).c_str(), &st) == 0) return exact;
  return FindFolded(folder, name);
}

bool IsFolder(const std::string& host) {
  struct stat st;
  return stat(host.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Fills `st` for `host`, following a symbolic link unless it dangles.
bool StatHost(const std::string& host, struct stat* st) {
  if (stat(host.c_str(), st) == 0) return true;
  return lstat(host.c_str(), st) == 0;
}

// True unless the path names its root itself ("X:\\", "X:/", "\\\\").
bool IsRelative(const char16_t* p) {
  if (p[0] == 0 || p[1] == 0) return true;
  if ((p[0] == u'\\' || p[0] == u'/') && (p[1] == u'\\' || p[1] == u'/')) return false;
  return !(p[1] == u':' && (p[2] == u'\\' || p[2] == u'/'));
}

}  // namespace

std::string JoinHost(const std::string& folder, const std::string& name) {
  if (folder.empty() || folder.back() == '/') return folder + name;
  return folder + "/" + name;
}

std::string DriveHost(char16_t letter) {
  if (letter >= u'a' && letter <= u'z') letter -= 32;
  if (letter < u'A' || letter > u'Z') return std::string();
  DriveMap& m = Map();
  std::shared_lock<std::shared_mutex> hold(m.lock);
  return m.drives[letter - u'A'];
}

std::string UncRootHost() {
  DriveMap& m = Map();
  std::shared_lock<std::shared_mutex> hold(m.lock);
  return m.uncRoot;
}

std::vector<std::pair<char16_t, std::string>> DriveList() {
  DriveMap& m = Map();
  std::shared_lock<std::shared_mutex> hold(m.lock);
  std::vector<std::pair<char16_t, std::string>> out;
  for (int i = 0; i < 26; ++i)
    if (!m.drives[i].empty()) out.emplace_back(static_cast<char16_t>(u'A' + i), m.drives[i]);
  return out;
}

std::u16string LocFromHost(const std::string& hostPath) {
  const std::string host = NormalHost(hostPath);
  auto under = [&](const std::string& folder) {
    if (folder == "/") return true;
    return host.compare(0, folder.size(), folder) == 0 &&
           (host.size() == folder.size() || host[folder.size()] == '/');
  };
  auto rest = [&](const std::string& folder) {
    std::string r =
        folder == "/" ? host.substr(1) : host.substr(std::min(host.size(), folder.size() + 1));
    std::u16string w = WideFromHost(r);
    for (char16_t& c : w)
      if (c == u'/') c = u'\\';
    return w;
  };
  int best = -1;
  std::size_t bestLen = 0;
  std::string bestFolder;
  for (const auto& [letter, folder] : DriveList()) {
    if (under(folder) && (best < 0 || folder.size() > bestLen)) {
      best = letter;
      bestLen = folder.size();
      bestFolder = folder;
    }
  }
  const std::string unc = UncRootHost();
  if (unc != "/" && under(unc) && (best < 0 || unc.size() > bestLen)) {
    std::u16string r = rest(unc);
    const std::size_t s1 = r.find(u'\\');
    if (!r.empty() && s1 != 0 && s1 != std::u16string::npos && s1 + 1 < r.size()) {
      return u"\\\\" + r;
    }
  }
  if (best < 0) return std::u16string();
  return std::u16string(1, static_cast<char16_t>(best)) + u":\\" + rest(bestFolder);
}

std::u16string CurrentFolder() {
  DriveMap& m = Map();
  {
    std::shared_lock<std::shared_mutex> hold(m.lock);
    if (!m.current.empty()) return m.current;
  }
  std::u16string cur = LocFromHost(HostCwd());
  if (cur.size() > 3 && cur.back() == u'\\') cur.pop_back();
  std::unique_lock<std::shared_mutex> hold(m.lock);
  if (m.current.empty()) m.current = cur;
  return m.current;
}

void SetCurrentFolder(const std::u16string& full) {
  DriveMap& m = Map();
  std::unique_lock<std::shared_mutex> hold(m.lock);
  m.current = full;
}

bool FolderEntries(const std::string& folder,
                   std::shared_ptr<const std::vector<FolderEntry>>* out) {
  struct stat st;
  if (stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return false;
  IndexCache& cache = Cache();
  std::lock_guard<std::mutex> hold(cache.lock);
  bool rescanned = false;
  FolderIndex* index = IndexOf(cache, folder, st, true, &rescanned);
  if (index == nullptr) return false;
  MakeShortNames(index);
  *out = index->listing;
  return true;
}

std::u16string ShortNameIn(const std::string& folder, const std::string& hostName) {
  const std::u16string wide = WideFromHost(hostName);
  if (IsShortName(wide)) return std::u16string();
  struct stat st;
  if (stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return std::u16string();
  IndexCache& cache = Cache();
  std::lock_guard<std::mutex> hold(cache.lock);
  bool rescanned = false;
  FolderIndex* index = IndexOf(cache, folder, st, true, &rescanned);
  if (index == nullptr) return std::u16string();
  MakeShortNames(index);
  const auto hit = index->byFold.find(FoldName(wide));
  if (hit == index->byFold.end()) return std::u16string();
  const FolderEntry& e = (*index->listing)[hit->second];
  return e.host == hostName ? e.shortName : std::u16string();
}

void ForgetFolderIndex(const std::string& folderHost) {
  IndexCache& cache = Cache();
  std::lock_guard<std::mutex> hold(cache.lock);
  auto it = cache.map.find(folderHost);
  if (it == cache.map.end()) return;
  cache.order.erase(it->second.second);
  cache.map.erase(it);
}

unsigned ResolvePath(const char16_t* path, bool wildLast, Resolved* out) {
  *out = Resolved{};
  std::u16string current;
  if (path != nullptr && IsRelative(path)) current = CurrentFolder();
  if (const unsigned err = ParseWinPath(path, current, wildLast, &out->win)) return err;
  const WinPath& w = out->win;
  if (w.kind == WinPath::kUnc) {
    const std::string unc = UncRootHost();
    const std::string server = FindName(unc, w.server);
    if (server.empty() || !IsFolder(JoinHost(unc, server))) return kWinBadNetPath;
    const std::string share = FindName(JoinHost(unc, server), w.share);
    if (share.empty() || !IsFolder(JoinHost(JoinHost(unc, server), share))) return kWinBadNetName;
    out->rootHost = JoinHost(JoinHost(unc, server), share);
  } else {
    out->rootHost = DriveHost(w.drive);
    if (out->rootHost.empty()) return kWinPathNotFound;
  }
  const std::vector<std::u16string> parts =
      w.kind == WinPath::kDevice ? std::vector<std::u16string>() : w.parts;
  if (parts.empty()) {
    out->isRoot = true;
    out->host = out->rootHost;
    out->parentHost = out->rootHost;
    out->exists = StatHost(out->host, &out->st) && S_ISDIR(out->st.st_mode);
    out->parentExists = out->exists;
    if (!out->exists) return kWinPathNotFound;
    return 0;
  }
  // The names as given first: the common case costs one stat.
  std::string exact = out->rootHost;
  for (const std::u16string& p : parts) exact = JoinHost(exact, HostFromWide(p));
  if (StatHost(exact, &out->st)) {
    out->host = exact;
    out->exists = true;
    out->parentExists = true;
    out->leaf = HostFromWide(parts.back());
    out->parentHost = exact.substr(0, exact.size() - out->leaf.size() - 1);
    if (out->parentHost.empty()) out->parentHost.assign(1, '/');
    return 0;
  }
  // Otherwise walk: the folder part as given when it exists, else component
  // by component ignoring case.
  std::string folder = out->rootHost;
  std::string parentExact = out->rootHost;
  for (std::size_t i = 0; i + 1 < parts.size(); ++i)
    parentExact = JoinHost(parentExact, HostFromWide(parts[i]));
  bool found = true;
  if (IsFolder(parentExact)) {
    folder = parentExact;
  } else {
    for (std::size_t i = 0; i + 1 < parts.size(); ++i) {
      const std::string name = FindName(folder, parts[i]);
      if (name.empty()) {
        found = false;
        folder = JoinHost(folder, HostFromWide(parts[i]));
        continue;
      }
      folder = JoinHost(folder, name);
      if (found && !IsFolder(folder)) found = false;
    }
  }
  out->parentHost = folder;
  out->parentExists = found && IsFolder(folder);
  std::string leaf;
  const bool pattern = wildLast && HasWildcard(parts.back());
  if (out->parentExists && !pattern) leaf = FindFolded(folder, parts.back());
  out->leaf = leaf.empty() ? HostFromWide(parts.back()) : leaf;
  out->host = JoinHost(folder, out->leaf);
  out->exists = !leaf.empty() && StatHost(out->host, &out->st);
  return 0;
}

}  // namespace quarnel_internal

using quarnel_internal::DriveMap;

int QuarnelSetDrive(char16_t letter, const char* hostFolder) {
  if (letter >= u'a' && letter <= u'z') letter -= 32;
  if (letter < u'A' || letter > u'Z') return 0;
  const std::string folder =
      hostFolder && *hostFolder ? quarnel_internal::NormalHost(hostFolder) : std::string();
  DriveMap& m = quarnel_internal::Map();
  std::unique_lock<std::shared_mutex> hold(m.lock);
  m.drives[letter - u'A'] = folder;
  return 1;
}

std::string QuarnelGetDrive(char16_t letter) { return quarnel_internal::DriveHost(letter); }

void QuarnelSetUncRoot(const char* hostFolder) {
  const std::string folder =
      hostFolder && *hostFolder ? quarnel_internal::NormalHost(hostFolder) : std::string("/net");
  DriveMap& m = quarnel_internal::Map();
  std::unique_lock<std::shared_mutex> hold(m.lock);
  m.uncRoot = folder;
}

std::string QuarnelGetUncRoot() { return quarnel_internal::UncRootHost(); }

int ULocFromHostPath(const char* hostPath, char16_t* out, int size) {
  if (hostPath == nullptr || out == nullptr || size <= 0) {
    USetLastError(87);
    return 0;
  }
  const std::u16string loc = quarnel_internal::LocFromHost(hostPath);
  if (loc.empty()) {
    USetLastError(quarnel_internal::kWinPathNotFound);
    return 0;
  }
  if (loc.size() + 1 > static_cast<std::size_t>(size)) {
    USetLastError(quarnel_internal::kWinInsufficientBuffer);
    return 0;
  }
  std::memcpy(out, loc.c_str(), (loc.size() + 1) * sizeof(char16_t));
  return static_cast<int>(loc.size());
}

int UHostPathFromLoc(const char16_t* path, char* out, int size) {
  if (out == nullptr || size <= 0) {
    USetLastError(87);
    return 0;
  }
  quarnel_internal::Resolved r;
  if (const unsigned err = quarnel_internal::ResolvePath(path, false, &r)) {
    USetLastError(err);
    return 0;
  }
  if (r.host.size() + 1 > static_cast<std::size_t>(size)) {
    USetLastError(quarnel_internal::kWinInsufficientBuffer);
    return 0;
  }
  std::memcpy(out, r.host.c_str(), r.host.size() + 1);
  return static_cast<int>(r.host.size());
}

unsigned UGetLogicalDrives() {
  unsigned mask = 0;
  for (const auto& drive : quarnel_internal::DriveList()) mask |= 1u << (drive.first - u'A');
  return mask;
}
