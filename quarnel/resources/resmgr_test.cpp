#include "quarnel/resources/resmgr.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "quarnel/foundation/error.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/memutil.h"
#include "quarnel/foundation/tmemory.h"
#include "quarnel/platform/env.h"
#include "quarnel/platform/faults.h"
#include "quarnel/platform/module.h"
#include "quarnel/text/tstring.h"
#include "tests/support/helpers.h"

namespace {

namespace fs = std::filesystem;

const std::string kDir = QUARNEL_TEST_MODULE_DIR;
const std::string kHostFallback = "Host fallback message";  // list 16000 '0000' of this program

// A module's file: on Windows its full name as the loader reports it.
std::string Path(const std::string& module) {
  if (kOnWindows) return fs::absolute(fs::path(kDir + "/qnt_" + module + ".dll")).string();
  return kDir + "/libqnt_" + module + ".so";
}

TString T(const std::string& s) { return TString(Utf16(s).c_str()); }

std::string Load(int listId, unsigned key) {
  TString s;
  s.LoadKString(static_cast<unsigned short>(listId), key);
  return Utf8(s);
}

unsigned KeyOf(const std::string& k) {
  char buf[5] = {};
  k.copy(buf, 4);
  return Key(buf);
}

class ResmgrTest : public RecordingTest {
 protected:
  void TearDown() override {
    for (auto it = names_.rbegin(); it != names_.rend(); ++it) {
      TString name = T(*it);
      while (UGetModuleHandle(name.Text()) != nullptr) DLUnloadLib(&name);
    }
    SetGlobalScaleFactor(1000);
    RecordingTest::TearDown();
  }

  int DL(const std::string& name) {
    names_.push_back(name);
    TString n = T(name);
    return DLLoadLib(&n);
  }
  int DL(const std::string& name, int firstRes, int lastRes, int firstErr, int lastErr) {
    names_.push_back(name);
    TString n = T(name);
    return DLLoadLib(&n, firstRes, lastRes, firstErr, lastErr);
  }
  void Unload(const std::string& name) {
    TString n = T(name);
    DLUnloadLib(&n);
  }
  int Check(const std::string& name) {
    TString n = T(name);
    return DLCheckLib(&n);
  }
  static bool IsLoaded(const std::string& name) {
    return UGetModuleHandle(T(name).Text()) != nullptr;
  }
  // The range records, one "name first..last error..error" a line: "host"
  // for the library's own entry, else the module's short name.
  std::string Ranges() const {
    std::vector<RMRangeRecord> r(static_cast<std::size_t>(RMGetRanges(nullptr, 0)));
    RMGetRanges(r.data(), static_cast<int>(r.size()));
    std::string out;
    for (const RMRangeRecord& x : r) {
      std::string who = x.module == nullptr ? "host" : "?";
      for (const std::string& name : names_) {
        // ".../libqnt_NAME.so" or ".../qnt_NAME.dll"
        const std::size_t at = name.rfind("qnt_"), dot = name.rfind('.');
        if (x.module != nullptr && at != std::string::npos && dot != std::string::npos &&
            dot > at && UGetModuleHandle(T(name).Text()) == x.module)
          who = name.substr(at + 4, dot - at - 4);
      }
      out += who + " " + std::to_string(x.firstRes) + ".." + std::to_string(x.lastRes) + " " +
             std::to_string(x.firstErr) + ".." + std::to_string(x.lastErr) + "\n";
    }
    return out;
  }

