#include "quarnel/resources/resmgr.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "quarnel/containers/tlist.h"
#include "quarnel/foundation/crashreport.h"
#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/marshall.h"
#include "quarnel/foundation/memutil.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/resources/internal/modlist.h"
#include "quarnel/text/tstring.h"

namespace {

constexpr int kIdResource = 10001;
constexpr int kCheckResource = 10002;
constexpr int kSymbolResource = 1;
constexpr unsigned kIdResourceSize = 24;
constexpr unsigned kIdSignature = 0x44594C2E;  // 'DYL.'
constexpr unsigned short kIdVersion = 769;
constexpr int kLibraryFirstRes = 16000;
constexpr int kLibraryLastRes = 16001;
constexpr int kLibraryFirstErr = -1000;
constexpr int kLibraryLastErr = -2000;
constexpr int kModuleNameMax = 256;

// A module's range record. The library's own entry has a null module.
class ResErrAlloc {
 public:
  // `fromIdResource`: the values were read from the module's id resource and
  // are validated (warnings only).
  ResErrAlloc(HMODULE module, int firstRes, int lastRes, int firstErr, int lastErr,
              bool fromIdResource);

  // Enters `entry` at the end of the range list: 0, -631 or -632. The list
  // keeps the entry on success only. Call with the module lock held.
  static int Add(ResErrAlloc* entry);

