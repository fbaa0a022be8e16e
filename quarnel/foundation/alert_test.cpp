#include "quarnel/foundation/alert.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/memutil.h"
#include "quarnel/platform/debugger.h"
#include "quarnel/platform/msgbox.h"
#include "quarnel/platform/threadid.h"
#include "quarnel/platform/vmem.h"
#include "tests/support/helpers.h"

namespace {

struct BoxSeen {
  std::string text;
  std::string title;
  unsigned style;
};

std::vector<BoxSeen> g_boxes;
int g_button = kIdOk;

int Responder(const char16_t* text, const char16_t* title, unsigned style) {
  g_boxes.push_back({Utf8(std::u16string(text)), Utf8(std::u16string(title)), style});
  return g_button;
}

// What a hook saw: the slot, the style, the format and the argument words.
struct HookCall {
  int slot;
  int style;
  std::string format;
  std::vector<long long> words;
};
std::vector<HookCall> g_calls;

std::vector<long long> Words(const Args* args) {
  std::vector<long long> out;
  for (int i = 0; args && i < args->count; ++i)
    out.push_back(static_cast<long long>(args->items[i].i));
  return out;
}

std::string Text(const TString* s) { return s ? Utf8(*s) : std::string("(null)"); }

// The hook calls seen, as "slot style format words..." separated by "; ".
std::string Calls() {
  std::string out;
  for (const HookCall& c : g_calls) {
    out += (out.empty() ? "" : "; ") + std::to_string(c.slot) + " " + std::to_string(c.style) +
           " " + c.format;
    for (long long w : c.words) out += " " + std::to_string(w);
  }
  return out;
}

// Hooks that record their call as slot `kSlot` and answer `kAnswer`.
template <int kSlot>
int Plain(const TString* format, const Args* args) {
  g_calls.push_back({kSlot, -1, Text(format), Words(args)});
  return 0;
}
template <int kSlot, int kAnswer>
int Styled(int style, const TString* format, const Args* args) {
  g_calls.push_back({kSlot, style, Text(format), Words(args)});
  return kAnswer;
}

class AlertTest : public RecordingTest {
 protected:
  void SetUp() override {
    RecordingTest::SetUp();
    g_boxes.clear();
    g_calls.clear();
    g_button = kIdOk;
    USetMessageBoxResponder(Responder);
  }
  void TearDown() override {
    for (int i = 0; i < 2; ++i) HookAlertf(i, nullptr);
    for (int i = 0; i < 4; ++i) HookQueryf(i, nullptr);
    HookAlertParse(nullptr);
    HookSuspendOtherThreads(nullptr);
    HookTriggerScript(nullptr);
    HookAssembleScriptArgs(nullptr);
    HookProcessScriptErr(nullptr);
    HookGetThreadCount(nullptr);
    HookEnumThreads(nullptr);
    HookDebugLogGet(nullptr);
    HookDebugLogSet(nullptr);
    HookDebugLogTest(nullptr);
    HookUserTextOutW(nullptr);
    USetMessageBoxResponder(nullptr);
    RecordingTest::TearDown();
  }
};

std::vector<std::intptr_t> g_settings;

template <int kAnswer>
int NoteSetting(std::intptr_t value) {
  g_settings.push_back(value);
  return kAnswer;
}

TEST_F(AlertTest, DefaultsWithoutHooksAndTheLogSettingHooks) {
  TString s(u"script");
  EXPECT_EQ(GetThreadCount(), 1);
  EXPECT_EQ(TriggerScript(&s, &s, &s, &s, 1, 2), 0);
  EXPECT_EQ(AssembleScriptArgs(&s, &s, &s, &s), 0);
  EXPECT_EQ(ProcessScriptErr(1, 2, &s, &s, &s, 3, &s, &s), 0);
  SuspendOtherThreads();
  EXPECT_EQ(DebugLogGet(7), 0);
  EXPECT_EQ(DebugLogTest(514), 0);
  DebugLogSet(1);
  EXPECT_EQ(UserTextOutW(), nullptr);
  EXPECT_EQ(StackOverflow(), 0);

  // Without a log hook the library's lines go nowhere.
  HookDebugLogfChar(nullptr);
  EXPECT_EQ(DebugLogf(kLogPlatform, "MemPack: HeapValidate failed"), 0);
  HookDebugLogf(nullptr);
  const TString wide(u"wide %d");
  EXPECT_EQ(DebugLogf(kLogPlatform, &wide, 3), 0);
  EXPECT_EQ(Logged() + Asserted(), "");
  EXPECT_TRUE(g_boxes.empty());

  // The log setting hooks get their argument as it is.
  HookDebugLogGet(NoteSetting<11>);
  HookDebugLogSet(NoteSetting<12>);
  HookDebugLogTest(NoteSetting<13>);
  g_settings.clear();
  const std::intptr_t big = static_cast<std::intptr_t>(0x123456789ABCLL);
  EXPECT_EQ(DebugLogGet(big), 11);
  DebugLogSet(-5);
  EXPECT_EQ(DebugLogTest(519), 13);
  EXPECT_EQ(g_settings, (std::vector<std::intptr_t>{big, -5, 519}));
}

TEST_F(AlertTest, PrefixesAndStyleWordsOfTheCaseFile) {
  for (const auto& r : ReadTsv("alert.tsv")) {
    SCOPED_TRACE(r[0] + " " + r[1]);
    g_boxes.clear();
    const unsigned style = static_cast<unsigned>(std::stoul(r[2], nullptr, 16));
    const TString format(Utf16(r[0] == "P" ? r[1] : "*Question").c_str());
    if (r[0] == "P") {
      Alertf(&format);
      TString parsed(format);
      EXPECT_EQ(AlertParse(&parsed), static_cast<int>(style));
      EXPECT_EQ(Utf8(parsed), r[3]);
    } else {
      const int word = std::stoi(r[1], nullptr, 16);
      EXPECT_EQ(quarnel_internal::AlertButtonStyle(word), style);
      Queryf(word, &format);
    }
    ASSERT_EQ(g_boxes.size(), 1u);
    EXPECT_EQ(g_boxes[0].text, r[0] == "P" ? r[3] : "Question");
    EXPECT_EQ(g_boxes[0].style, style | (r[0] == "P" ? 0u : 0x40u) | 0x50000u);
  }
  EXPECT_EQ(Asserted(), "");

  // A text that ends inside the tag asserts; all of it is the prefix.
  TString open(u"!/a/b/c/d");
  EXPECT_EQ(AlertParse(&open), 0x30);
  EXPECT_EQ(Utf8(open), "");
  EXPECT_EQ(Asserted(), "alert-452");
}

TEST_F(AlertTest, ButtonsMapToAnswers) {
  struct Row {
    int button;
    int answer;
  };
  const Row rows[] = {{kIdOk, kAnswerOk},       {kIdCancel, kAnswerYes},    {kIdAbort, kAnswerYes},
                      {kIdRetry, kAnswerRetry}, {kIdIgnore, kAnswerIgnore}, {kIdYes, kAnswerYes},
                      {kIdNo, kAnswerNo}};
  const TString format(u"Go on?");
  for (const Row& row : rows) {
    SCOPED_TRACE(row.button);
    g_button = row.button;
    EXPECT_EQ(Queryf(0x0102, &format), row.answer);
    EXPECT_EQ(DefaultQueryf(0x0102, &format, nullptr), row.answer);
    EXPECT_EQ(DefaultAlertf(&format, nullptr), row.answer);
  }
  // Yes/no, "no" pressed.
  g_boxes.clear();
  g_button = kIdNo;
  EXPECT_EQ(Queryf(0x0202, &format), -1202);
  ASSERT_EQ(g_boxes.size(), 1u);
  EXPECT_EQ(g_boxes[0].style & 0xF, kMbYesNo);
  EXPECT_EQ(g_boxes[0].text, "Go on?");
}

TEST_F(AlertTest, HeadlessBoxAnswersTheDefaultButton) {
  struct Row {
    unsigned style;
    int button;
  };
  const Row rows[] = {{kMbOk, kIdOk},
                      {kMbOk | kMbDefButton2, kIdOk},  // beyond the set: the first button
                      {kMbOkCancel | kMbDefButton2, kIdCancel},
                      {kMbAbortRetryIgnore | kMbDefButton3, kIdIgnore},
                      {kMbYesNoCancel, kIdYes},
                      {kMbYesNoCancel | kMbDefButton3, kIdCancel},
                      {kMbYesNo | kMbDefButton2, kIdNo},
                      {kMbRetryCancel, kIdRetry},
                      {kMbYesNo | kMbDefButton4, kIdYes}};
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << std::hex << row.style);
    EXPECT_EQ(UMessageBoxDefaultButton(row.style), row.button);
  }
  // Without a responder the box writes to standard error and answers the
  // default: yes/no with the second button as default gives "no".
  if (kOnWindows) GTEST_SKIP() << "Linux only: the headless box (Windows shows the system's)";
  USetMessageBoxResponder(nullptr);
  const TString format(u"?Overwrite %d files");
  testing::internal::CaptureStderr();
  const int answer = Queryf(0x0222, &format, 3);
  const std::string shown = testing::internal::GetCapturedStderr();
  EXPECT_EQ(answer, kAnswerNo);
  EXPECT_NE(shown.find("Question: Overwrite 3 files\n"), std::string::npos) << shown;
}

