#include "quarnel/platform/resblob.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "quarnel/platform/internal/elffile.h"
#include "tests/support/helpers.h"

namespace {

void Put16(Bytes* b, unsigned v) {
  b->push_back(static_cast<unsigned char>(v));
  b->push_back(static_cast<unsigned char>(v >> 8));
}
void Put32(Bytes* b, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) b->push_back(static_cast<unsigned char>(v >> (8 * i)));
}
void Set32(Bytes* b, std::size_t at, std::uint32_t v) {
  for (int i = 0; i < 4; ++i)
    (*b)[at + static_cast<std::size_t>(i)] = static_cast<unsigned char>(v >> (8 * i));
}

struct Res {
  unsigned type;
  int id;
  std::u16string name;
  Bytes data;
};

// A container assembled by hand, as docs/resource-format.md lays it out.
Bytes Assemble(const std::vector<Res>& all) {
  Bytes b = {'Q', 'N', 'R', 'S'};
  Put16(&b, 1);
  Put16(&b, 20);
  Put32(&b, static_cast<std::uint32_t>(all.size()));
  Put32(&b, 0);  // size, set below
  std::uint32_t at = 16 + 20 * static_cast<std::uint32_t>(all.size());
  std::vector<std::uint32_t> names;
  for (const Res& r : all) {
    names.push_back(r.name.empty() ? 0 : at);
    if (!r.name.empty()) at += 2 + 2 * static_cast<std::uint32_t>(r.name.size());
  }
  std::vector<std::uint32_t> data;
  for (const Res& r : all) {
    at = (at + 3) & ~3u;
    data.push_back(at);
    at += static_cast<std::uint32_t>(r.data.size());
  }
  for (std::size_t i = 0; i < all.size(); ++i) {
    Put32(&b, all[i].type);
    Put32(&b, static_cast<std::uint32_t>(all[i].id));
    Put32(&b, names[i]);
    Put32(&b, data[i]);
    Put32(&b, static_cast<std::uint32_t>(all[i].data.size()));
  }
  for (const Res& r : all) {
    if (r.name.empty()) continue;
    Put16(&b, static_cast<unsigned>(r.name.size()));
    for (char16_t c : r.name) Put16(&b, c);
  }
  for (std::size_t i = 0; i < all.size(); ++i) {
    b.resize(data[i], 0);
    b.insert(b.end(), all[i].data.begin(), all[i].data.end());
  }
  Set32(&b, 12, static_cast<std::uint32_t>(b.size()));
  return b;
}

const std::vector<Res> kSample = {
    {10, 10001, u"", {1, 2, 3, 4, 5}},
    {256, 16000, u"", {0xFF, 0xFF}},
    {256, -7, u"", {}},
    {14, 0, u"AppIcon", {9, 9}},
    {2, 0, u"Logo", {7}},
};

TEST(ResBlob, FindsNumberedAndNamedResources) {
  const Bytes b = Assemble(kSample);
  UResBlob blob;
  ASSERT_EQ(UResBlobOpen(b.data(), b.size(), &blob), 0u);
  EXPECT_EQ(blob.count, 5u);
  UResEntry e{};
  ASSERT_NE(UResBlobFind(blob, 10, 10001, &e), nullptr);
  EXPECT_EQ(Bytes(e.bytes, e.bytes + e.size), (Bytes{1, 2, 3, 4, 5}));
  ASSERT_NE(UResBlobFind(blob, 256, -7, &e), nullptr);
  EXPECT_EQ(e.size, 0u);
  EXPECT_EQ(UResBlobFind(blob, 256, 7, nullptr), nullptr);
  EXPECT_EQ(UResBlobFind(blob, 11, 10001, nullptr), nullptr);
  // A named resource is found only by name, in any case of its ASCII letters.
  EXPECT_EQ(UResBlobFind(blob, 14, 0, nullptr), nullptr);
  ASSERT_NE(UResBlobFindNamed(blob, 14, u"APPICON", 7, &e), nullptr);
  EXPECT_EQ(e.nameLength, 7u);
  EXPECT_EQ(Bytes(e.bytes, e.bytes + e.size), (Bytes{9, 9}));
  EXPECT_NE(UResBlobFindNamed(blob, 2, u"logo", 4, nullptr), nullptr);
  EXPECT_EQ(UResBlobFindNamed(blob, 2, u"log", 3, nullptr), nullptr);
  EXPECT_EQ(UResBlobFindNamed(blob, 14, u"Logo", 4, nullptr), nullptr);
  // The first of two entries with the same key wins.
  const Bytes twice = Assemble({{10, 1, u"", {1}}, {10, 1, u"", {2}}});
  ASSERT_EQ(UResBlobOpen(twice.data(), twice.size(), &blob), 0u);
  ASSERT_NE(UResBlobFind(blob, 10, 1, &e), nullptr);
  EXPECT_EQ(e.bytes[0], 1);
}