  RMRangeRecord r;
};

struct HostList {
  int id;
  const void* data;
  int size;
};

// The index of one string list: the first entry of every tag, by tag.
struct ListIndex {
  const unsigned char* list = nullptr;
  int size = 0;
  unsigned generation = 0;  // of the module table when it was made
  unsigned epoch = 0;       // of the host lists when it was made
  bool wellFormed = false;
  std::vector<std::pair<unsigned, int>> entries;  // (tag, offset of the length word)
};
constexpr int kListIndexes = 16;

struct State {
  TList ranges;  // ResErrAlloc*, in list order
  TList loaded;  // HMODULE, newest first
  std::vector<HostList> hostLists;
  unsigned hostEpoch = 0;  // counts changes of hostLists
  ListIndex indexes[kListIndexes];
  int nextIndex = 0;
  unsigned velloresGeneration = ~0u;
  HMODULE vellores = nullptr;
};

State& S() {
  static State* state = new State;  // never destroyed: modules may outlive static destruction
  return *state;
}

ResErrAlloc* RangeAt(void* position) {
  return reinterpret_cast<ResErrAlloc*>(TList::Item(position));
}

TString ModuleName(HMODULE module) {
  char16_t buf[kModuleNameMax + 1];
  const int n = UGetModuleFileName(module, buf, kModuleNameMax + 1);
  return TString(buf, static_cast<short>(n));
}

bool HasRange(int first, int last) { return first != 0 || last != 0; }

// The default resource module, when loaded; kept against the module table's
// generation so that a lookup costs no name search. Module lock held.
HMODULE Vellores() {
  State& s = S();
  const unsigned generation = UModuleGeneration();
  if (generation != s.velloresGeneration) {
    const unsigned saved = UGetLastError();
    s.vellores = UGetModuleHandle(u"vellores.dll");
    USetLastError(saved);
    s.velloresGeneration = generation;
  }
  return s.vellores;
}

ResErrAlloc::ResErrAlloc(HMODULE module, int firstRes, int lastRes, int firstErr, int lastErr,
                         bool fromIdResource)
    : r{module, firstRes, lastRes, firstErr, lastErr} {
  if (!fromIdResource) return;
  if (firstRes == 0 || lastRes == 0 || firstRes >= lastRes) {
    const TString name = ModuleName(module);
    DebugLogf(kLogInternalData,
              "ResErrAlloc: warning: module \"%S\" has missing/invalid resource range", &name);
  }
  if (firstErr == 0 || lastErr == 0 || firstErr <= lastErr) {
    const TString name = ModuleName(module);
    DebugLogf(kLogInternalData,
              "ResErrAlloc: warning: module \"%S\" has missing/invalid error range", &name);
  }
}

int ResErrAlloc::Add(ResErrAlloc* entry) {
  TList& ranges = S().ranges;
  if (ranges.IsEmpty()) {
    ranges.AddLast(reinterpret_cast<std::intptr_t>(new ResErrAlloc(
        nullptr, kLibraryFirstRes, kLibraryLastRes, kLibraryFirstErr, kLibraryLastErr, false)));
  }
  const RMRangeRecord& n = entry->r;
  for (void* p = ranges.First(); p != nullptr; p = ranges.Next(p)) {
    if (n.module != nullptr && RangeAt(p)->r.module == n.module) {
      const TString name = ModuleName(n.module);
      DebugLogf(kLogInternalData, "ResErrAlloc::Add: module \"%S\" already loaded", &name);
      return kErrModuleEntered;
    }
  }
  for (void* p = ranges.First(); p != nullptr; p = ranges.Next(p)) {
    const RMRangeRecord& o = RangeAt(p)->r;
    if (o.module == nullptr) continue;  // the library's own entry is never compared
    // Half-open on purpose: ranges that only touch at an end do not conflict.
    if (HasRange(n.firstRes, n.lastRes) && HasRange(o.firstRes, o.lastRes) &&
        ((n.firstRes >= o.firstRes && n.firstRes < o.lastRes) ||
         (n.lastRes > o.firstRes && n.lastRes < o.lastRes))) {
      const TString newName = ModuleName(n.module);
      const TString oldName = ModuleName(o.module);
      DebugLogf(kLogInternalData,
                "ResErrAlloc::Add: new \"%S\" (%~d..%~d) has resource conflict with \"%S\" "
                "(%~d..%~d)",
                &newName, n.firstRes, n.lastRes, &oldName, o.firstRes, o.lastRes);
      return kErrModuleConflict;
    }
    if (HasRange(n.firstErr, n.lastErr) && HasRange(o.firstErr, o.lastErr) &&
        ((n.firstErr > o.lastErr && n.firstErr <= o.firstErr) ||
         (n.lastErr > o.lastErr && n.lastErr < o.firstErr))) {
      const TString newName = ModuleName(n.module);
      const TString oldName = ModuleName(o.module);
      DebugLogf(kLogInternalData,
                "ResErrAlloc::Add: new \"%S\" (%~d..%~d) has error conflict with \"%S\" (%~d..%~d)",
                &newName, n.firstErr, n.lastErr, &oldName, o.firstErr, o.lastErr);
      return kErrModuleConflict;
    }
  }
  ranges.AddLast(reinterpret_cast<std::intptr_t>(entry));
  return kErrNone;
}

// Creates and enters a range record; frees it again when it is refused.
int Enter(HMODULE module, int firstRes, int lastRes, int firstErr, int lastErr, bool fromId) {
  auto* entry = new ResErrAlloc(module, firstRes, lastRes, firstErr, lastErr, fromId);
  const int err = ResErrAlloc::Add(entry);
  if (err != kErrNone) delete entry;
  return err;
}

int IndexOfRange(HMODULE module) {
  int index = 0;
  TList& ranges = S().ranges;
  for (void* p = ranges.First(); p != nullptr; p = ranges.Next(p), ++index) {
    if (RangeAt(p)->r.module == module) return index;
  }
  return -1;
}

const char16_t* TextOf(const TString* name) { return name != nullptr ? name->Text() : u""; }

// Replaces the range record of a module that is already loaded.
int Reenter(HMODULE module, int firstRes, int lastRes, int firstErr, int lastErr) {
  TMonitorHold hold(quarnel_internal::ModuleLock());
  TList& ranges = S().ranges;
  const int index = IndexOfRange(module);
  ResErrAlloc* old = index >= 0 ? reinterpret_cast<ResErrAlloc*>(ranges.RemoveAt(index)) : nullptr;
  const int err = Enter(module, firstRes, lastRes, firstErr, lastErr, false);
  if (old == nullptr) return err;
  if (err == kErrNone) {
    delete old;
  } else if (index <= ranges.Count()) {
    ranges.AddAt(reinterpret_cast<std::intptr_t>(old), index);
  } else {
    Debug("resmgr", kResmgrLineRestoreFailed);
    delete old;
  }
  return err;
}

int Load(TString* name, int firstRes, int lastRes, int firstErr, int lastErr) {
  HMODULE module = ULoadLibrary(TextOf(name));
  if (module == nullptr) {
    DebugLogf(kLogInternal, "DLLoadLib: ULoadLibrary(\"%s\") failed, os error %d ", name,
              static_cast<int>(UGetLastError()));
    return kErrModuleUnusable;
  }
  TMonitorHold hold(quarnel_internal::ModuleLock());
  int err = kErrNone;
  HRSRC id = UFindResource(module, kIdResource, kResTypeRawData);
  if (id == nullptr) {
    DebugLogf(kLogMisuse, "DLLoadLib: no id resource in \"%s\"", name);
    err = Enter(module, firstRes, lastRes, firstErr, lastErr, false);
  } else if (USizeofResource(module, id) < kIdResourceSize) {
    DebugLogf(kLogMisuse, "DLLoadLib: id resource in \"%s\" too small", name);
    err = kErrModuleUnusable;
  } else {
    HGLOBAL data = ULoadResource(module, id);
    const auto* bytes = static_cast<const unsigned char*>(data ? ULockResource(data) : nullptr);
    if (bytes == nullptr) {
      DebugLogf(kLogPlatform, "DLLoadLib: Load/Lock id resource failed for \"%s\", os error %d",
                name, static_cast<int>(UGetLastError()));
      err = kErrModuleUnusable;
    } else {
      PersistHeader header;
      std::memcpy(&header, bytes, sizeof header);
      const int check = _checkpersist(&header, kIdSignature, kIdVersion, kIdVersion);
      if (check != kErrNone) {
        DebugLogf(kLogMisuse, "DLLoadLib: CheckPersist(\"%s\") failed, %E", name, check);
        err = check;
      } else {
        std::int32_t v[4];
        std::memcpy(v, bytes + 8, sizeof v);
        err = Enter(module, v[0], v[1], v[2], v[3], true);
      }
      UFreeResource(data);
    }
  }
  if (err != kErrNone) {
    UFreeLibrary(module);
    return err;
  }
  if (UFindResource(module, kSymbolResource, kResTypeStringList) == nullptr) {
    DebugLogf(kLogMisuse, "DLLoadLib: \"%s\" was built without assert symbols", name);
  }
  S().loaded.AddFirst(reinterpret_cast<std::intptr_t>(module));
  return kErrNone;
}

// The list's bytes in `module`, or null. Module lock held.
const void* ListIn(HMODULE module, int listId, int* size) {
  unsigned n = 0;
  const unsigned char* bytes =
      quarnel_internal::ModuleResource(module, kResTypeStringList, listId, &n);
  if (bytes != nullptr && size != nullptr) *size = static_cast<int>(n);
  return bytes;
}

}  // namespace