TEST_F(AlertTest, AlertHooksReceiveFormatStyleAndArguments) {
  HookAlertf(0, Plain<0>);
  HookAlertf(1, Styled<1, 0>);
  const TString format(u"!%d of %d");
  Alertf(&format, 3, 4);
  Alertf(0x30, &format, 5);
  const TArg items[] = {quarnel_args::MakeArg(9)};
  Args list{items, 1};
  Alertf(&format, &list);
  Alertf(0x102, &format, static_cast<const Args*>(&list));
  // The hook gets the prefix as it is.
  EXPECT_EQ(Calls(), "0 -1 !%d of %d 3 4; 1 48 !%d of %d 5; 0 -1 !%d of %d 9; 1 258 !%d of %d 9");
  EXPECT_TRUE(g_boxes.empty());

  // A hook of the other kind is adapted to its slot.
  g_calls.clear();
  HookAlertf(0, Styled<10, 0>);
  HookAlertf(1, Plain<11>);
  Alertf(&format, 1);
  Alertf(0x200, &format, 2);
  EXPECT_EQ(Calls(), "10 0 !%d of %d 1; 11 -1 !%d of %d 2");

  // Null restores the default box, which formats at most ten words: an
  // eleventh conversion has no argument and prints as 0.
  HookAlertf(0, nullptr);
  HookAlertf(1, nullptr);
  const TString eleven(u"!%d %d %d %d %d %d %d %d %d %d %d");
  Alertf(&eleven, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11);
  Alertf(0x202, &format, 1, 2);
  ASSERT_EQ(g_boxes.size(), 2u);
  EXPECT_EQ(g_boxes[0].text, "1 2 3 4 5 6 7 8 9 10 0");
  EXPECT_EQ(g_boxes[1].text, "1 of 2");
  EXPECT_EQ(g_boxes[0].style, 0x30u | 0x50000u);
  EXPECT_EQ(g_boxes[1].style, kMbYesNo | 0x30u | 0x50000u);
  EXPECT_TRUE(Assertions().empty());
}

