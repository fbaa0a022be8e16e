#include "quarnel/config/tkeyedfile.h"

#include <gtest/gtest.h>

#include "quarnel/platform/env.h"
#include "tests/support/drive_fixture.h"

namespace {

class KeyedFileTest : public DriveTest {
 protected:
  const TFolderLoc folder_ = FolderAt(u"C:\\devices");
  void SetUp() override {
    DriveTest::SetUp();
    MakeHostFolder(Host(u"C:\\devices"));
  }
  std::string Text(const char16_t* name) {
    return ReadHost(Host(std::u16string(u"C:\\devices\\") + name));
  }
};

TEST_F(KeyedFileTest, NewFileTakesTheFirstFreeDeviceNumber) {
  TKeyedFile kf;
  const TString key(u"Name");
  for (const char* want : {"device00.rdi", "device01.rdi", "device02.rdi", "device01.rdi"}) {
    kf.SetFile(&folder_);
    TFileLoc loc;
    TString name;
    kf.GetFileLoc(&loc);
    loc.GetName(&name);
    EXPECT_EQ(Utf8(name), want);
    EXPECT_FALSE(kf.Exists());
    kf.SetKey(&key, &name);
    kf.SetFile(&folder_, 1);
    if (Utf8(name) == "device02.rdi") kf.Delete(0);  // number 1 is free again
  }
  EXPECT_EQ(Text(u"device00.rdi"), "[Default]\r\nName=device00.rdi\r\n");
}

TEST_F(KeyedFileTest, NumbersAndDatesReadBackAsWritten) {
  TKeyedFile kf;
  kf.SetFile(&folder_, TString(u"unit.rdi"));
  const TString number(u"Number"), date(u"Date"), missing(u"Missing");
  const TDate when(2024, 3, 5, 14, 7, 9, 0);
  kf.SetKey(&date, &when);
  for (unsigned n : {0u, 4294967295u, 255u}) {
    kf.SetKey(&number, &n);
    unsigned back = 1;
    kf.GetKey(&number, &back);
    EXPECT_EQ(back, n);
  }
  TString text, shown;
  shown.SPrintf(u"%D", &when);
  EXPECT_EQ(Text(u"unit.rdi"), "[Default]\r\nDate=" + Utf8(shown) + "\r\nNumber=0xff\r\n");
  kf.GetKey(&date, &text);
  EXPECT_EQ(Utf8(text), Utf8(shown));
  unsigned none = 7;
  kf.GetKey(&missing, &none);
  kf.GetKey(&missing, &text);
  EXPECT_EQ(none, 0u);
  EXPECT_TRUE(text.IsEmpty());
}

TEST_F(KeyedFileTest, NumberedSectionsCountToTheFirstGapAndWritesStayInDefault) {
  WriteHost(Host(u"C:\\devices\\multi.rdi"),
            "[Device00]\r\nName=zero\r\n[Device01]\r\nName=one\r\n[Device03]\r\nName=three\r\n");
  TKeyedFile kf;
  kf.SetFile(&folder_, TString(u"multi.rdi"));
  const TString name(u"Name");
  EXPECT_EQ(kf.isMultiSec(&name), 1);
  EXPECT_EQ(kf.CountSections(&name), 2);
  TString value;
  kf.SetSection(1);
  kf.GetKey(&name, &value);
  EXPECT_EQ(Utf8(value), "one");
  const TString dflt(u"default");
  kf.SetKey(&name, &dflt);
  kf.GetKey(&name, &value);
  EXPECT_EQ(Utf8(value), "one") << "written to Default, read from Device01";
  EXPECT_EQ(kf.isMultiSec(&name), 0);
  kf.GetKey(&name, &value);
  EXPECT_EQ(Utf8(value), "default");
  EXPECT_EQ(kf.CountSections(&name), 2) << "counting sets the flag again";
}

}  // namespace