namespace quarnel_internal {

TMonitor& ModuleLock() {
  static TMonitor* lock = new TMonitor;
  return *lock;
}

TMonitor& RawCacheLock() {
  static TMonitor* lock = new TMonitor;
  return *lock;
}

RawCache& TheRawCache() {
  static RawCache cache;
  return cache;
}

void ForgetRawResources(HMODULE module) {
  RawCache& cache = TheRawCache();
  if (cache.valid && cache.module == module) cache = RawCache{};
}

std::vector<HMODULE> SearchModules() {
  std::vector<HMODULE> modules;
  modules.push_back(UGetModuleHandle(nullptr));
  TList& loaded = S().loaded;
  for (void* p = loaded.First(); p != nullptr; p = loaded.Next(p)) {
    modules.push_back(reinterpret_cast<HMODULE>(TList::Item(p)));
  }
  return modules;
}

// Through the module calls, which leave the last error alone on success.
const unsigned char* ModuleResource(HMODULE module, unsigned type, int id, unsigned* size) {
  const unsigned saved = UGetLastError();
  HRSRC found = UFindResource(module, id, type);
  HGLOBAL data = found != nullptr ? ULoadResource(module, found) : nullptr;
  const auto* bytes = static_cast<const unsigned char*>(data ? ULockResource(data) : nullptr);
  USetLastError(saved);
  if (bytes == nullptr) return nullptr;
  if (size != nullptr) *size = USizeofResource(module, found);
  return bytes;
}

}  // namespace quarnel_internal

