// Icons, bitmaps and cursors: choosing the image and its size, and handing
// out RMImage handles to its bytes. Nothing is drawn here.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "quarnel/resources/internal/modlist.h"
#include "quarnel/resources/resmgr.h"
#include "quarnel/text/tstring.h"

namespace {

constexpr int kFirstSystemIcon = 16001;  // 16001..16003: stop, exclamation, information
constexpr int kSystemIconIds[3] = {32513, 32515, 32516};
constexpr int kSystemIconSize = 32;
constexpr int kDefaultIconSize = 16;
constexpr int kPreferredCursorSize = 32;
constexpr unsigned kGroupHeaderSize = 6;
constexpr unsigned kGroupEntrySize = 14;

std::atomic<int> g_scale{1000};

unsigned Le16(const unsigned char* p) { return unsigned{p[0]} | (unsigned{p[1]} << 8); }
std::uint32_t Le32(const unsigned char* p) {
  return std::uint32_t{p[0]} | (std::uint32_t{p[1]} << 8) | (std::uint32_t{p[2]} << 16) |
         (std::uint32_t{p[3]} << 24);
}

struct GroupEntry {
  int width;
  int height;
  int id;  // the image resource (type 3 or 1)
};

// An icon directory (14) or cursor directory (12): a 6-byte header whose third
// word is the entry count, then 14-byte entries. Icon entries start with
// width and height bytes (0 meaning 256); cursor entries with 16-bit width and
// doubled height. False for a malformed group.
bool ReadGroup(const unsigned char* p, unsigned size, bool cursor, std::vector<GroupEntry>* out) {
  out->clear();
  if (p == nullptr || size < kGroupHeaderSize) return false;
  const unsigned count = Le16(p + 4);
  if (count == 0 || count > (size - kGroupHeaderSize) / kGroupEntrySize) return false;
  for (unsigned i = 0; i < count; ++i) {
    const unsigned char* e = p + kGroupHeaderSize + i * kGroupEntrySize;
    GroupEntry g;
    if (cursor) {
      g.width = static_cast<int>(Le16(e));
      g.height = static_cast<int>(Le16(e + 2) / 2);
    } else {
      g.width = e[0] == 0 ? 256 : e[0];
      g.height = e[1] == 0 ? 256 : e[1];
    }
    g.id = static_cast<int>(Le16(e + 12));
    out->push_back(g);
  }
  return true;
}

// A handle and, for one that is not shared, the copy of its bytes.
struct OwnedImage : RMImage {
  std::vector<unsigned char> copy;
};

struct SharedImage {
  HMODULE module;
  int kind;
  int id;
  std::u16string name;  // upper-cased ASCII, empty for a numbered resource
  int width;
  int height;
  OwnedImage* image;
};

std::vector<SharedImage>& SharedImages() {
  static auto* images = new std::vector<SharedImage>;
  return *images;
}

std::u16string Key(const TString* name) {
  std::u16string key;
  if (name == nullptr) return key;
  for (short i = 0; i < name->Length(); ++i) {
    const char16_t c = name->Text()[i];
    key += (c >= u'a' && c <= u'z') ? static_cast<char16_t>(c - 32) : c;
  }
  return key;
}

// The resource (type, id or name) of `module`, found through the module's
// resource calls. Module lock held.
const unsigned char* Find(HMODULE module, unsigned type, int id, const TString* name,
                          unsigned* size) {
  HRSRC r = name != nullptr ? UFindResourceNamed(module, name->Text(), name->Length(), type)
                            : UFindResource(module, id, type);
  if (r == nullptr) return nullptr;
  HGLOBAL data = ULoadResource(module, r);
  const void* bytes = data != nullptr ? ULockResource(data) : nullptr;
  if (bytes == nullptr) return nullptr;
  *size = USizeofResource(module, r);
  return static_cast<const unsigned char*>(bytes);
}

// The first group (icon or cursor) of that id or name in the search order.
bool FindGroup(int id, const TString* name, bool cursor, HMODULE* module,
               std::vector<GroupEntry>* entries) {
  for (HMODULE m : quarnel_internal::SearchModules()) {
    unsigned size = 0;
    const unsigned char* g =
        Find(m, cursor ? kResTypeGroupCursor : kResTypeGroupIcon, id, name, &size);
    if (g != nullptr && ReadGroup(g, size, cursor, entries)) {
      *module = m;
      return true;
    }
  }
  return false;
}

void SmallestSize(const std::vector<GroupEntry>& entries, int* width, int* height) {
  int w = entries[0].width;
  int h = entries[0].height;
  for (const GroupEntry& e : entries) {
    w = std::min(w, e.width);
    h = std::min(h, e.height);
  }
  *width = w;
  *height = h;
}

// The entry for a requested size: an exact match, else the smallest entry
// at least that large in both directions, else the largest.
const GroupEntry& Choose(const std::vector<GroupEntry>& entries, int width, int height) {
  const GroupEntry* best = nullptr;
  for (const GroupEntry& e : entries) {
    if (e.width == width && e.height == height) return e;
  }
  for (const GroupEntry& e : entries) {
    if (e.width >= width && e.height >= height &&
        (best == nullptr || e.width * e.height < best->width * best->height)) {
      best = &e;
    }
  }
  if (best != nullptr) return *best;
  best = &entries[0];
  for (const GroupEntry& e : entries) {
    if (e.width * e.height > best->width * best->height) best = &e;
  }
  return *best;
}

OwnedImage* Make(int kind, int id, const unsigned char* bytes, unsigned size, int width, int height,
                 bool shared) {
  auto* image = new OwnedImage;
  image->kind = kind;
  image->id = id;
  image->width = width;
  image->height = height;
  image->hotX = 0;
  image->hotY = 0;
  image->shared = shared ? 1 : 0;
  if (shared) {
    image->bytes = bytes;
    image->size = size;
  } else {
    image->copy.assign(bytes, bytes + size);
    image->bytes = image->copy.data();
    image->size = size;
  }
  return image;
}

OwnedImage* Cached(HMODULE module, int kind, int id, const std::u16string& name, int width,
                   int height) {
  for (const SharedImage& s : SharedImages()) {
    if (s.module == module && s.kind == kind && s.id == id && s.name == name && s.width == width &&
        s.height == height) {
      return s.image;
    }
  }
  return nullptr;
}

OwnedImage* Remember(HMODULE module, int id, const std::u16string& name, int width, int height,
                     OwnedImage* image) {
  SharedImages().push_back(SharedImage{module, image->kind, id, name, width, height, image});
  return image;
}

// Loads the icon of the group (id or name) at width x height.
const RMImage* LoadIcon(int id, const TString* name, int width, int height, bool shared) {
  const std::u16string key = Key(name);
  for (HMODULE m : quarnel_internal::SearchModules()) {
    unsigned size = 0;
    const unsigned char* g = Find(m, kResTypeGroupIcon, id, name, &size);
    std::vector<GroupEntry> entries;
    if (g == nullptr || !ReadGroup(g, size, false, &entries)) continue;
    if (shared) {
      if (OwnedImage* hit = Cached(m, kRMImageIcon, id, key, width, height)) return hit;
    }
    const GroupEntry& e = Choose(entries, width, height);
    unsigned bytesSize = 0;
    const unsigned char* bytes = Find(m, kResTypeIcon, e.id, nullptr, &bytesSize);
    if (bytes == nullptr) continue;
    OwnedImage* image = Make(kRMImageIcon, id, bytes, bytesSize, width, height, shared);
    return shared ? Remember(m, id, key, width, height, image) : image;
  }
  return nullptr;
}

bool IsShared(int options) {
  return (static_cast<unsigned>(options) & (kRMLoadShared | kRMLoadSharedImage)) != 0;
}

// A bitmap resource starts with its header: BITMAPCOREHEADER (12 bytes,
// 16-bit width and height) or BITMAPINFOHEADER and later (40 bytes or more,
// 32-bit width and height, a negative height meaning top-down rows).
bool BitmapSize(const unsigned char* p, unsigned size, int* width, int* height) {
  if (size < 4) return false;
  const std::uint32_t header = Le32(p);
  if (header == 12 && size >= 12) {
    *width = static_cast<int>(Le16(p + 4));
    *height = static_cast<int>(Le16(p + 6));
    return true;
  }
  if (header >= 40 && header <= size) {
    const auto w = static_cast<std::int32_t>(Le32(p + 4));
    const auto h = static_cast<std::int32_t>(Le32(p + 8));
    if (w <= 0 || h == 0 || h == INT32_MIN) return false;
    *width = w;
    *height = h < 0 ? -h : h;
    return true;
  }
  return false;
}

const RMImage* LoadBitmap(int id, const TString* name) {
  TMonitorHold hold(quarnel_internal::ModuleLock());
  const std::u16string key = Key(name);
  for (HMODULE m : quarnel_internal::SearchModules()) {
    unsigned size = 0;
    const unsigned char* bytes = Find(m, kResTypeBitmap, id, name, &size);
    int width = 0;
    int height = 0;
    if (bytes == nullptr || !BitmapSize(bytes, size, &width, &height)) continue;
    if (OwnedImage* hit = Cached(m, kRMImageBitmap, id, key, 0, 0)) return hit;
    return Remember(m, id, key, 0, 0,
                    Make(kRMImageBitmap, name ? 0 : id, bytes, size, width, height, true));
  }
  return nullptr;
}

}  // namespace

