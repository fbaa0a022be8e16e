// Resource modules on Windows: real DLLs whose real Win32 resources, read
// through the module calls, are byte for byte the resources of the script
// they were built from (the container qnrc wrote beside them).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "quarnel/platform/env.h"
#include "quarnel/platform/faults.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/platform/module.h"
#include "tests/support/helpers.h"

namespace {

std::string FileName(HMODULE m) {
  char16_t buf[512];
  const int n = UGetModuleFileName(m, buf, 512);
  return std::string(buf, buf + n);
}

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

std::u16string U16(const std::string& s) { return std::u16string(s.begin(), s.end()); }

class ModuleWin32Test : public ::testing::Test {
 protected:
  void TearDown() override { UClearFaults(); }
};

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

TEST_F(ModuleWin32Test, LoadsCountReferencesAndNameTheFile) {
  const unsigned generation = UModuleGeneration();
  HMODULE a = ULoadLibrary(U16(Module("qnt_touch")).c_str());
  ASSERT_NE(a, nullptr);
  EXPECT_NE(UModuleGeneration(), generation);
  EXPECT_EQ(ULoadLibrary(U16(Module("qnt_touch")).c_str()), a);
  EXPECT_EQ(UGetModuleHandle(u"qnt_touch.dll"), a);
  const std::string file = FileName(a);
  EXPECT_EQ(file.substr(file.size() - 14), "\\qnt_touch.dll") << file;
  EXPECT_EQ(UFreeLibrary(a), 1);
  EXPECT_EQ(UGetModuleHandle(u"qnt_touch.dll"), a);  // one reference left
  EXPECT_EQ(UFreeLibrary(a), 1);
  EXPECT_EQ(UGetModuleHandle(u"qnt_touch.dll"), nullptr);
  EXPECT_EQ(UGetLastError(), 126u);
  // The host executable is a module that is never unloaded.
  HMODULE host = UGetModuleHandle(nullptr);
  ASSERT_NE(host, nullptr);
  EXPECT_EQ(UFreeLibrary(host), 1);
  EXPECT_NE(FileName(host).find("module_win32_test.exe"), std::string::npos);
}

TEST_F(ModuleWin32Test, FailuresSetTheLastError) {
  EXPECT_EQ(ULoadLibrary(u"qnt_nowhere.dll"), nullptr);
  EXPECT_EQ(UGetLastError(), 126u);
  EXPECT_EQ(ULoadLibrary(u""), nullptr);
  EXPECT_EQ(UGetLastError(), 87u);
  HMODULE m = ULoadLibrary(U16(Module("qnt_full")).c_str());
  ASSERT_NE(m, nullptr);
  struct Row {
    int id;
    unsigned type;
    unsigned err;
  } rows[] = {
      {20010, 10, 0}, {20010, 11, 1813}, {20011, 10, 1814},
      {-9, 10, 1814}, {70000, 10, 1814}, {20010, 70000, 1813},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(std::to_string(r.id) + " " + std::to_string(r.type));
    USetLastError(0);
    HRSRC found = UFindResource(m, r.id, r.type);
    EXPECT_EQ(found != nullptr, r.err == 0);
    if (r.err != 0) {
      EXPECT_EQ(UGetLastError(), r.err);
    }
  }
  char16_t text[64];
  EXPECT_EQ(ULoadString(m, 20002, text, 64), 4);
  EXPECT_EQ(std::u16string(text), u"Zwei");
  EXPECT_EQ(ULoadString(m, 20001, text, 6), 5);  // cut to the buffer
  EXPECT_EQ(std::u16string(text), u"First");

  // The fault seam fails the calls it names.
  UFailCall(UCall::kLoadResource, 1, 1812);
  EXPECT_EQ(ULoadResource(m, UFindResource(m, 20010, 10)), nullptr);
  EXPECT_EQ(UGetLastError(), 1812u);
  UFailCall(UCall::kLoadLibrary, 1, 5);
  EXPECT_EQ(ULoadLibrary(U16(Module("qnt_touch")).c_str()), nullptr);
  EXPECT_EQ(UGetLastError(), 5u);
  UFailCall(UCall::kFreeLibrary, 1, 31);
  EXPECT_EQ(UFreeLibrary(m), 0);
  EXPECT_EQ(UGetLastError(), 31u);
  EXPECT_EQ(UFreeLibrary(m), 1);
}

}  // namespace