// Two alert slots and four query slots; any other index asserts, once for
// the hook and once for taking it away.
TEST_F(AlertTest, HookIndexOutOfRangeAsserts) {
  const std::string alert = "alert-45 alert-45", both = alert + " alert-58 alert-58";
  const std::pair<int, std::string> rows[] = {{-1, both}, {0, ""},   {1, ""},        {2, alert},
                                              {3, alert}, {4, both}, {1 << 30, both}};
  for (const auto& [index, expected] : rows) {
    SCOPED_TRACE(index);
    ClearRecords();
    HookAlertf(index, [](const TString*, const Args*) { return 0; });
    HookAlertf(index, nullptr);
    HookQueryf(index, [](int, const TString*, const Args*) { return 0; });
    HookQueryf(index, nullptr);
    EXPECT_EQ(Asserted(), expected);
  }
}

TEST_F(AlertTest, InputQueriesWithoutHookSayNoUi) {
  unsigned choice = 0;
  TString choices(u"a|b");
  TString text;
  const TString format(u"Pick %d");
  TDate* date = nullptr;
  const Args none{};
  EXPECT_EQ(Queryf(0, &choice, &choices, &format, 1), -1203);
  EXPECT_EQ(Queryf(0, &choice, &choices, &format, &none), -1203);
  EXPECT_EQ(Queryf(0, 40u, &text, &format, 1), -1203);
  EXPECT_EQ(Queryf(0, 40u, &text, &format, &none), -1203);
  EXPECT_EQ(Queryf(0, date, &format, 1), -1203);
  EXPECT_EQ(Queryf(0, date, &format, &none), -1203);
  // A hook of another kind in a slot leaves the query at its default.
  HookQueryf(0, [](int, unsigned, TString*, const TString*, const Args*) { return 1; });
  EXPECT_EQ(Queryf(0, &choice, &choices, &format, 1), -1203);
  EXPECT_EQ(Logged(),
            "515 Queryf(choose...): no UI available\n515 Queryf(choose): no UI available\n"
            "515 Queryf(text...): no UI available\n515 Queryf(text): no UI available\n"
            "515 Queryf(date...): no UI available\n515 Queryf(date): no UI available\n"
            "515 Queryf(choose...): no UI available\n");
  EXPECT_TRUE(g_boxes.empty());
}