  std::vector<std::string> names_;
  ScopedEnv env_;
};

// Loading and unloading a module enters and removes its ranges (ModulesAsBuilt
// shows the messages of its codes); error codes map to list and key.
TEST_F(ResmgrTest, LoadsAModuleAndItsRanges) {
  ASSERT_EQ(DL(Path("full")), kErrNone);
  EXPECT_EQ(ErrorText(-3000), "Full module error zero");
  Unload(Path("full"));
  EXPECT_FALSE(IsLoaded(Path("full")));
  EXPECT_EQ(Ranges(), "host 16000..16001 -1000..-2000\n");
  EXPECT_EQ(ErrorText(-3000), kHostFallback);

  // Error codes to list and key: the lowest four digits of the code's
  // distance from the range's start are the key.
  ASSERT_EQ(DL(Path("noid"), 50000, 50100, -20000, -40000), kErrNone);
  const struct {
    int err;
    int list;
    const char* key;  // null: not found
  } rows[] = {
      {-1000, 16000, "0000"},  {-1005, 16000, "0005"},  {-1999, 16000, "0999"},
      {-2000, 0, nullptr},     {-999, 0, nullptr},      {0, 0, nullptr},
      {-20000, 50099, "0000"}, {-32345, 50099, "2345"}, {-39999, 50099, "9999"},
      {-40000, 0, nullptr},    {-2001, 0, nullptr},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.err);
    unsigned short list = 1;
    unsigned key = 1;
    EXPECT_EQ(RMGetErrID(row.err, &list, &key), row.key ? 1 : 0);
    EXPECT_EQ(list, row.list);
    EXPECT_EQ(key, row.key ? KeyOf(row.key) : 0u);
  }
}

// The conflict rules of range_conflicts.tsv.
TEST_F(ResmgrTest, RangeConflictsAreHalfOpen) {
  const std::string a = Path("noid");
  const std::string b = Path("noid2");
  for (const auto& row : ReadTsv("range_conflicts.tsv")) {
    SCOPED_TRACE(row[0] + " / " + row[1]);
    int o[4], n[4];
    std::istringstream(row[0]) >> o[0] >> o[1] >> o[2] >> o[3];
    std::istringstream(row[1]) >> n[0] >> n[1] >> n[2] >> n[3];
    const std::string& conflict = row[2];
    ASSERT_EQ(DL(a, o[0], o[1], o[2], o[3]), kErrNone);
    ClearRecords();
    const int err = DL(b, n[0], n[1], n[2], n[3]);
    std::string expected = "515 DLLoadLib: no id resource in \"" + b + "\"\n";
    if (conflict != "none") {
      const int k = conflict == "resource" ? 0 : 2;
      char line[512];
      std::snprintf(
          line, sizeof line,
          "517 ResErrAlloc::Add: new \"%s\" (%d..%d) has %s conflict with \"%s\" (%d..%d)\n",
          b.c_str(), n[k], n[k + 1], conflict.c_str(), a.c_str(), o[k], o[k + 1]);
      expected += line;
    }
    EXPECT_EQ(err, conflict != "none" ? kErrModuleConflict : kErrNone);
    EXPECT_EQ(IsLoaded(b), conflict == "none");
    EXPECT_EQ(Logged(), expected);
    Unload(b);
    Unload(a);
  }
}

// The test modules as built: touching ranges load side by side, overlapping
// ones are refused, a module without an id resource is entered with zeros
// and conflicts with nothing, bad ranges and missing symbols are warned of.
TEST_F(ResmgrTest, ModulesAsBuilt) {
  ASSERT_EQ(DL(Path("noid")), kErrNone);
  ASSERT_EQ(DL(Path("full")), kErrNone);
  ASSERT_EQ(DL(Path("touch")), kErrNone);
  // -3100 is the touching module's, not the full one's: its list 20199.
  EXPECT_EQ(ErrorText(-3101), "Touch module error one");
  EXPECT_EQ(ErrorText(-3099), kHostFallback);
  EXPECT_EQ(Load(22000, Key("Noid")), "from the module without id");
  EXPECT_EQ(DL(Path("overlap")), kErrModuleConflict);
  EXPECT_EQ(DL(Path("errclash")), kErrModuleConflict);
  ASSERT_EQ(DL(Path("nosyms")), kErrNone);
  ASSERT_EQ(DL(Path("badranges")), kErrNone);
  const std::string conflict = "517 ResErrAlloc::Add: new \"";
  EXPECT_EQ(Logged(),
            "515 DLLoadLib: no id resource in \"" + Path("noid") + "\"\n" + conflict +
                Path("overlap") + "\" (20050..20300) has resource conflict with \"" + Path("full") +
                "\" (20000..20100)\n" + conflict + Path("errclash") +
                "\" (-3050..-3150) has error conflict with \"" + Path("full") +
                "\" (-3000..-3100)\n515 DLLoadLib: \"" + Path("nosyms") +
                "\" was built without assert symbols\n517 ResErrAlloc: warning: module \"" +
                Path("badranges") +
                "\" has missing/invalid resource range\n517 ResErrAlloc: warning: module \"" +
                Path("badranges") + "\" has missing/invalid error range\n");
  EXPECT_FALSE(IsLoaded(Path("overlap")) || IsLoaded(Path("errclash")));
  EXPECT_EQ(Ranges(),
            "host 16000..16001 -1000..-2000\nnoid 0..0 0..0\nfull 20000..20100 -3000..-3100\n"
            "touch 20100..20200 -3100..-3200\nnosyms 40000..40100 -5000..-5100\n"
            "badranges 500..400 -5..-3\n");
}

