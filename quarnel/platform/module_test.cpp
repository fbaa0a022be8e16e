#include "quarnel/platform/module.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "quarnel/platform/env.h"
#include "quarnel/platform/faults.h"
#include "quarnel/platform/lasterror.h"
#include "tests/support/platform_cases.h"

namespace {

const std::string kDir = QUARNEL_TEST_MODULE_DIR;

// A test module's file: lib<name>.so on Linux, <name>.dll on Windows.
std::string ModuleFile(const std::string& name) {
  return kOnWindows ? kDir + "\\" + name + ".dll" : kDir + "/lib" + name + ".so";
}

std::u16string U16(const std::string& s) { return std::u16string(s.begin(), s.end()); }

std::string FileName(HMODULE m) {
  char16_t buf[512];
  const int n = UGetModuleFileName(m, buf, 512);
  return std::string(buf, buf + n);
}

std::string Bytes(HMODULE m, unsigned type, int id) {
  HRSRC r = UFindResource(m, id, type);
  if (r == nullptr) return "<none>";
  const auto* p = static_cast<const char*>(ULockResource(ULoadResource(m, r)));
  return std::string(p, USizeofResource(m, r));
}

class ModuleTest : public ::testing::Test {
 protected:
  void SetUp() override { savedApp_ = QuarnelEnv()->appFolder; }
  void TearDown() override {
    QuarnelEnv()->appFolder = savedApp_;
    UClearFaults();
  }
  std::string savedApp_;
};

#if !defined(_WIN32)
TEST_F(ModuleTest, NameCandidates) {
  const struct {
    const char* name;
    std::vector<std::string> expected;
  } rows[] = {
      {"vellores.dll", {"libvellores.so", "vellores.so", "vellores.dll"}},
      {"Tools.DLL", {"libTools.so", "Tools.so", "Tools.DLL"}},
      {"libm.so.6", {"libm.so.6"}},
      {".dll", {".dll"}},
      {"a.dllx", {"a.dllx"}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(quarnel_internal::ModuleNameCandidates(row.name), row.expected) << row.name;
  }
}
#endif

// A second load gives the same module with one more reference; the module
// stays findable until the last reference is dropped.
TEST_F(ModuleTest, LoadsByPathAndCountsReferences) {
  const std::string path = ModuleFile("qnt_full");
  HMODULE a = ULoadLibrary(U16(path).c_str());
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(ULoadLibrary(U16(path).c_str()), a);
  EXPECT_EQ(UGetModuleHandle(U16(path).c_str()), a);
  EXPECT_EQ(UGetModuleHandle(u"qnt_full.dll"), a);
  const std::string file = FileName(a);
  const std::string name = path.substr(path.find_last_of("/\\"));
  EXPECT_EQ(file.substr(file.size() - name.size()), name) << file;
  EXPECT_EQ(Bytes(a, 10, 10002), "full 1");
  char16_t small[5];
  EXPECT_EQ(UGetModuleFileName(a, small, 5), 4);
  EXPECT_EQ(std::u16string(small), U16(file.substr(0, 4)));

  const unsigned generation = UModuleGeneration();
  EXPECT_EQ(UFreeLibrary(a), 1);
  EXPECT_EQ(UGetModuleHandle(u"qnt_full.dll"), a);
  if (!kOnWindows) {
    EXPECT_EQ(UModuleGeneration(), generation);  // still in the table
  }
  EXPECT_EQ(UFreeLibrary(a), 1);
  EXPECT_NE(UModuleGeneration(), generation);
  USetLastError(0);
  EXPECT_EQ(UGetModuleHandle(u"qnt_full.dll"), nullptr);
  EXPECT_EQ(UGetLastError(), 126u);
  EXPECT_EQ(UFreeLibrary(nullptr), 0);
  if (kOnWindows) return;
  EXPECT_EQ(file, path);
  EXPECT_EQ(UFreeLibrary(a), 0);  // Windows may have given the address to another module
  EXPECT_EQ(UGetLastError(), 6u);
}

#if !defined(_WIN32)
// "X.dll" is found as libX.so in the application folder; a name the folders
// lack goes to the loader's own search.
TEST_F(ModuleTest, SearchesTheApplicationFolderThenTheLoader) {
  QuarnelEnv()->appFolder = kDir;
  HMODULE touch = ULoadLibrary(u"qnt_touch.dll");
  ASSERT_NE(touch, nullptr);
  EXPECT_EQ(FileName(touch), kDir + "/libqnt_touch.so");
  EXPECT_EQ(Bytes(touch, 10, 10002), "touch 1");
  EXPECT_EQ(UFreeLibrary(touch), 1);

  HMODULE libm = ULoadLibrary(u"libm.so.6");
  ASSERT_NE(libm, nullptr);
  EXPECT_NE(FileName(libm).find("libm.so.6"), std::string::npos);
  EXPECT_EQ(UModuleResources(libm).count, 0u);
  USetLastError(0);
  EXPECT_EQ(UFindResource(libm, 10002, 10), nullptr);
  EXPECT_EQ(UGetLastError(), 1813u);  // no resource of the type
  EXPECT_EQ(UFreeLibrary(libm), 1);

  QuarnelEnv()->appFolder = "/nonexistent-folder";
  EXPECT_EQ(ULoadLibrary(u"qnt_touch.dll"), nullptr);
  EXPECT_EQ(UGetLastError(), 126u);
}
#endif

TEST_F(ModuleTest, RefusesWhatIsNotAModule) {
  const struct {
    std::string name;
    unsigned error;
    bool linuxOnly;  // the Linux build's own checks of the file
  } rows[] = {
      {"no_such_module.dll", 126, false},
      {ModuleFile("no_such_module"), 126, false},
      {"", 87, false},
      {QUARNEL_TEST_DATA_DIR "/resources/not_a_module.txt", 193, true},
      {kDir + "/libqnt_corrupt.so", 13, true},  // resources that do not read
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    if (kOnWindows && row.linuxOnly) continue;
    USetLastError(0);
    EXPECT_EQ(ULoadLibrary(U16(row.name).c_str()), nullptr);
    EXPECT_EQ(UGetLastError(), row.error);
  }
  EXPECT_EQ(ULoadLibrary(nullptr), nullptr);
  EXPECT_EQ(UGetLastError(), 87u);
  // The corrupt module was not left loaded.
  EXPECT_EQ(UGetModuleHandle(u"qnt_corrupt.dll"), nullptr);
}

// A data-file load reads the resources from the file: a module of its own,
// unknown to UGetModuleHandle, whatever the loader holds.
TEST_F(ModuleTest, DataFileLoadsReadResourcesOnly) {
  QUARNEL_LINUX_ONLY("the resources read from the ELF file");
  const std::string path = kDir + "/libqnt_full.so";
  HMODULE shared = ULoadLibrary(U16(path).c_str());
  HMODULE data = ULoadLibraryEx(U16(path).c_str(), kLoadLibraryAsDatafile);
  ASSERT_NE(data, nullptr);
  EXPECT_NE(data, shared);
  EXPECT_EQ(UGetModuleHandle(U16(path).c_str()), shared);
  EXPECT_EQ(FileName(data), path);
  EXPECT_EQ(Bytes(data, 10, 10002), "full 1");
  EXPECT_EQ(Bytes(data, 300, 20011), "custom type");
  // Handles of one module are not resources of another.
  HRSRC fromShared = UFindResource(shared, 10002, 10);
  ASSERT_NE(fromShared, nullptr);
  EXPECT_EQ(USizeofResource(data, fromShared), 0u);
  EXPECT_EQ(ULoadResource(data, fromShared), nullptr);
  EXPECT_EQ(UFreeLibrary(data), 1);
  EXPECT_EQ(UFreeLibrary(shared), 1);

  QuarnelEnv()->appFolder = kDir;
  HMODULE byName = ULoadLibraryEx(u"qnt_noid.dll", kLoadLibraryAsDatafile);
  ASSERT_NE(byName, nullptr);
  EXPECT_EQ(Bytes(byName, 10, 10002), "noid 1");
  EXPECT_EQ(UFreeLibrary(byName), 1);

  const struct {
    std::string name;
    unsigned error;
  } rows[] = {
      {"no_such_module.dll", 2},
      {QUARNEL_TEST_DATA_DIR "/resources/not_a_module.txt", 193},
      {kDir + "/libqnt_corrupt.so", 13},
      {"/nonexistent-folder/x.so", 2},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    USetLastError(0);
    EXPECT_EQ(ULoadLibraryEx(U16(row.name).c_str(), kLoadLibraryAsDatafile), nullptr);
    EXPECT_EQ(UGetLastError(), row.error);
  }
}

TEST_F(ModuleTest, FindsResourcesAndLoadsStrings) {
  HMODULE m = ULoadLibrary(U16(ModuleFile("qnt_full")).c_str());
  ASSERT_NE(m, nullptr);
  const struct {
    int id;
    unsigned type, error;
  } rows[] = {
      {20010, 10, 0}, {20010, 11, 1813}, {20011, 10, 1814},
      {-9, 10, 1814}, {70000, 10, 1814}, {20010, 70000, 1813},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(std::to_string(r.id) + " " + std::to_string(r.type));
    USetLastError(0);
    EXPECT_EQ(UFindResource(m, r.id, r.type) != nullptr, r.error == 0);
    EXPECT_EQ(UGetLastError(), r.error);
  }
  char16_t buf[64];
  EXPECT_EQ(ULoadString(m, 20001, buf, 64), 31);
  EXPECT_EQ(std::u16string(buf), u"First string of the full module");
  EXPECT_EQ(ULoadString(m, 20001, buf, 6), 5);
  EXPECT_EQ(std::u16string(buf), u"First");
  EXPECT_EQ(ULoadString(m, 20002, buf, 64), 4);
  EXPECT_EQ(std::u16string(buf), u"Zwei");
  EXPECT_EQ(ULoadString(m, 20017, buf, 64), 10);
  EXPECT_EQ(std::u16string(buf), u"Next block");
  // An empty slot of a block that exists, and a block that does not.
  EXPECT_EQ(ULoadString(m, 20003, buf, 64), 0);
  EXPECT_EQ(buf[0], 0);
  USetLastError(0);
  EXPECT_EQ(ULoadString(m, 30000, buf, 64), 0);
  EXPECT_EQ(UGetLastError(), 1814u);
  EXPECT_EQ(ULoadString(m, 20001, buf, 0), 0);
  EXPECT_EQ(UGetLastError(), 87u);
  EXPECT_EQ(UFreeLibrary(m), 1);
}

TEST_F(ModuleTest, FaultSeamFailsLoadsResourcesAndFrees) {
  const std::u16string path = U16(ModuleFile("qnt_full"));
  UFailCall(UCall::kLoadLibrary, 1, 8);
  EXPECT_EQ(ULoadLibrary(path.c_str()), nullptr);
  EXPECT_EQ(UGetLastError(), 8u);
  HMODULE m = ULoadLibrary(path.c_str());
  ASSERT_NE(m, nullptr);
  HRSRC r = UFindResource(m, 10002, 10);
  UFailCall(UCall::kLoadResource, 1, 1812);
  EXPECT_EQ(ULoadResource(m, r), nullptr);
  EXPECT_EQ(UGetLastError(), 1812u);
  EXPECT_NE(ULoadResource(m, r), nullptr);
  UFailCall(UCall::kFreeLibrary, 1, 31);
  EXPECT_EQ(UFreeLibrary(m), 0);
  EXPECT_EQ(UGetModuleHandle(path.c_str()), m);
  EXPECT_EQ(UFreeLibrary(m), 1);
  EXPECT_EQ(UGetModuleHandle(path.c_str()), nullptr);
}

TEST_F(ModuleTest, TheHostExecutableIsAModule) {
  HMODULE host = UGetModuleHandle(nullptr);
  ASSERT_NE(host, nullptr);
  EXPECT_EQ(UGetModuleHandle(nullptr), host);
  const std::string self = FileName(nullptr);
  EXPECT_EQ(FileName(host), self);
  EXPECT_NE(self.find("module_test"), std::string::npos);
  EXPECT_EQ(UFreeLibrary(host), 1);  // never unloaded
  EXPECT_EQ(UGetModuleHandle(nullptr), host);
  // This program carries no resources of its own.
#if !defined(_WIN32)
  EXPECT_EQ(UModuleResources(host).count, 0u);
#endif
  EXPECT_EQ(UFindResource(host, 10002, 10), nullptr);
}

// Threads loading and freeing the same module keep one module with a
// consistent reference count; when all are done it is gone.
TEST_F(ModuleTest, ThreadsLoadAndFreeTheSameModule) {
  const std::u16string path = U16(ModuleFile("qnt_touch"));
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 100; ++i) {
        HMODULE m = ULoadLibrary(path.c_str());
        if (m == nullptr || Bytes(m, 10, 10002) != "touch 1") ++failures;
        if (m != nullptr && UFreeLibrary(m) != 1) ++failures;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_EQ(UGetModuleHandle(path.c_str()), nullptr);
}

}  // namespace
