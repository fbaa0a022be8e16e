#include "quarnel/platform/resblob.h"

#include <cstring>

namespace {

constexpr unsigned kErrorInvalidData = 13;

std::uint32_t Le32(const unsigned char* p) {
  return std::uint32_t{p[0]} | (std::uint32_t{p[1]} << 8) | (std::uint32_t{p[2]} << 16) |
         (std::uint32_t{p[3]} << 24);
}

unsigned Le16(const unsigned char* p) { return unsigned{p[0]} | (unsigned{p[1]} << 8); }

// True when [offset, offset + length) lies within `size`, without overflow.
bool Within(std::uint64_t offset, std::uint64_t length, std::uint64_t size) {
  return offset <= size && length <= size - offset;
}

char16_t FoldAscii(char16_t c) { return (c >= u'a' && c <= u'z') ? c - (u'a' - u'A') : c; }

}  // namespace

unsigned UResBlobOpen(const void* data, std::size_t available, UResBlob* blob) {
  *blob = UResBlob{};
  const auto* p = static_cast<const unsigned char*>(data);
  if (p == nullptr || available < kResBlobHeaderSize) return kErrorInvalidData;
  if (Le32(p) != kResBlobMagic || Le16(p + 4) != kResBlobVersion) return kErrorInvalidData;
  const unsigned entrySize = Le16(p + 6);
  const std::uint32_t count = Le32(p + 8);
  const std::uint32_t size = Le32(p + 12);
  if (entrySize < kResBlobEntrySize || size < kResBlobHeaderSize || size > available) {
    return kErrorInvalidData;
  }
  if (!Within(kResBlobHeaderSize, std::uint64_t{count} * entrySize, size)) {
    return kErrorInvalidData;
  }
  for (std::uint32_t i = 0; i < count; ++i) {
    const unsigned char* e = p + kResBlobHeaderSize + std::size_t{i} * entrySize;
    const std::uint32_t nameOffset = Le32(e + 8);
    const std::uint32_t dataOffset = Le32(e + 12);
    const std::uint32_t dataSize = Le32(e + 16);
    if (!Within(dataOffset, dataSize, size)) return kErrorInvalidData;
    if (nameOffset != 0) {
      if (!Within(nameOffset, 2, size)) return kErrorInvalidData;
      const unsigned n = Le16(p + nameOffset);
      if (n == 0 || n > kResBlobMaxName || !Within(nameOffset + 2ull, 2ull * n, size)) {
        return kErrorInvalidData;
      }
    }
  }
  blob->data = p;
  blob->size = size;
  blob->count = count;
  blob->entrySize = entrySize;
  return 0;
}

UResEntry UResBlobEntry(const UResBlob& blob, unsigned index) {
  const unsigned char* e = blob.data + kResBlobHeaderSize + std::size_t{index} * blob.entrySize;
  UResEntry r{};
  r.type = Le32(e);
  r.id = static_cast<int>(Le32(e + 4));
  const std::uint32_t nameOffset = Le32(e + 8);
  if (nameOffset != 0) {
    r.nameLength = Le16(blob.data + nameOffset);
    r.name = blob.data + nameOffset + 2;
    r.id = 0;
  }
  r.bytes = blob.data + Le32(e + 12);
  r.size = Le32(e + 16);
  return r;
}

const unsigned char* UResBlobFind(const UResBlob& blob, unsigned type, int id, UResEntry* found) {
  for (unsigned i = 0; i < blob.count; ++i) {
    const unsigned char* e = blob.data + kResBlobHeaderSize + std::size_t{i} * blob.entrySize;
    if (Le32(e) != type || Le32(e + 8) != 0 || static_cast<int>(Le32(e + 4)) != id) continue;
    if (found) *found = UResBlobEntry(blob, i);
    return e;
  }
  return nullptr;
}

const unsigned char* UResBlobFindNamed(const UResBlob& blob, unsigned type, const char16_t* name,
                                       unsigned length, UResEntry* found) {
  if (name == nullptr || length == 0) return nullptr;
  for (unsigned i = 0; i < blob.count; ++i) {
    const unsigned char* e = blob.data + kResBlobHeaderSize + std::size_t{i} * blob.entrySize;
    const std::uint32_t nameOffset = Le32(e + 8);
    if (Le32(e) != type || nameOffset == 0) continue;
    const unsigned char* n = blob.data + nameOffset;
    if (Le16(n) != length) continue;
    bool same = true;
    for (unsigned k = 0; k < length && same; ++k) {
      const char16_t c = static_cast<char16_t>(Le16(n + 2 + 2 * k));
      same = FoldAscii(c) == FoldAscii(name[k]);
    }
    if (!same) continue;
    if (found) *found = UResBlobEntry(blob, i);
    return e;
  }
  return nullptr;
}
