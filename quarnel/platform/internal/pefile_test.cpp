// The PE reader on a small module made by the cross tools (tests/data/pe):
// its sections, resources and functions in both layouts. Damaged modules are
// the fuzz target's (pefile_fuzz), which starts from the same module.
#include "quarnel/platform/internal/pefile.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "tests/support/helpers.h"

namespace {

using namespace quarnel_internal;

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
  const std::vector<unsigned char> file = ReadBytes(QUARNEL_TEST_DATA_DIR "/pe/tiny.dll");
  const ElfMemorySource source(file.data(), file.size());
  PeHeaders h;
  ASSERT_EQ(PeReadHeaders(source, false, &h), kPeFound);
  std::string sections;
  for (int i = 0; i < h.sectionCount; ++i) sections += std::string(h.sections[i].name) + " ";
  EXPECT_EQ(sections, ".text .rdata .pdata .xdata .edata .idata .rsrc ");
  unsigned section = 0;
  std::uint32_t offset = 0;
  ASSERT_TRUE(PeSectionOf(h, 0x1006, &section, &offset));
  EXPECT_EQ(section * 100 + offset, 106u);  // section 1, offset 6
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
  std::string listed;
  for (const ElfFunction& f : functions) listed += f.name + "@" + std::to_string(f.value) + " ";
  EXPECT_NE(listed.find("first@4096 "), std::string::npos) << listed;
  EXPECT_NE(listed.find("second@4100 "), std::string::npos) << listed;

  // The nearest function at or below an address, its name cut to fit.
  const std::pair<std::uint64_t, std::string> nearest[] = {
      {0x1000, "first@4096"}, {0x1006, "second@4100"}, {0x100c, "DllMain@4105"}, {0x2004, ""}};
  for (const auto& [rva, expected] : nearest) {
    char name[8];
    std::uint64_t start = 0;
    const bool found = PeNearestFunction(source, h, rva, name, sizeof name, &start);
    EXPECT_EQ(found ? std::string(name) + "@" + std::to_string(start) : "", expected) << rva;
  }
}

}  // namespace
