// The PE reader on a small module made by the cross tools (tests/data/pe):
// its sections, resources and functions in both layouts, and every cut and
// every flipped header bit of it read without leaving the bytes.
#include "quarnel/platform/internal/pefile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

using namespace quarnel_internal;

std::vector<unsigned char> TinyModule() {
  std::ifstream in(QUARNEL_TEST_DATA_DIR "/pe/tiny.dll", std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The module as the loader lays it out: each section's bytes at its address.
std::vector<unsigned char> Mapped(const std::vector<unsigned char>& file, const PeHeaders& h) {
  std::vector<unsigned char> image(0x8000);
  std::memcpy(image.data(), file.data(), 0x400);
  for (int i = 0; i < h.sectionCount; ++i) {
    const PeSection& s = h.sections[i];
    std::memcpy(image.data() + s.rva, file.data() + s.fileOffset, s.fileSize);
  }
  return image;
}

std::string Resource(const std::vector<unsigned char>& bytes, bool mapped, unsigned id) {
  const ElfMemorySource source(bytes.data(), bytes.size());
  PeHeaders h;
  if (PeReadHeaders(source, mapped, &h) != kPeFound) return "<headers>";
  std::uint64_t offset = 0;
  std::uint32_t size = 0;
  const unsigned r = PeFindResource(source, h, 10, id, &offset, &size);  // 10: RCDATA
  if (r != kPeFound) return "<" + std::to_string(r) + ">";
  return std::string(reinterpret_cast<const char*>(bytes.data() + offset), size);
}

TEST(PeFile, ReadsTheSectionsResourcesAndFunctionsOfAModule) {
  const std::vector<unsigned char> file = TinyModule();
  ASSERT_EQ(file.size(), 6570u);
  const ElfMemorySource source(file.data(), file.size());
  PeHeaders h;
  ASSERT_EQ(PeReadHeaders(source, false, &h), kPeFound);
  ASSERT_EQ(h.sectionCount, 7);
  EXPECT_STREQ(h.sections[0].name, ".text");
  EXPECT_STREQ(h.sections[6].name, ".rsrc");
  EXPECT_EQ(h.sections[6].rva, 0x7000u);
  EXPECT_EQ(h.sections[6].fileOffset, 0x1000u);
  EXPECT_EQ(h.imageBase, 0x2616b0000u);
  EXPECT_EQ(h.resourceRva, 0x7000u);
  EXPECT_NE(h.symbolTable, 0u);

  unsigned section = 0;
  std::uint32_t offset = 0;
  ASSERT_TRUE(PeSectionOf(h, 0x1006, &section, &offset));
  EXPECT_EQ(section, 1u);
  EXPECT_EQ(offset, 6u);
  EXPECT_FALSE(PeSectionOf(h, 0x9000, &section, &offset));

  const std::vector<unsigned char> image = Mapped(file, h);
  for (const bool mapped : {false, true}) {
    SCOPED_TRACE(mapped ? "mapped" : "file");
    const std::vector<unsigned char>& bytes = mapped ? image : file;
    EXPECT_EQ(Resource(bytes, mapped, 1), std::string("quarnel\0", 8));
    EXPECT_EQ(Resource(bytes, mapped, 7), "seven");
    EXPECT_EQ(Resource(bytes, mapped, 2), "<1>");
  }

  std::vector<ElfFunction> functions;
  ASSERT_EQ(PeFunctionSymbols(source, &functions), kPeFound);
  std::vector<std::string> names;
  for (const ElfFunction& f : functions) names.push_back(f.name + "@" + std::to_string(f.value));
  EXPECT_NE(std::find(names.begin(), names.end(), "first@4096"), names.end());
  EXPECT_NE(std::find(names.begin(), names.end(), "second@4100"), names.end());

  struct Nearest {
    std::uint64_t rva;
    const char* name;  // nullptr: none
    std::uint64_t start;
  };
  for (const Nearest& n : std::vector<Nearest>{{0x1000, "first", 0x1000},
                                               {0x1006, "second", 0x1004},
                                               {0x100c, "DllMainCRTStartup", 0x1009},
                                               {0x2004, nullptr, 0}}) {
    SCOPED_TRACE(n.rva);
    char name[8];  // cut to fit
    std::uint64_t start = 0;
    ASSERT_EQ(PeNearestFunction(source, h, n.rva, name, sizeof name, &start), n.name != nullptr);
    if (n.name == nullptr) continue;
    EXPECT_EQ(std::string(name), std::string(n.name).substr(0, sizeof name - 1));
    EXPECT_EQ(start, n.start);
  }
}

// Whatever a damaged module holds, what the reader finds lies within it.
void ReadAll(const std::vector<unsigned char>& bytes) {
  const ElfMemorySource source(bytes.data(), bytes.size());
  PeHeaders h;
  if (PeReadHeaders(source, false, &h) != kPeFound) return;
  std::uint64_t offset = 0;
  std::uint32_t size = 0;
  if (PeFindResource(source, h, 10, 7, &offset, &size) == kPeFound) {
    ASSERT_LE(offset, bytes.size());
    ASSERT_LE(size, bytes.size() - offset);
  }
  std::vector<ElfFunction> functions;
  PeFunctionSymbols(source, &functions);
  char name[64];
  std::uint64_t start = 0;
  PeNearestFunction(source, h, 0x1006, name, sizeof name, &start);
}

TEST(PeFile, DamagedModulesAreReadWithinTheirBytes) {
  const std::vector<unsigned char> file = TinyModule();
  for (std::size_t n = 0; n < file.size(); n += 7) {
    ReadAll(std::vector<unsigned char>(file.begin(), file.begin() + n));
  }
  const ElfMemorySource empty(file.data(), 0);
  PeHeaders h;
  EXPECT_EQ(PeReadHeaders(empty, false, &h), kPeBadFormat);
  const ElfMemorySource source(file.data(), file.size());
  ASSERT_EQ(PeReadHeaders(source, false, &h), kPeFound);
  // Every bit of the headers, the resource directory and the symbol table.
  const std::pair<std::size_t, std::size_t> ranges[] = {
      {0, 0x400}, {0x1000, 0x1098}, {h.symbolTable, file.size()}};
  for (const auto& [from, to] : ranges) {
    for (std::size_t bit = from * 8; bit < to * 8; ++bit) {
      std::vector<unsigned char> damaged = file;
      damaged[bit / 8] ^= static_cast<unsigned char>(1u << bit % 8);
      ReadAll(damaged);
    }
  }
}

}  // namespace