// Modules that cannot be used: loading and checking refuse them alike, each
// naming itself where a line has "@", and neither leaves them loaded nor
// changes the ranges.
TEST_F(ResmgrTest, RefusesUnusableModules) {
  const std::string text = QUARNEL_TEST_DATA_DIR "/resources/not_a_module.txt";
  const std::string failed = "515 @: CheckPersist(\"", fallback = "\") failed, " + kHostFallback;
  enum { kBoth, kLoad, kCheck };
  const struct {
    int which;
    std::string name;
    int err;
    std::string lines;
  } rows[] = {
      {kCheck, Path("full"), kErrNone, ""},
      {kCheck, Path("noid"), kErrNone, ""},
      {kCheck, Path("nosyms"), kErrNone, ""},
      {kCheck, Path("noid2"), kErrModuleUnusable,
       "515 @: no resource 10002 in \"" + Path("noid2") + "\"\n"},
      {kBoth, Path("small"), kErrModuleUnusable,
       "515 @: id resource in \"" + Path("small") + "\" too small\n"},
      {kBoth, Path("badsig"), kErrPersistWrongSignature, failed + Path("badsig") + fallback + "\n"},
      {kBoth, Path("swapped"), kErrPersistOtherByteOrder,
       failed + Path("swapped") + fallback + "\n"},
      {kLoad, Path("oldver"), kErrPersistTooOld, failed + Path("oldver") + fallback + "\n"},
      {kCheck, text, kErrModuleUnusable,
       "516 @: ULoadLibraryEx(\"" + text + "\") failed, os error 193\n"},
      {kCheck, Path("corrupt"), kErrModuleUnusable,
       "516 @: ULoadLibraryEx(\"" + Path("corrupt") + "\") failed, os error 13\n"},
      {kCheck, "qnt_nowhere.dll", kErrModuleUnusable,
       "516 @: ULoadLibraryEx(\"qnt_nowhere.dll\") failed, os error 2\n"},
      {kLoad, "qnt_no_such_module.dll", kErrModuleUnusable,
       "516 @: ULoadLibrary(\"qnt_no_such_module.dll\") failed, os error 126 \n"},
      {kLoad, text, kErrModuleUnusable,
       "516 @: ULoadLibrary(\"" + text + "\") failed, os error 193 \n"},
      {kLoad, Path("corrupt"), kErrModuleUnusable,
       "516 @: ULoadLibrary(\"" + Path("corrupt") + "\") failed, os error 13 \n"},
      // The id resource that cannot be read.
      {kBoth, Path("full"), kErrModuleUnusable,
       "514 @: Load/Lock id resource failed for \"" + Path("full") + "\", os error 1,812\n"},
  };
  const std::string rangesBefore = Ranges();
  for (const std::string function : {"DLLoadLib", "DLCheckLib"}) {
    const bool load = function == "DLLoadLib";
    for (const auto& row : rows) {
      if (row.which == (load ? kCheck : kLoad)) continue;
      if (kOnWindows && row.name == Path("corrupt")) continue;  // the Linux build's own container
      SCOPED_TRACE(function + " " + row.name);
      ClearRecords();
      if (row.lines.starts_with("514")) UFailCall(UCall::kLoadResource, 1, 1812);
      EXPECT_EQ(load ? DL(row.name) : Check(row.name), row.err);
      std::string lines = row.lines;
      for (std::size_t at; (at = lines.find('@')) != std::string::npos;)
        lines.replace(at, 1, function);
      EXPECT_EQ(Logged(), lines);
      EXPECT_FALSE(IsLoaded(row.name));
    }
  }
  EXPECT_EQ(Ranges(), rangesBefore);
  ClearRecords();
  Unload("qnt_never_loaded.dll");
  EXPECT_EQ(Logged(), "515 DLUnloadLib: \"qnt_never_loaded.dll\" wasn't loaded!\n");
}