int DLLoadLib(TString* name) {
  const int err = Load(name, 0, 0, 0, 0);
  if (err == kErrNone) PrepareCrashReport();  // the crash log's name and heading may have changed
  return err;
}

int DLLoadLib(TString* name, int firstRes, int lastRes, int firstErr, int lastErr) {
  {
    TMonitorHold hold(quarnel_internal::ModuleLock());
    const unsigned saved = UGetLastError();
    HMODULE present = UGetModuleHandle(TextOf(name));
    USetLastError(saved);
    if (present != nullptr) return Reenter(present, firstRes, lastRes, firstErr, lastErr);
  }
  const int err = Load(name, firstRes, lastRes, firstErr, lastErr);
  if (err == kErrNone) PrepareCrashReport();  // the crash log's name and heading may have changed
  return err;
}

namespace {

void UnloadModule(TString* name) {
  TMonitorHold cacheHold(quarnel_internal::RawCacheLock());
  TMonitorHold hold(quarnel_internal::ModuleLock());
  HMODULE module = UGetModuleHandle(TextOf(name));
  if (module == nullptr) {
    DebugLogf(kLogMisuse, "DLUnloadLib: \"%S\" wasn't loaded!", name);
    return;
  }
  quarnel_internal::ForgetRawResources(module);
  quarnel_internal::ReleaseModuleImages(module);
  State& s = S();
  const int index = IndexOfRange(module);
  if (index >= 0) delete reinterpret_cast<ResErrAlloc*>(s.ranges.RemoveAt(index));
  s.loaded.Remove(reinterpret_cast<std::intptr_t>(module));
  if (!UFreeLibrary(module)) Debug("resmgr", kResmgrLineFreeFailed);
}

}  // namespace

void DLUnloadLib(TString* name) {
  UnloadModule(name);
  PrepareCrashReport();  // the crash log's name and heading may have changed
}

int DLCheckLib(TString* name) {
  HMODULE module = ULoadLibraryEx(TextOf(name), kLoadLibraryAsDatafile);
  if (module == nullptr) {
    DebugLogf(kLogInternal, "DLCheckLib: ULoadLibraryEx(\"%s\") failed, os error %d", name,
              static_cast<int>(UGetLastError()));
    return kErrModuleUnusable;
  }
  int err = kErrNone;
  HRSRC id = UFindResource(module, kIdResource, kResTypeRawData);
  if (UFindResource(module, kCheckResource, kResTypeRawData) == nullptr) {
    DebugLogf(kLogMisuse, "DLCheckLib: no resource %~d in \"%s\"", kCheckResource, name);
    err = kErrModuleUnusable;
  } else if (id != nullptr) {
    if (USizeofResource(module, id) < kIdResourceSize) {
      DebugLogf(kLogMisuse, "DLCheckLib: id resource in \"%s\" too small", name);
      err = kErrModuleUnusable;
    } else {
      HGLOBAL data = ULoadResource(module, id);
      const void* bytes = data ? ULockResource(data) : nullptr;
      if (bytes == nullptr) {
        DebugLogf(kLogPlatform, "DLCheckLib: Load/Lock id resource failed for \"%s\", os error %d",
                  name, static_cast<int>(UGetLastError()));
        err = kErrModuleUnusable;
      } else {
        PersistHeader header;
        std::memcpy(&header, bytes, sizeof header);
        err = _checkpersist(&header, kIdSignature, kIdVersion, kIdVersion);
        if (err != kErrNone) {
          DebugLogf(kLogMisuse, "DLCheckLib: CheckPersist(\"%s\") failed, %E", name, err);
        }
        UFreeResource(data);
      }
    }
  }
  UFreeLibrary(module);
  return err;
}