TEST_F(AlertTest, InputQueryHooksGetTheirArguments) {
  HookQueryf(0, [](int style, unsigned* choice, TString* choices, const TString* f, const Args* a) {
    *choice = 2;
    g_calls.push_back({0, style, Text(choices) + "|" + Text(f), Words(a)});
    return 0;
  });
  HookQueryf(1, [](int style, unsigned max, TString* text, const TString* f, const Args* a) {
    *text = u"typed";
    g_calls.push_back({1, style, std::to_string(max) + "|" + Text(f), Words(a)});
    return -1201;
  });
  HookQueryf(2, [](int style, TDate* date, const TString* f, const Args* a) {
    g_calls.push_back({2, style, (date ? "date|" : "null|") + Text(f), Words(a)});
    return -1202;
  });
  HookQueryf(3, Styled<3, -1206>);
  unsigned choice = 0;
  TString choices(u"x|y|z");
  TString text;
  const TString format(u"Q");
  EXPECT_EQ(Queryf(7, &choice, &choices, &format, 1, 2), 0);
  EXPECT_EQ(choice, 2u);
  EXPECT_EQ(Queryf(8, 40u, &text, &format), -1201);
  EXPECT_EQ(Utf8(text), "typed");
  EXPECT_EQ(Queryf(9, static_cast<TDate*>(nullptr), &format, 5), -1202);
  EXPECT_EQ(Queryf(0x102, &format, 6), -1206);
  EXPECT_EQ(Calls(), "0 7 x|y|z|Q 1 2; 1 8 40|Q; 2 9 null|Q 5; 3 258 Q 6");
  EXPECT_TRUE(Lines().empty());
  EXPECT_TRUE(g_boxes.empty());
}