TEST_F(ResmgrTest, LoadingAnEnteredModuleAgain) {
  ASSERT_EQ(DL(Path("full")), kErrNone);
  // The one-argument form refuses and releases its extra load.
  EXPECT_EQ(DL(Path("full")), kErrModuleEntered);
  EXPECT_EQ(Logged(), "517 ResErrAlloc::Add: module \"" + Path("full") + "\" already loaded\n");
  // The five-argument form replaces the range record instead: the new one
  // goes to the end of the list like any other.
  ASSERT_EQ(DL(Path("touch")), kErrNone);
  ClearRecords();
  EXPECT_EQ(DL(Path("full"), 25000, 25100, -6000, -6100), kErrNone);
  EXPECT_EQ(Logged(), "");
  const std::string replaced =
      "host 16000..16001 -1000..-2000\ntouch 20100..20200 -3100..-3200\n"
      "full 25000..25100 -6000..-6100\n";
  EXPECT_EQ(Ranges(), replaced);
  unsigned short list = 0;
  unsigned key = 0;
  EXPECT_EQ(RMGetErrID(-6001, &list, &key), 1);
  EXPECT_EQ(list, 25099);
  EXPECT_EQ(RMGetErrID(-3007, &list, &key), 0);
  // A replacement that conflicts leaves the old record where it was.
  ASSERT_EQ(DL(Path("noid")), kErrNone);
  EXPECT_EQ(DL(Path("full"), 20150, 20300, -7000, -7100), kErrModuleConflict);
  EXPECT_EQ(Ranges(), replaced + "noid 0..0 0..0\n");
  // One unload frees it: the refused loads left no reference behind.
  Unload(Path("full"));
  EXPECT_FALSE(IsLoaded(Path("full")));

  // An unload the platform refuses asserts; the records go all the same
  // while the module itself stays.
  ASSERT_EQ(DL(Path("full")), kErrNone);
  UFailCall(UCall::kFreeLibrary, 1, 31);
  Unload(Path("full"));
  EXPECT_EQ(Asserted(), "resmgr-897");
  EXPECT_EQ(Ranges(),
            "host 16000..16001 -1000..-2000\ntouch 20100..20200 -3100..-3200\n"
            "noid 0..0 0..0\n");
  HMODULE still = UGetModuleHandle(T(Path("full")).Text());
  ASSERT_NE(still, nullptr);
  EXPECT_EQ(UFreeLibrary(still), 1);
}

// RMGetKList: the default module, then the host (its registered lists, then
// its own resources), then the loaded modules, newest first.
TEST_F(ResmgrTest, StringListSearchOrder) {
  EXPECT_EQ(Load(21000, Key("Who?")), "host");
  EXPECT_EQ(Load(23000, Key("Who?")), "");
  ASSERT_EQ(DL(Path("full")), kErrNone);
  EXPECT_EQ(Load(21000, Key("Who?")), "host");
  EXPECT_EQ(Load(23000, Key("Who?")), "full");
  ASSERT_EQ(DL(Path("touch")), kErrNone);
  EXPECT_EQ(Load(23000, Key("Who?")), "touch");
  EXPECT_EQ(Load(16000, Key("Host")), "from the host");
  EXPECT_EQ(Load(16000, Key("0000")), kHostFallback);
  // The first list found is the one read: 'Only' of the module's 16000 is hidden.
  EXPECT_EQ(Load(16000, Key("Only")), "");
  {
    HostList registered(21000, {{"Who?", "registered"}});
    EXPECT_EQ(Load(21000, Key("Who?")), "registered");
  }
  EXPECT_EQ(Load(21000, Key("Who?")), "host");

  // The default resource module comes before the host.
  env_->appFolder = QUARNEL_VELLORES_DIR;
  ASSERT_EQ(DL("vellores.dll"), kErrNone);
  EXPECT_EQ(Load(16000, Key("0000")), "Unidentified error");
  EXPECT_EQ(Load(16000, Key("Host")), "");
  EXPECT_EQ(Load(21000, Key("Who?")), "host");
  Unload("vellores.dll");
  EXPECT_EQ(Load(16000, Key("0000")), kHostFallback);

  int size = -1;
  EXPECT_EQ(RMGetKList(29999, &size), nullptr);
  EXPECT_EQ(size, 0);
  const auto* list = static_cast<const unsigned char*>(RMGetKList(21000, &size));
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(size, 2 + 4 + 4 + 2);
  EXPECT_EQ(list[0], 8);
}