namespace quarnel_internal {

void ReleaseModuleImages(HMODULE module) {
  auto& all = SharedImages();
  for (auto it = all.begin(); it != all.end();) {
    if (it->module == module) {
      delete it->image;
      it = all.erase(it);
    } else {
      ++it;
    }
  }
}

}  // namespace quarnel_internal

void SetGlobalScaleFactor(int perMille) {
  if (perMille > 0) g_scale.store(perMille, std::memory_order_relaxed);
}

int GetGlobalScaleFactor() { return g_scale.load(std::memory_order_relaxed); }

int GlobalScale(int value) {
  const std::int64_t scaled = std::int64_t{value} * GetGlobalScaleFactor();
  return static_cast<int>(scaled >= 0 ? (scaled + 500) / 1000 : (scaled - 500) / 1000);
}

int RMGetDefaultIconSize(int id, int* width, int* height) {
  int w = kDefaultIconSize;
  int h = kDefaultIconSize;
  int found = 0;
  {
    TMonitorHold hold(quarnel_internal::ModuleLock());
    HMODULE m = nullptr;
    std::vector<GroupEntry> entries;
    if (FindGroup(id, nullptr, false, &m, &entries)) {
      SmallestSize(entries, &w, &h);
      found = 1;
    }
  }
  if (width != nullptr) *width = w;
  if (height != nullptr) *height = h;
  return found;
}