int RMGetRanges(RMRangeRecord* out, int max) {
  TMonitorHold hold(quarnel_internal::ModuleLock());
  TList& ranges = S().ranges;
  int n = 0;
  for (void* p = ranges.First(); p != nullptr; p = ranges.Next(p), ++n) {
    if (out != nullptr && n < max) out[n] = RangeAt(p)->r;
  }
  return n;
}

const void* RMGetKList(int listId, int* size) {
  if (size != nullptr) *size = 0;
  TMonitorHold hold(quarnel_internal::ModuleLock());
  State& s = S();
  HMODULE vellores = Vellores();
  if (vellores != nullptr) {
    if (const void* list = ListIn(vellores, listId, size)) return list;
  }
  for (const HostList& l : s.hostLists) {
    if (l.id == listId) {
      if (size != nullptr) *size = l.size;
      return l.data;
    }
  }
  if (const void* list = ListIn(UGetModuleHandle(nullptr), listId, size)) return list;
  for (void* p = s.loaded.First(); p != nullptr; p = s.loaded.Next(p)) {
    HMODULE module = reinterpret_cast<HMODULE>(TList::Item(p));
    if (module == vellores) continue;
    if (const void* list = ListIn(module, listId, size)) return list;
  }
  return nullptr;
}

int RMGetKStringAnsi(int listId, unsigned key, void** handle) {
  if (handle == nullptr) return -1;
  std::vector<unsigned char> text;
  bool found = false;
  {
    // The text is copied out under the module lock; the block is sized after.
    TMonitorHold hold(quarnel_internal::ModuleLock());
    int size = 0;
    const auto* list = static_cast<const unsigned char*>(RMGetKList(listId, &size));
    // Entries as LoadKString reads them: length, tag, text, pad to even.
    int pos = 0;
    while (list != nullptr && pos + 2 <= size) {
      unsigned short length;
      std::memcpy(&length, list + pos, 2);
      if (length == 0xFFFF || length < 4 || pos + 2 + length > size) break;
      const unsigned char* t = list + pos + 2;
      const unsigned tag =
          (unsigned{t[0]} << 24) | (unsigned{t[1]} << 16) | (unsigned{t[2]} << 8) | t[3];
      if (!IsPersistSignature(tag)) break;
      if (tag == key) {
        text.assign(t + 4, t + length);
        found = true;
        break;
      }
      pos += 2 + length + (length & 1);
    }
  }
  if (!found) return -1;
  const unsigned n = static_cast<unsigned>(text.size());
  void* block = MemRealloc(*handle, n);
  if (block == nullptr) return -1;
  *handle = block;
  if (n != 0) std::memcpy(block, text.data(), n);
  return static_cast<int>(n);
}

TMonitor& RMModuleLock() { return quarnel_internal::ModuleLock(); }

namespace {

// Walks the list as LoadKString does and records the first entry of each
// tag; wellFormed when the walk reaches the end marker without a fault.
void BuildIndex(const unsigned char* list, int size, ListIndex* index) {
  index->entries.clear();
  index->wellFormed = false;
  int pos = 0;
  while (pos + 2 <= size) {
    unsigned short length;
    std::memcpy(&length, list + pos, 2);
    if (length == 0xFFFF) {
      index->wellFormed = true;
      break;
    }
    if (length < 4 || pos + 2 + length > size) break;
    const unsigned char* t = list + pos + 2;
    const unsigned tag =
        (unsigned{t[0]} << 24) | (unsigned{t[1]} << 16) | (unsigned{t[2]} << 8) | t[3];
    if (!IsPersistSignature(tag)) break;
    index->entries.emplace_back(tag, pos);
    pos += 2 + length + (length & 1);
    if (pos >= size) break;
  }
  if (!index->wellFormed) {
    index->entries.clear();
    return;
  }
  // Sorted by tag, and by position within a tag: the first entry comes first.
  std::sort(index->entries.begin(), index->entries.end());
}

}  // namespace