// The reference: the walk over a list as the library documents it.
struct Walked {
  int result;
  std::string text;
  std::string lines;  // the problem reported, if any
};

Walked Walk(const Bytes& l, unsigned key, int listId) {
  const int size = static_cast<int>(l.size());
  const bool dump = key == 0xFFFF;  // every tag up to the end (only of lists without faults)
  std::string dumped;
  char buf[160];
  // %Y prints each byte as the character of the same value.
  const auto keyText = [](unsigned k) {
    std::u16string t;
    for (int i = 24; i >= 0; i -= 8) t += static_cast<char16_t>((k >> i) & 0xFF);
    return Utf8(t);
  };
  for (int pos = 0; pos + 2 <= size;) {
    const int len = l[pos] | (l[pos + 1] << 8);
    if (len == 0xFFFF) return {dump ? 1 : 0, "", dumped};
    if (len < 4 || pos + 2 + len > size) break;
    const std::string tagText(l.begin() + pos + 2, l.begin() + pos + 6);
    const unsigned tag = KeyOf(tagText);
    if (dump) {
      dumped += "515 " + tagText + "\n";
    } else if ((tag & 0x80808080u) != 0 || (tag & 0x60606060u) == 0) {
      std::snprintf(buf, sizeof buf,
                    "517 LoadKString: Invalid signature (%s) looking for %s in ID %d\n",
                    keyText(tag).c_str(), keyText(key).c_str(), listId);
      return {0, "", buf};
    } else if (tag == key) {
      return {1, std::string(l.begin() + pos + 6, l.begin() + pos + 2 + len), ""};
    }
    pos += 2 + len + (len & 1);
  }
  std::snprintf(buf, sizeof buf, "517 LoadKString: Bad resource looking for %s in ID %d\n",
                keyText(key).c_str(), listId);
  return {0, "", buf};
}

// Random lists, some of them faulty, and random keys: LoadKString (which
// looks well-formed lists up through an index) answers as the walk does.
TEST_F(ResmgrTest, LoadKStringAnswersAsTheWalkOverRandomLists) {
  std::mt19937 rng(1234);
  const char* tags[] = {"Abcd", "Efgh", "0000", "0001", "KMkm", "Zero", "Dupe"};
  for (int round = 0; round < 400; ++round) {
    ListEntries entries;
    const int n = static_cast<int>(rng() % 9);
    for (int i = 0; i < n; ++i) {
      entries.emplace_back(tags[rng() % 7], std::string(rng() % 6, static_cast<char>('a' + i)));
    }
    const bool terminated = rng() % 8 != 0;
    Bytes list = StringList(entries, terminated);
    bool broken = !terminated;
    switch (rng() % 8) {
      case 0:  // a length below 4 before the end
        if (list.size() >= 2) list.insert(list.end() - 2, {3, 0}), broken = true;
        break;
      case 1:  // an entry longer than the list before the end
        if (list.size() >= 2) list.insert(list.end() - 2, {40, 0, 'A', 'b'}), broken = true;
        break;
      case 2:  // a tag with the top bit set
        if (list.size() > 4) list[2] |= 0x80, broken = true;
        break;
      case 3:  // a tag with no bit of 0x60
        if (list.size() > 6) std::fill(list.begin() + 2, list.begin() + 6, 0x01), broken = true;
        break;
      default:
        break;
    }
    if (list.empty()) continue;  // registering no bytes removes the list
    RMAddHostKList(24002, list.data(), static_cast<int>(list.size()));
    for (int q = 0; q < 4; ++q) {
      const bool dump = !broken && q == 0;
      const unsigned key = dump ? 0xFFFF : KeyOf(tags[rng() % 7]);
      const Walked expected = Walk(list, key, 24002);
      ClearRecords();
      TString s(u"stale");
      ASSERT_EQ(s.LoadKString(24002, key), expected.result);
      ASSERT_EQ(Utf8(s), expected.text);
      ASSERT_EQ(Logged(), expected.lines);
    }
  }
  RMAddHostKList(24002, nullptr, 0);
  ClearRecords();
  TString none;
  EXPECT_EQ(none.LoadKString(24002, Key("Abcd")), 0);
  EXPECT_EQ(none.LoadKString(24002, 0xFFFF), 1);
  EXPECT_EQ(Logged(), "");
}