int RMGetBestScaledIconSize(int id, int* width, int* height) {
  if (GetGlobalScaleFactor() == 1000) return RMGetDefaultIconSize(id, width, height);
  int w = kDefaultIconSize;
  int h = kDefaultIconSize;
  int found = 0;
  {
    TMonitorHold hold(quarnel_internal::ModuleLock());
    HMODULE m = nullptr;
    std::vector<GroupEntry> entries;
    if (FindGroup(id, nullptr, false, &m, &entries)) {
      SmallestSize(entries, &w, &h);
      const int scaledW = GlobalScale(w);
      const int scaledH = GlobalScale(h);
      for (const GroupEntry& e : entries) {
        if (e.width > w && e.width <= scaledW && e.height > h && e.height <= scaledH) {
          w = e.width;
          h = e.height;
        }
      }
      found = 1;
    }
  }
  if (width != nullptr) *width = w;
  if (height != nullptr) *height = h;
  return found;
}

const RMImage* RMGetIcon(int id, int options, int scaled, int bestScaled, TPoint* size,
                         int* shared) {
  if (id >= kFirstSystemIcon && id < kFirstSystemIcon + 3) {
    static const RMImage system[3] = {
        {kRMImageIcon, kSystemIconIds[0], nullptr, 0, kSystemIconSize, kSystemIconSize, 0, 0, 1},
        {kRMImageIcon, kSystemIconIds[1], nullptr, 0, kSystemIconSize, kSystemIconSize, 0, 0, 1},
        {kRMImageIcon, kSystemIconIds[2], nullptr, 0, kSystemIconSize, kSystemIconSize, 0, 0, 1},
    };
    if (shared != nullptr) *shared = 1;
    if (size != nullptr) *size = TPoint{kSystemIconSize, kSystemIconSize};
    return &system[id - kFirstSystemIcon];
  }
  int w = 0;
  int h = 0;
  if (!RMGetDefaultIconSize(id, &w, &h)) return nullptr;
  if (GetGlobalScaleFactor() != 1000) {
    if (scaled) {
      w = GlobalScale(w);
      h = GlobalScale(h);
    } else if (bestScaled) {
      RMGetBestScaledIconSize(id, &w, &h);
    }
  }
  if (size != nullptr) *size = TPoint{w, h};
  const bool isShared = IsShared(options);
  if (shared != nullptr) *shared = isShared ? 1 : 0;
  TMonitorHold hold(quarnel_internal::ModuleLock());
  return LoadIcon(id, nullptr, w, h, isShared);
}