TEST_F(AlertTest, ScriptAndThreadHooks) {
  HookTriggerScript([](TString* a, TString* b, TString*, TString* d, const Args* w) {
    g_calls.push_back({0, 0, Text(a) + Text(b) + Text(d), Words(w)});
    return 21;
  });
  HookAssembleScriptArgs([](TString* a, TString*, TString*, TString*, const Args* w) {
    g_calls.push_back({1, 0, Text(a), Words(w)});
    return 22;
  });
  HookProcessScriptErr(
      [](int a, int b, TString* c, TString* d, TString* e, int f, TString* g, TString* h) {
        g_calls.push_back({2, a + b + f, Text(c) + Text(d) + Text(e) + Text(g) + Text(h), {}});
        return 23;
      });
  HookGetThreadCount([] { return 5; });
  static int suspended = 0;
  HookSuspendOtherThreads([] { return ++suspended; });
  TString a(u"a"), b(u"b"), c(u"c"), d(u"d");
  EXPECT_EQ(TriggerScript(&a, &b, &c, &d, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12), 21);
  EXPECT_EQ(AssembleScriptArgs(&a, &b, &c, &d, -1), 22);
  EXPECT_EQ(ProcessScriptErr(1, 10, &a, &b, &c, 100, &d, nullptr), 23);
  EXPECT_EQ(GetThreadCount(), 5);
  SuspendOtherThreads();
  EXPECT_EQ(suspended, 1);
  // Ten words at most.
  EXPECT_EQ(Calls(), "0 0 abd 1 2 3 4 5 6 7 8 9 10; 1 0 a -1; 2 111 abcd(null)");
  HookGetThreadCount(nullptr);
  EXPECT_EQ(GetThreadCount(), 1);
}

TEST_F(AlertTest, ThreadHooksDefaultToTheCallingThread) {
  TThdDescriptor mine;
  mine.name = u"stale";
  mine.threadId = 12345;
  EXPECT_EQ(EnumThreads(0, &mine), 1);
  EXPECT_EQ(mine.name.Length(), 0);
  EXPECT_EQ(mine.threadId, UGetCurrentThreadId());
  EXPECT_NE(mine.threadId, 0u);
  EXPECT_EQ(mine.handle, UGetCurrentThread());

  TThdDescriptor other;
  std::thread([&] { EnumThreads(3, &other); }).join();
  EXPECT_NE(other.threadId, mine.threadId);
  EXPECT_NE(other.threadId, 0u);

  HookEnumThreads([](int index, TThdDescriptor* t) {
    t->name = u"worker";
    t->threadId = static_cast<unsigned>(index);
    return 0;
  });
  EXPECT_EQ(EnumThreads(4, &mine), 0);
  EXPECT_EQ(Utf8(mine.name), "worker");
  EXPECT_EQ(mine.threadId, 4u);

  // The text-out hook is the calling thread's own.
  UserTextOutWProc proc = [](void*, int, int, const char16_t*, int) { return 1; };
  HookUserTextOutW(proc);
  EXPECT_EQ(UserTextOutW(), proc);
  UserTextOutWProc seen = proc;
  std::thread([&] { seen = UserTextOutW(); }).join();
  EXPECT_EQ(seen, nullptr);
  HookUserTextOutW(nullptr);
  EXPECT_EQ(UserTextOutW(), nullptr);
}

