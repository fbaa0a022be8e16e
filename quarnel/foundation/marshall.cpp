#include "quarnel/foundation/marshall.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/errors.h"

namespace {

// Records may sit at any address inside a buffer: every access goes through
// memcpy.
template <class T>
T Load(const unsigned char* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

template <class T>
void Store(unsigned char* p, T v) {
  std::memcpy(p, &v, sizeof v);
}

void Reverse(unsigned char* p, int size) {
  for (int i = 0, j = size - 1; i < j; ++i, --j) {
    const unsigned char t = p[i];
    p[i] = p[j];
    p[j] = t;
  }
}

// Swaps `count` items of `size` bytes; returns the byte after them.
unsigned char* SwapItems(unsigned char* p, std::uint32_t count, int size) {
  for (std::uint32_t i = 0; i < count; ++i, p += size) Reverse(p, size);
  return p;
}

// Reads a value of `count` bytes (4, 2, else 1) before or after swapping it
// in place; advances *p past it.
std::uint32_t SwapValue(unsigned char** p, std::uint32_t count, bool readFirst) {
  const int size = count == 4 ? 4 : count == 2 ? 2 : 1;
  std::uint32_t before = 0;
  std::uint32_t after = 0;
  if (size == 4) {
    before = Load<std::uint32_t>(*p);
    Reverse(*p, 4);
    after = Load<std::uint32_t>(*p);
  } else if (size == 2) {
    before = Load<std::uint16_t>(*p);
    Reverse(*p, 2);
    after = Load<std::uint16_t>(*p);
  } else {
    before = after = **p;
  }
  *p += size;
  return readFirst ? before : after;
}

}  // namespace

void* _initpersist(PersistHeader* header, unsigned signature, short compatibleVersion,
                   short version) {
  if (header == nullptr) return nullptr;
  if (!IsPersistSignature(signature) || compatibleVersion < 1 || version < 1) {
    Debug("marshall", 159);
  }
  unsigned char* p = reinterpret_cast<unsigned char*>(header);
  Store<std::uint32_t>(p, signature);
  Store<std::int16_t>(p + 4, compatibleVersion);
  Store<std::int16_t>(p + 6, version);
  return p + sizeof(PersistHeader);
}

int _checkpersist(const PersistHeader* header, unsigned signature, unsigned short oldestReadable,
                  unsigned short currentVersion) {
  if (header == nullptr) return kErrPersistBadSignature;
  const unsigned char* p = reinterpret_cast<const unsigned char*>(header);
  const std::uint32_t stored = Load<std::uint32_t>(p);
  std::int16_t compatible = Load<std::int16_t>(p + 4);
  std::int16_t version = Load<std::int16_t>(p + 6);

  if (!IsPersistSignature(stored) || compatible < 1 || version < 1) return kErrPersistBadSignature;
  bool swapped = false;
  if (stored != signature) {
    if (SwapUint32(stored) != signature) return kErrPersistWrongSignature;
    swapped = true;
    compatible = SwapSint16(compatible);
    version = SwapSint16(version);
  }
  // Signed 16-bit fields against unsigned 16-bit limits, both widened to int:
  // a swapped field that comes out negative is too old.
  if (version < oldestReadable) return kErrPersistTooOld;
  if (compatible > currentVersion) return kErrPersistTooNew;
  return swapped ? kErrPersistOtherByteOrder : kErrNone;
}

std::int16_t SwapSint16(std::int16_t value) {
  return static_cast<std::int16_t>(SwapUint16(static_cast<std::uint16_t>(value)));
}

std::uint16_t SwapUint16(std::uint16_t value) {
  return static_cast<std::uint16_t>((value >> 8) | (value << 8));
}

std::int32_t SwapSint32(std::int32_t value) {
  return static_cast<std::int32_t>(SwapUint32(static_cast<std::uint32_t>(value)));
}

std::uint32_t SwapUint32(std::uint32_t value) {
  return (value >> 24) | ((value >> 8) & 0xFF00u) | ((value << 8) & 0xFF0000u) | (value << 24);
}

std::int64_t SwapSint64(std::int64_t value) {
  return static_cast<std::int64_t>(SwapUint64(static_cast<std::uint64_t>(value)));
}

std::uint64_t SwapUint64(std::uint64_t value) {
  return (static_cast<std::uint64_t>(SwapUint32(static_cast<std::uint32_t>(value))) << 32) |
         SwapUint32(static_cast<std::uint32_t>(value >> 32));
}

void* ChangeEndianCounts(void* data, const char* format, const std::uint32_t* counts,
                         int countCount) {
  unsigned char* p = static_cast<unsigned char*>(data);
  if (format == nullptr) return p;
  std::uint32_t count = 1;
  std::uint32_t value = 0;
  std::uint32_t repeat = 0;
  int nextCount = 0;
  const char* loop = format;  // where `n` continues

  // The states of the jumps back made since the data position last moved.
  // The position only grows, so a pass between two equal states touched no
  // data and every later pass would repeat it: the loop ends there.
  struct Jump {
    const char* at;
    const char* loop;
    std::uint32_t count;
    std::uint32_t value;
    int nextCount;
    bool operator==(const Jump&) const = default;
  };
  std::vector<Jump> seen;
  const unsigned char* seenAt = nullptr;

  const char* f = format;
  while (*f != '\0') {
    const char c = *f++;
    switch (c) {
      case '0':
      case '1':
      case '2':
      case '3':
      case '4':
      case '5':
      case '6':
      case '7':
      case '8':
      case '9':
        count = static_cast<std::uint32_t>(c - '0');
        while (*f >= '0' && *f <= '9') count = count * 10 + static_cast<std::uint32_t>(*f++ - '0');
        break;
      case '%':
        count = nextCount < countCount ? counts[nextCount++] : 0;
        break;
      case 'w':
      case 'W':
        p = SwapItems(p, count, 2);
        count = 1;
        break;
      case 'l':
        p = SwapItems(p, count, 4);
        count = 1;
        break;
      case 'v':
        p = SwapItems(p, count, 8);
        count = 1;
        break;
      case 'b':
        p += count;
        count = 1;
        break;
      case 's':
        p += 1 + *p;
        count = 1;
        break;
      case 'C':
        value = SwapValue(&p, count, true);
        break;
      case 'K':
        value = SwapValue(&p, count, false);
        break;
      case 'k':
        count = value;
        break;
      case 'R':
        repeat = SwapValue(&p, count, true);
        break;
      case 'r':
        repeat = SwapValue(&p, count, false);
        break;
      case 'f':
        loop = f;
        break;
      case 'n': {
        if (--repeat == 0) break;
        if (p != seenAt) {
          seen.clear();
          seenAt = p;
        }
        const Jump jump{f, loop, count, value, nextCount};
        if (std::find(seen.begin(), seen.end(), jump) != seen.end()) {
          repeat = 0;
          break;
        }
        seen.push_back(jump);
        f = loop;
        break;
      }
      default:
        count = 0;
        break;
    }
  }
  return p;
}