const RMImage* RMGetNamedIcon(TString* name, int flags) {
  if (name == nullptr || name->IsEmpty()) return nullptr;
  TMonitorHold hold(quarnel_internal::ModuleLock());
  HMODULE m = nullptr;
  std::vector<GroupEntry> entries;
  if (!FindGroup(0, name, false, &m, &entries)) return nullptr;
  int w = 0;
  int h = 0;
  SmallestSize(entries, &w, &h);
  return LoadIcon(0, name, w, h, IsShared(flags));
}

const RMImage* RMGetBitmap(int id) { return LoadBitmap(id, nullptr); }

const RMImage* RMGetNamedBitmap(TString* name) {
  if (name == nullptr || name->IsEmpty()) return nullptr;
  return LoadBitmap(0, name);
}

const RMImage* RMGetCursor(int id) {
  TMonitorHold hold(quarnel_internal::ModuleLock());
  for (HMODULE m : quarnel_internal::SearchModules()) {
    unsigned size = 0;
    const unsigned char* g = Find(m, kResTypeGroupCursor, id, nullptr, &size);
    std::vector<GroupEntry> entries;
    if (g == nullptr || !ReadGroup(g, size, true, &entries)) continue;
    if (OwnedImage* hit = Cached(m, kRMImageCursor, id, std::u16string(), 0, 0)) return hit;
    const GroupEntry* e = &entries[0];
    for (const GroupEntry& x : entries) {
      if (x.width == kPreferredCursorSize) {
        e = &x;
        break;
      }
    }
    unsigned bytesSize = 0;
    const unsigned char* bytes = Find(m, kResTypeCursor, e->id, nullptr, &bytesSize);
    if (bytes == nullptr || bytesSize < 4) continue;
    OwnedImage* image =
        Make(kRMImageCursor, id, bytes + 4, bytesSize - 4, e->width, e->height, true);
    image->hotX = static_cast<int>(Le16(bytes));
    image->hotY = static_cast<int>(Le16(bytes + 2));
    return Remember(m, id, std::u16string(), 0, 0, image);
  }
  return nullptr;
}

void RMDestroyImage(const RMImage* image) {
  if (image == nullptr || image->shared) return;
  delete static_cast<const OwnedImage*>(image);
}