TEST_F(ResmgrTest, KStringAnsiCopiesIntoAMemoryBlock) {
  HostList list(24001, {{"Abcd", "hello"}, {"Empt", ""}, {"Efgh", "\xE9t\xE9"}});
  void* block = nullptr;
  for (auto [key, text] : {std::pair{Key("Efgh"), std::string("\xE9t\xE9")},
                           {Key("Abcd"), std::string("hello")},
                           {Key("Empt"), std::string()}}) {
    EXPECT_EQ(RMGetKStringAnsi(24001, key, &block), static_cast<int>(text.size()));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(MemSize(block), text.size());
    EXPECT_EQ(std::string(static_cast<char*>(block), text.size()), text);
  }
  EXPECT_EQ(RMGetKStringAnsi(24001, Key("Zzzz"), &block), -1);
  EXPECT_EQ(RMGetKStringAnsi(24999, Key("Abcd"), &block), -1);
  EXPECT_EQ(RMGetKStringAnsi(24001, Key("Abcd"), nullptr), -1);
  MemFree(block);
  list.Set({{"Abcd", "hello"}}, false);
  block = nullptr;
  EXPECT_EQ(RMGetKStringAnsi(24001, Key("Zzzz"), &block), -1);
  EXPECT_EQ(block, nullptr);
}

TEST_F(ResmgrTest, StringTablesSearchTheHostFirst) {
  TString s(u"stale");
  EXPECT_EQ(RMGetString(20001, &s, 100), 0);
  EXPECT_TRUE(s.IsEmpty());
  EXPECT_EQ(RMGetString(20002, &s, 100), 11);
  EXPECT_EQ(Utf8(s), "Host string");
  ASSERT_EQ(DL(Path("full")), kErrNone);
  EXPECT_EQ(RMGetString(20002, &s, 100), 11);  // the host's, ahead of the module's "Zwei"
  EXPECT_EQ(RMGetString(20001, &s, 100), 31);
  EXPECT_EQ(Utf8(s), "First string of the full module");
  EXPECT_EQ(RMGetString(20001, &s, 6), 5);
  EXPECT_EQ(Utf8(s), "First");
  EXPECT_EQ(RMGetString(20001, &s, 1), 0);
  EXPECT_EQ(RMGetString(20001, nullptr, 100), 0);
  EXPECT_EQ(RMGetString(20003, &s, 100), 0);
  EXPECT_TRUE(s.IsEmpty());
}

std::string Contents(TMemory& m) {
  return std::string(reinterpret_cast<const char*>(m.MemPtr()), m.GetSize());
}