// Every field the reader relies on, made wrong one at a time.
TEST(ResBlob, RefusesMalformedContainers) {
  const Bytes good = Assemble(kSample);
  struct Case {
    const char* what;
    std::size_t at;  // a 32-bit field to overwrite, or a 16-bit one when wide is false
    std::uint32_t value;
    bool wide;
  };
  const std::size_t e0 = 16;  // the first directory entry
  const std::size_t e3 = 16 + 3 * 20;
  const Case cases[] = {
      {"magic", 0, 0x53524E52, true},
      {"version 2", 4, 2, false},
      {"entry size 19", 6, 19, false},
      {"size beyond the bytes", 12, static_cast<std::uint32_t>(good.size() + 1), true},
      {"size below the header", 12, 15, true},
      {"count beyond the size", 8, 0x10000000, true},
      {"count wrapping the multiplication", 8, 0xCCCCCCCD, true},
      {"data offset beyond the size", e0 + 12, static_cast<std::uint32_t>(good.size() + 4), true},
      {"data size beyond the size", e0 + 16, static_cast<std::uint32_t>(good.size()), true},
      {"data size wrapping", e0 + 16, 0xFFFFFFFF, true},
      {"name offset beyond the size", e3 + 8, static_cast<std::uint32_t>(good.size()), true},
      {"name offset at the last byte", e3 + 8, static_cast<std::uint32_t>(good.size() - 1), true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    Bytes b = good;
    if (c.wide) {
      Set32(&b, c.at, c.value);
    } else {
      b[c.at] = static_cast<unsigned char>(c.value);
      b[c.at + 1] = static_cast<unsigned char>(c.value >> 8);
    }
    UResBlob blob;
    EXPECT_EQ(UResBlobOpen(b.data(), b.size(), &blob), 13u);
    EXPECT_EQ(blob.data, nullptr);
    EXPECT_EQ(blob.count, 0u);
  }
  // Names of 0 units, of more than 255, or running past the end.
  const std::size_t nameAt = good[e3 + 8] | (std::size_t{good[e3 + 9]} << 8);
  for (unsigned n : {0u, 200u, 256u, 0xFFFFu}) {
    Bytes b = good;
    b[nameAt] = static_cast<unsigned char>(n);
    b[nameAt + 1] = static_cast<unsigned char>(n >> 8);
    UResBlob blob;
    EXPECT_EQ(UResBlobOpen(b.data(), b.size(), &blob), 13u) << n;
  }
  // Every truncation: the header's size no longer fits.
  for (std::size_t n = 0; n < good.size(); ++n) {
    UResBlob blob;
    EXPECT_EQ(UResBlobOpen(good.data(), n, &blob), 13u) << n;
  }
  UResBlob blob;
  EXPECT_EQ(UResBlobOpen(nullptr, 100, &blob), 13u);
  // A wider directory entry (a later writer's) is read with its stride.
  Bytes wide = {'Q', 'N', 'R', 'S', 1, 0, 24, 0, 1, 0, 0, 0, 44, 0, 0, 0};
  Put32(&wide, 10);
  Put32(&wide, 5);
  Put32(&wide, 0);
  Put32(&wide, 40);
  Put32(&wide, 4);
  Put32(&wide, 0xDEADBEEF);
  Put32(&wide, 0x04030201);
  ASSERT_EQ(UResBlobOpen(wide.data(), wide.size(), &blob), 0u);
  UResEntry e{};
  ASSERT_NE(UResBlobFind(blob, 10, 5, &e), nullptr);
  EXPECT_EQ(e.bytes[0], 1);
}

// ELF files are the Linux build's modules.
#if defined(QUARNEL_TEST_MODULE_DIR) && !defined(_WIN32)
// The blob of a module built by the tree, found in its file by the ELF
// reader, is byte for byte the container qnrc wrote for the same script.
TEST(ElfFile, FindsTheModulesBlob) {
  const Bytes so = ReadBytes(QUARNEL_TEST_MODULE_DIR "/libqnt_full.so");
  const Bytes plain = ReadBytes(QUARNEL_TEST_MODULE_DIR "/qnt_full.qnrb");
  ASSERT_GT(so.size(), 1000u);
  ASSERT_GT(plain.size(), 16u);
  const quarnel_internal::ElfMemorySource source(so.data(), so.size());
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  ASSERT_EQ(quarnel_internal::ElfFindSymbolBytes(source, "quarnel_resources", &offset, &size),
            quarnel_internal::kElfFound);
  ASSERT_EQ(size, plain.size());
  EXPECT_TRUE(
      std::equal(plain.begin(), plain.end(), so.begin() + static_cast<std::ptrdiff_t>(offset)));
  EXPECT_EQ(quarnel_internal::ElfFindSymbolBytes(source, "no_such_symbol", &offset, &size),
            quarnel_internal::kElfNoSymbol);
  // Not an ELF file at all.
  const Bytes text = ReadBytes(QUARNEL_TEST_DATA_DIR "/resources/not_a_module.txt");
  const quarnel_internal::ElfMemorySource textSource(text.data(), text.size());
  EXPECT_EQ(quarnel_internal::ElfFindSymbolBytes(textSource, "quarnel_resources", &offset, &size),
            quarnel_internal::kElfBadFormat);
}

// Cut at every length and with random bytes changed, the reader answers
// without reading outside the file; what it finds lies within it.
TEST(ElfFile, TruncatedAndDamagedFilesAreRefusedSafely) {
  const Bytes so = ReadBytes(QUARNEL_TEST_MODULE_DIR "/libqnt_full.so");
  ASSERT_FALSE(so.empty());
  std::uint64_t offset = 0;
  std::uint64_t size = 0;
  int found = 0;
  for (std::size_t n = 0; n < so.size(); n += (n < 4096 ? 1 : 7)) {
    const quarnel_internal::ElfMemorySource source(so.data(), n);
    const unsigned r =
        quarnel_internal::ElfFindSymbolBytes(source, "quarnel_resources", &offset, &size);
    if (r == quarnel_internal::kElfFound) {
      ++found;
      ASSERT_LE(offset + size, n);
    }
  }
  // The section table sits at the end of the file: no cut copy reads whole.
  EXPECT_EQ(found, 0);
  std::mt19937 rng(11);
  for (int round = 0; round < 3000; ++round) {
    Bytes b = so;
    const int changes = 1 + static_cast<int>(rng() % 8);
    for (int k = 0; k < changes; ++k) {
      // Mostly the headers and tables, where a change matters.
      const std::size_t at = rng() % 2 ? rng() % 64 : rng() % b.size();
      b[at] = static_cast<unsigned char>(rng());
    }
    const quarnel_internal::ElfMemorySource source(b.data(), b.size());
    const unsigned r =
        quarnel_internal::ElfFindSymbolBytes(source, "quarnel_resources", &offset, &size);
    if (r == quarnel_internal::kElfFound) {
      ASSERT_LE(offset + size, b.size());
    }
  }
}
#endif

}  // namespace
