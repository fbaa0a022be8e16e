// Resource modules on Windows: real DLLs whose real Win32 resources, read
// through the module calls, are byte for byte the resources of the script
// they were built from (the container qnrc wrote beside them).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "quarnel/platform/lasterror.h"
#include "quarnel/platform/module.h"
#include "tests/support/helpers.h"

namespace {

std::string BytesOf(HMODULE m, HRSRC r) {
  if (r == nullptr) return "<none>";
  const auto* p = static_cast<const char*>(ULockResource(ULoadResource(m, r)));
  return p == nullptr ? "<unloaded>" : std::string(p, USizeofResource(m, r));
}

// Every resource of the container is found in the module with the same bytes.
void ExpectSameResources(HMODULE m, const std::string& container) {
  const Bytes bytes = ReadBytes(container);
  UResBlob blob;
  ASSERT_EQ(UResBlobOpen(bytes.data(), bytes.size(), &blob), 0u) << container;
  ASSERT_GT(blob.count, 0u);
  for (unsigned i = 0; i < blob.count; ++i) {
    const UResEntry e = UResBlobEntry(blob, i);
    std::u16string name;
    for (unsigned k = 0; k < e.nameLength; ++k) {
      name += static_cast<char16_t>(e.name[2 * k] | (e.name[2 * k + 1] << 8));
    }
    SCOPED_TRACE("type " + std::to_string(e.type) + " id " + std::to_string(e.id) + " name " +
                 std::string(name.begin(), name.end()));
    HRSRC r = e.name == nullptr
                  ? UFindResource(m, e.id, e.type)
                  : UFindResourceNamed(m, name.data(), static_cast<int>(name.size()), e.type);
    EXPECT_EQ(BytesOf(m, r), std::string(reinterpret_cast<const char*>(e.bytes), e.size));
  }
}

std::string Module(const std::string& name) { return QUARNEL_TEST_MODULE_DIR "\\" + name + ".dll"; }

using ModuleWin32Test = ::testing::Test;

TEST_F(ModuleWin32Test, ResourceModulesCarryTheirScriptsResources) {
  // vellores.dll by name, found in the application folder; the others by path.
  for (const std::string name : {"vellores", "qnt_full", "qnt_touch"}) {
    SCOPED_TRACE(name);
    const std::string dll = name == "vellores" ? "vellores.dll" : Module(name);
    HMODULE m = ULoadLibrary(std::u16string(dll.begin(), dll.end()).c_str());
    ASSERT_NE(m, nullptr) << UGetLastError();
    ExpectSameResources(m, name == "vellores" ? QUARNEL_VELLORES_DIR "/res/vellores.qnrb"
                                              : QUARNEL_TEST_MODULE_DIR "/" + name + ".qnrb");
    EXPECT_EQ(UFreeLibrary(m), 1);
  }
}

TEST_F(ModuleWin32Test, DataFileLoadsReadTheSameResources) {
  const std::string path = Module("qnt_full");
  HMODULE m =
      ULoadLibraryEx(std::u16string(path.begin(), path.end()).c_str(), kLoadLibraryAsDatafile);
  ASSERT_NE(m, nullptr) << UGetLastError();
  ExpectSameResources(m, QUARNEL_TEST_MODULE_DIR "/qnt_full.qnrb");
  EXPECT_EQ(UGetModuleHandle(u"qnt_full.dll"), nullptr);  // loaded as data only
  EXPECT_EQ(UFreeLibrary(m), 1);
}

}  // namespace