int quarnel_internal::KListLookup(const unsigned char* list, int size, unsigned key,
                                  const unsigned char** text, int* length) {
  State& s = S();
  const unsigned generation = UModuleGeneration();
  ListIndex* index = nullptr;
  for (ListIndex& i : s.indexes) {
    if (i.list == list && i.size == size && i.generation == generation && i.epoch == s.hostEpoch) {
      index = &i;
      break;
    }
  }
  if (index == nullptr) {
    index = &s.indexes[s.nextIndex];
    s.nextIndex = (s.nextIndex + 1) % kListIndexes;
    index->list = list;
    index->size = size;
    index->generation = generation;
    index->epoch = s.hostEpoch;
    BuildIndex(list, size, index);
  }
  if (!index->wellFormed) return -1;
  const auto it =
      std::lower_bound(index->entries.begin(), index->entries.end(), std::make_pair(key, -1));
  if (it == index->entries.end() || it->first != key) return 0;
  unsigned short entryLength;
  std::memcpy(&entryLength, list + it->second, 2);
  *text = list + it->second + 6;
  *length = entryLength - 4;
  return 1;
}

int RMGetString(int id, TString* dst, int max) {
  if (dst == nullptr) return 0;
  dst->Clear();
  const int cap = std::min(max, TString::kMaxLength + 1);
  if (cap <= 1) return 0;
  std::vector<char16_t> buf(static_cast<std::size_t>(cap));
  TMonitorHold hold(quarnel_internal::ModuleLock());
  for (HMODULE module : quarnel_internal::SearchModules()) {
    const int n = ULoadString(module, static_cast<unsigned>(id), buf.data(), cap);
    if (n > 0) {
      dst->Assign(buf.data(), static_cast<short>(n));
      return n;
    }
  }
  return 0;
}

int RMGetErrID(int err, unsigned short* listId, unsigned* key) {
  TMonitorHold hold(quarnel_internal::ModuleLock());
  TList& ranges = S().ranges;
  for (void* p = ranges.First(); p != nullptr; p = ranges.Next(p)) {
    const RMRangeRecord& r = RangeAt(p)->r;
    if (err > r.firstErr || err <= r.lastErr) continue;
    // Only the lowest four digits of first - err make the key.
    const std::uint32_t offset =
        static_cast<std::uint32_t>((static_cast<std::int64_t>(r.firstErr) - err) % 10000);
    if (listId != nullptr) *listId = static_cast<unsigned short>(r.lastRes - 1);
    if (key != nullptr) {
      *key = ((0x30u + offset / 1000) << 24) | ((0x30u + offset / 100 % 10) << 16) |
             ((0x30u + offset / 10 % 10) << 8) | (0x30u + offset % 10);
    }
    return 1;
  }
  if (listId != nullptr) *listId = 0;
  if (key != nullptr) *key = 0;
  return 0;
}

int RMAddHostKList(int listId, const void* data, int size) {
  {
    TMonitorHold hold(quarnel_internal::ModuleLock());
    auto& lists = S().hostLists;
    lists.erase(std::remove_if(lists.begin(), lists.end(),
                               [listId](const HostList& l) { return l.id == listId; }),
                lists.end());
    if (data != nullptr) lists.insert(lists.begin(), HostList{listId, data, size});
    ++S().hostEpoch;
  }
  PrepareCrashReport();
  return 1;
}