TEST_F(ResmgrTest, RawResourcesAndTheirCache) {
  TMemory block;
  EXPECT_EQ(RMGetRawResource(&block, 20010, -1), kErrNone);
  EXPECT_EQ(Contents(block), "host raw");
  ASSERT_EQ(DL(Path("full")), kErrNone);
  ASSERT_EQ(DL(Path("touch")), kErrNone);
  EXPECT_EQ(RMGetRawResource(&block, 20011, 300), kErrNone);
  EXPECT_EQ(Contents(block), "custom type");
  EXPECT_EQ(RMGetRawResource(&block, 20012, 10), kErrNone);
  EXPECT_EQ(Contents(block), std::string("\x00\x01\x02\x03\xFE\xFFraw file bytes", 20));
  EXPECT_EQ(RMGetRawResource(&block, 20010, 10), kErrNone);  // still the host's
  EXPECT_EQ(Contents(block), "host raw");

  // A repeated request comes from the cache: no resource is loaded for it.
  UFailCall(UCall::kLoadResource, 1, 1812, -1);
  TMemory again;
  EXPECT_EQ(RMGetRawResource(&again, 20010, -1), kErrNone);
  EXPECT_EQ(Contents(again), "host raw");
  EXPECT_EQ(RMGetRawResource(&again, 20110, -1), MapWindowsError(1812));
  UClearFaults();
  EXPECT_EQ(RMGetRawResource(&again, 20110, -1), kErrNone);
  EXPECT_EQ(Contents(again), "touch raw");

  // Unloading the module that holds the cached resource empties the cache.
  Unload(Path("touch"));
  ClearRecords();
  EXPECT_EQ(RMGetRawResource(&again, 20110, -1), kErrResourceNameNotFound);
  EXPECT_EQ(Contents(again), "touch raw");  // a failed request leaves the block alone
  ASSERT_FALSE(Lines().empty());
  EXPECT_EQ(Lines()[0],
            (LogLine{519, "", "MapError: mapped Windows error 1,814 to " + kHostFallback}));
  EXPECT_EQ(RMGetRawResource(nullptr, 20010, -1), kErrBadParameter);
}

TEST_F(ResmgrTest, IconSizesFollowTheDisplayScale) {
  int w = 0;
  int h = 0;
  EXPECT_EQ(RMGetDefaultIconSize(20020, &w, &h), 0);
  EXPECT_EQ(w * 100 + h, 1616);
  ASSERT_EQ(DL(Path("full")), kErrNone);
  EXPECT_EQ(RMGetDefaultIconSize(20020, &w, &h), 1);
  EXPECT_EQ(w, 16);
  EXPECT_EQ(RMGetDefaultIconSize(20021, &w, &h), 0);
  // Group entries are 32, 16, 48 and 24 pixels, in that order.
  for (auto [scale, best] :
       {std::pair{1000, 16}, {1250, 16}, {1500, 24}, {2000, 32}, {3000, 48}, {500, 16}}) {
    SCOPED_TRACE(scale);
    SetGlobalScaleFactor(scale);
    EXPECT_EQ(RMGetBestScaledIconSize(20020, &w, &h), 1);
    EXPECT_EQ(w, best);
    EXPECT_EQ(h, best);
  }
  EXPECT_EQ(RMGetBestScaledIconSize(20021, &w, &h), 0);
  SetGlobalScaleFactor(1500);
  EXPECT_EQ(GlobalScale(16), 24);
  EXPECT_EQ(GlobalScale(-3), -5);
  SetGlobalScaleFactor(0);  // ignored
  EXPECT_EQ(GetGlobalScaleFactor(), 1500);
}

// An image's kind, width, height, hot spot, size, the first byte of its
// header and the first byte past it.
std::vector<long> Fields(const RMImage* i) {
  if (i == nullptr) return {};
  return {i->kind, i->width, i->height, i->hotX, i->hotY, i->size, i->bytes[0], i->bytes[40]};
}