TEST_F(AlertTest, AssertionMessages) {
  Debug("C:\\src\\quarnel\\foundation\\memutil", 995);
  EXPECT_EQ(DebuggerOutput(), "Assertion failure at \"memutil-995\"\n");
  ASSERT_EQ(Assertions().size(), 1u);
  EXPECT_EQ(Assertions()[0], (AssertionSeen{"memutil", 995, ""}));
  EXPECT_EQ(Assertions()[0].message, "Assertion failure at \"memutil-995\"\n");

  // Only the backslash separates folders.
  ClearRecords();
  Debug("lib/alert", 3);
  EXPECT_EQ(DebuggerOutput(), "Assertion failure at \"lib/alert-3\"\n");

  ClearRecords();
  const TString why(u"index 9 of 4");
  Debug("x\\tstring", 77, &why);
  EXPECT_EQ(DebuggerOutput(), "Assertion failure at \"tstring-77\"");
  ASSERT_EQ(Assertions().size(), 1u);
  EXPECT_EQ(Assertions()[0].message, "Assertion failure at \"tstring-77\", index 9 of 4");

  // The full message is cut to 2048 bytes.
  ClearRecords();
  TString longText;
  longText.Fill(u'z', 5000);
  Debug("tstring", 1, &longText);
  ASSERT_EQ(Assertions().size(), 1u);
  const std::string& m = Assertions()[0].message;
  EXPECT_EQ(m.size(), 2048u);
  EXPECT_EQ(m.rfind("Assertion failure at \"tstring-1\", zzz", 0), 0u);
  EXPECT_EQ(m.back(), 'z');
}

TEST_F(AlertTest, DebuggerCalls) {
  const int breaks = UDebugBreakCount();
  DebuggerBreak();
  EXPECT_EQ(UDebugBreakCount(), breaks + 1);
  if (!UIsDebuggerPresent()) {
    EXPECT_EQ(DebuggerOutput(), "DebugBreak: no debugger attached\n");
  }

  ClearRecords();
  const TString text(u"checkpoint 7\n");
  DebuggerString(&text);
  DebuggerString(nullptr);
  EXPECT_EQ(DebuggerOutput(), "checkpoint 7\n");

  const TString fatal(u"The store is damaged");
  FatalAlert(&fatal);
  ASSERT_EQ(g_boxes.size(), 1u);
  EXPECT_EQ(g_boxes[0].text, "The store is damaged");
  EXPECT_EQ(g_boxes[0].style, 0x10030u);
}

TEST_F(AlertTest, IsPtrValidProbesWithoutFaulting) {
  const std::size_t page = UVirtualPageSize();
  int local = 0;
  void* heap = MemAlloc(64);
  char* rw = static_cast<char*>(
      UVirtualAlloc(nullptr, 2 * page, kMemReserve | kMemCommit, kPageReadWrite));
  ASSERT_NE(rw, nullptr);
  ASSERT_EQ(UVirtualFree(rw + page, page, kMemDecommit),
            1);  // the second page is inaccessible again
  char* ro =
      static_cast<char*>(UVirtualAlloc(nullptr, page, kMemReserve | kMemCommit, kPageReadOnly));
  ASSERT_NE(ro, nullptr);
  char* gone = static_cast<char*>(UVirtualAlloc(nullptr, page, kMemReserve, kPageNoAccess));
  ASSERT_NE(gone, nullptr);
  ASSERT_EQ(UVirtualFree(gone, 0, kMemRelease), 1);

  struct Row {
    const char* name;
    void* p;
    int size;
    int valid;
  };
  const Row rows[] = {{"null", nullptr, 4, 0},
                      {"null, size -1", nullptr, -1, 0},
                      {"stack", &local, static_cast<int>(sizeof local), 1},
                      {"heap block", heap, 64, 1},
                      {"size -1 is 4", heap, -1, 1},
                      {"read/write page", rw, static_cast<int>(page), 1},
                      {"running into a decommitted page", rw + page - 4, 8, 0},
                      {"last 4 bytes before it", rw + page - 4, -1, 1},
                      {"decommitted page", rw + page, 1, 0},
                      {"read-only page", ro, 4, 0},
                      {"unmapped page", gone, 4, 0},
                      {"size 0", ro, 0, 1}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(IsPtrValid(row.p, row.size), row.valid);
  }
  MemFree(heap);
  UVirtualFree(rw, 0, kMemRelease);
  UVirtualFree(ro, 0, kMemRelease);
}

}  // namespace