// The icon image of the size chosen: each test image is a 40-byte header and
// eight bytes holding its size.
TEST_F(ResmgrTest, IconsCursorsAndBitmaps) {
  ASSERT_EQ(DL(Path("full")), kErrNone);
  const struct {
    int scale;
    int scaled;
    int best;
    int size;   // reported
    int image;  // taken
  } rows[] = {
      {1000, 1, 1, 16, 16}, {1500, 1, 0, 24, 24}, {1500, 0, 1, 24, 24}, {1250, 1, 0, 20, 24},
      {1250, 0, 1, 16, 16}, {2000, 0, 0, 16, 16}, {4000, 1, 0, 64, 48},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.scale) + " " + std::to_string(row.scaled) +
                 std::to_string(row.best));
    SetGlobalScaleFactor(row.scale);
    TPoint size{0, 0};
    int shared = -1;
    const RMImage* icon = RMGetIcon(20020, 0, row.scaled, row.best, &size, &shared);
    ASSERT_NE(icon, nullptr);
    EXPECT_EQ(size.x * 1000 + size.y * 10 + shared, row.size * 1010);
    // The header's width is the image's; the fill byte reads as its size
    // written in hexadecimal digits (0x16 for 16).
    EXPECT_EQ(Fields(icon), (std::vector<long>{kRMImageIcon, row.size, row.size, 0, 0, 48, 40,
                                               std::stoi(std::to_string(row.image), nullptr, 16)}));
    EXPECT_EQ(icon->bytes[4], row.image);
    RMDestroyImage(icon);
  }
  SetGlobalScaleFactor(1000);
  // Shared icons: one handle per resource and size.
  int shared = 0;
  const RMImage* a = RMGetIcon(20020, kRMLoadShared, 0, 0, nullptr, &shared);
  EXPECT_EQ(shared, 1);
  EXPECT_EQ(RMGetIcon(20020, kRMLoadShared, 0, 0, nullptr, nullptr), a);
  RMDestroyImage(a);  // ignored
  EXPECT_EQ(RMGetIcon(20021, 0, 0, 0, nullptr, nullptr), nullptr);
  // The system icons: shared, 32 pixels, no bytes of their own.
  for (auto [id, system] : {std::pair{16001, 32513}, {16002, 32515}, {16003, 32516}}) {
    TPoint size{0, 0};
    const RMImage* s = RMGetIcon(id, 0, 0, 0, &size, &shared);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(std::vector<long>({s->id, shared, size.x, s->bytes == nullptr}),
              std::vector<long>({system, 1, 32, 1}));
  }
  TString name(u"appicon"), nobody(u"nobody"), logo(u"LOGO");
  const RMImage* named = RMGetNamedIcon(&name, 0);
  EXPECT_EQ(Fields(named), (std::vector<long>{kRMImageIcon, 16, 16, 0, 0, 48, 40, 0x16}));
  RMDestroyImage(named);
  EXPECT_EQ(RMGetNamedIcon(&nobody, 0), nullptr);

  const RMImage* bitmap = RMGetBitmap(20030);
  EXPECT_EQ(Fields(bitmap), (std::vector<long>{kRMImageBitmap, 3, 2, 0, 0, 64, 40, 0}));
  EXPECT_EQ(RMGetBitmap(20030), bitmap);
  EXPECT_EQ(Fields(RMGetNamedBitmap(&logo)), Fields(bitmap));
  EXPECT_EQ(RMGetBitmap(20031), nullptr);
  EXPECT_EQ(Fields(RMGetCursor(20040)),
            (std::vector<long>{kRMImageCursor, 32, 32, 5, 7, 48, 40, 0xC2}));
  EXPECT_EQ(RMGetCursor(20041), nullptr);

  // Unloading the module takes its shared images with it.
  Unload(Path("full"));
  EXPECT_EQ(RMGetBitmap(20030), nullptr);
  EXPECT_EQ(RMGetCursor(20040), nullptr);
}

// Formatting and list lookups on several threads while a module is loaded
// and unloaded again and again: every answer is one of the two states'.
TEST_F(ResmgrTest, ThreadsFormatWhileModulesLoadAndUnload) {
  ASSERT_EQ(DL(Path("full")), kErrNone);
  std::atomic<bool> stop{false};
  std::atomic<int> wrong{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t) {
    readers.emplace_back([&] {
      TMemory block;
      while (!stop.load()) {
        const std::string e = ErrorText(-3101);
        if (e != "Touch module error one" && e != kHostFallback) ++wrong;
        const std::string who = Load(23000, Key("Who?"));
        if (who != "touch" && who != "full") ++wrong;
        if (ErrorText(-3007) != "Full module error seven") ++wrong;
        const int raw = RMGetRawResource(&block, 20110, -1);
        if (raw == kErrNone && Contents(block) != "touch raw") ++wrong;
      }
    });
  }
  for (int i = 0; i < 40; ++i) {
    EXPECT_EQ(DL(Path("touch")), kErrNone);
    Unload(Path("touch"));
  }
  stop = true;
  for (auto& t : readers) t.join();
  EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
