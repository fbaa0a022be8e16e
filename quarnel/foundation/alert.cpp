#include "quarnel/foundation/alert.h"

#include <atomic>
#include <cstring>
#include <string>

#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/platform/debugger.h"
#include "quarnel/platform/debugout.h"
#include "quarnel/platform/msgbox.h"
#include "quarnel/platform/ptrcheck.h"
#include "quarnel/platform/threadid.h"

namespace {

// Hook slots with an index: HookAlertf and HookQueryf store at the index they
// are given even when it is out of range (after the assertion). The table has
// room for 16 so that such a store lands in the table; a larger or negative
// index is dropped.
constexpr int kSlotRoom = 16;

enum class SlotKind : int { kEmpty, kAlert, kAlertStyle, kChoose, kText, kDate, kQuery };

using AnyProc = void (*)();

struct Slot {
  std::atomic<SlotKind> kind{SlotKind::kEmpty};
  std::atomic<AnyProc> proc{nullptr};
};

Slot g_alertSlots[kSlotRoom];
Slot g_querySlots[kSlotRoom];

std::atomic<AlertParseProc> g_alertParse{nullptr};
std::atomic<SuspendOtherThreadsProc> g_suspend{nullptr};
std::atomic<TriggerScriptProc> g_trigger{nullptr};
std::atomic<AssembleScriptArgsProc> g_assemble{nullptr};
std::atomic<ProcessScriptErrProc> g_scriptErr{nullptr};
std::atomic<GetThreadCountProc> g_threadCount{nullptr};
std::atomic<EnumThreadsProc> g_enumThreads{nullptr};
thread_local UserTextOutWProc t_textOut = nullptr;

constexpr int kAlertSlots = 2;
constexpr int kQuerySlots = 4;
constexpr int kLineAlertIndex = 45;
constexpr int kLineQueryIndex = 58;
constexpr int kLineTagUnterminated = 452;

constexpr unsigned kFatalStyle = 0x10030;  // exclamation icon, set foreground
constexpr unsigned kBoxTopmost = 0x50000;  // topmost, set foreground
constexpr unsigned short kTitleList = 16020;
constexpr unsigned kTitleType = 0x4E616D65;  // 'Name'
constexpr int kMaxArgWords = 10;

void Store(Slot* table, int index, SlotKind kind, AnyProc proc) {
  if (index < 0 || index >= kSlotRoom) return;
  if (proc == nullptr) kind = SlotKind::kEmpty;
  table[index].proc.store(nullptr, std::memory_order_relaxed);
  table[index].kind.store(kind, std::memory_order_relaxed);
  table[index].proc.store(proc, std::memory_order_release);
}

void StoreAlert(int index, SlotKind kind, AnyProc proc) {
  if (index < 0 || index >= kAlertSlots) Debug("alert", kLineAlertIndex);
  Store(g_alertSlots, index, kind, proc);
}

void StoreQuery(int index, SlotKind kind, AnyProc proc) {
  if (index < 0 || index >= kQuerySlots) Debug("alert", kLineQueryIndex);
  Store(g_querySlots, index, kind, proc);
}

// The prefix's length and icon bits; *unterminated when the text ends inside
// a "/" tag (the whole text is then the prefix).
int ParsePrefix(const char16_t* s, int len, int* icon, bool* unterminated) {
  *icon = 0;
  *unterminated = false;
  int i = 0;
  while (i < len) {
    const char16_t c = s[i];
    if (c == u'!' || c == u'+') {
      *icon |= 0x30;
    } else if (c == u'#') {
      *icon |= 0x10;
    } else if (c == u'*') {
      *icon |= 0x40;
    } else if (c == u'?') {
      *icon |= 0x20;
    } else if (c == u'<' || c == u'>') {
    } else if (c == u'/') {
      int fields = 0;
      int j = i + 1;
      while (j < len && fields < 5) {
        if (s[j] == u'/') ++fields;
        ++j;
      }
      if (fields < 5) {
        *unterminated = true;
        return len;
      }
      i = j;
      continue;
    } else {
      break;
    }
    ++i;
  }
  return i;
}

// Strips the prefix from `text`; returns its icon bits.
int StripPrefix(TString* text) {
  int icon;
  bool unterminated;
  const int n = ParsePrefix(text->Text(), text->Length(), &icon, &unterminated);
  if (unterminated) Debug("alert", kLineTagUnterminated);
  if (n > 0) {
    const TString rest(text->Text() + n);
    *text = rest;
  }
  return icon;
}

int AnswerOf(int button) {
  switch (button) {
    case kIdOk:
      return kAnswerOk;
    case kIdRetry:
      return kAnswerRetry;
    case kIdIgnore:
      return kAnswerIgnore;
    case kIdNo:
      return kAnswerNo;
    default:
      return kAnswerYes;
  }
}

Args Capped(const Args* args) {
  Args capped = args ? *args : Args{};
  if (capped.count > kMaxArgWords) capped.count = kMaxArgWords;
  if (capped.count < 0) capped.count = 0;
  return capped;
}

TString LibraryTitle() {
  TString title;
  title.LoadKString(kTitleList, kTitleType);
  return title;
}

int ShowBox(int style, const TString* format, const Args* args) {
  TString text;
  if (format != nullptr) text = *format;
  const int icon = StripPrefix(&text);
  const unsigned boxStyle =
      quarnel_internal::AlertButtonStyle(style) | static_cast<unsigned>(icon) | kBoxTopmost;
  const Args capped = Capped(args);
  TString message;
  message.SPrintf(&text, &capped);
  SplashScreenClose(1);
  const TString title = LibraryTitle();
  return AnswerOf(UMessageBoxW(message.Text(), title.Text(), boxStyle));
}

int CallAlertSlot(int index, int style, const TString* format, const Args* args) {
  Slot& slot = g_alertSlots[index];
  AnyProc proc = slot.proc.load(std::memory_order_acquire);
  SlotKind kind = slot.kind.load(std::memory_order_relaxed);
  if (proc == nullptr) {
    // An empty slot is filled with its default first, so that the defaults
    // are ordinary handlers.
    if (index == 0) {
      kind = SlotKind::kAlert;
      proc = reinterpret_cast<AnyProc>(&DefaultAlertf);
    } else {
      kind = SlotKind::kAlertStyle;
      proc = reinterpret_cast<AnyProc>(&DefaultAlertfStyle);
    }
    Store(g_alertSlots, index, kind, proc);
  }
  if (kind == SlotKind::kAlert) return reinterpret_cast<AlertfProc>(proc)(format, args);
  return reinterpret_cast<AlertfStyleProc>(proc)(index == 0 ? 0 : style, format, args);
}

template <class P>
P QueryHook(int index, SlotKind want) {
  const Slot& slot = g_querySlots[index];
  AnyProc proc = slot.proc.load(std::memory_order_acquire);
  if (proc == nullptr || slot.kind.load(std::memory_order_relaxed) != want) return nullptr;
  return reinterpret_cast<P>(proc);
}

}  // namespace

// ---- Alerts ----

void HookAlertf(int index, AlertfProc proc) {
  StoreAlert(index, SlotKind::kAlert, reinterpret_cast<AnyProc>(proc));
}
void HookAlertf(int index, AlertfStyleProc proc) {
  StoreAlert(index, SlotKind::kAlertStyle, reinterpret_cast<AnyProc>(proc));
}
void HookAlertf(int index, std::nullptr_t) { StoreAlert(index, SlotKind::kEmpty, nullptr); }

int DefaultAlertf(const TString* format, const Args* args) { return ShowBox(0, format, args); }
int DefaultAlertfStyle(int style, const TString* format, const Args* args) {
  return ShowBox(style, format, args);
}

void Alertf(const TString* format, const Args* args) { CallAlertSlot(0, 0, format, args); }
void Alertf(int style, const TString* format, const Args* args) {
  CallAlertSlot(1, style, format, args);
}

void HookAlertParse(AlertParseProc proc) { g_alertParse.store(proc, std::memory_order_release); }

int AlertParse(TString* text) {
  if (AlertParseProc proc = g_alertParse.load(std::memory_order_acquire)) return proc(text);
  if (text == nullptr) return 0;
  return StripPrefix(text);
}

// ---- Queries ----

void HookQueryf(int index, QueryfChooseProc proc) {
  StoreQuery(index, SlotKind::kChoose, reinterpret_cast<AnyProc>(proc));
}
void HookQueryf(int index, QueryfTextProc proc) {
  StoreQuery(index, SlotKind::kText, reinterpret_cast<AnyProc>(proc));
}
void HookQueryf(int index, QueryfDateProc proc) {
  StoreQuery(index, SlotKind::kDate, reinterpret_cast<AnyProc>(proc));
}
void HookQueryf(int index, QueryfProc proc) {
  StoreQuery(index, SlotKind::kQuery, reinterpret_cast<AnyProc>(proc));
}
void HookQueryf(int index, std::nullptr_t) { StoreQuery(index, SlotKind::kEmpty, nullptr); }

int DefaultQueryf(int style, const TString* format, const Args* args) {
  return ShowBox(style, format, args);
}

int Queryf(int style, const TString* format, const Args* args) {
  if (QueryfProc proc = QueryHook<QueryfProc>(3, SlotKind::kQuery))
    return proc(style, format, args);
  return DefaultQueryf(style, format, args);
}

namespace quarnel_internal {

int QueryfChoose(int style, unsigned* choice, TString* choices, const TString* format,
                 const Args* args, bool variadic) {
  if (QueryfChooseProc proc = QueryHook<QueryfChooseProc>(0, SlotKind::kChoose)) {
    return proc(style, choice, choices, format, args);
  }
  if (variadic) {
    DebugLogf(kLogMisuse, "Queryf(choose...): no UI available");
  } else {
    DebugLogf(kLogMisuse, "Queryf(choose): no UI available");
  }
  return kAnswerOk;
}

int QueryfText(int style, unsigned maxLength, TString* text, const TString* format,
               const Args* args, bool variadic) {
  if (QueryfTextProc proc = QueryHook<QueryfTextProc>(1, SlotKind::kText)) {
    return proc(style, maxLength, text, format, args);
  }
  if (variadic) {
    DebugLogf(kLogMisuse, "Queryf(text...): no UI available");
  } else {
    DebugLogf(kLogMisuse, "Queryf(text): no UI available");
  }
  return kAnswerOk;
}

int QueryfDate(int style, TDate* date, const TString* format, const Args* args, bool variadic) {
  if (QueryfDateProc proc = QueryHook<QueryfDateProc>(2, SlotKind::kDate))
    return proc(style, date, format, args);
  if (variadic) {
    DebugLogf(kLogMisuse, "Queryf(date...): no UI available");
  } else {
    DebugLogf(kLogMisuse, "Queryf(date): no UI available");
  }
  return kAnswerOk;
}

unsigned AlertButtonStyle(int style) {
  const unsigned g = (static_cast<unsigned>(style) >> 8) & 0xF;
  const unsigned v = static_cast<unsigned>(style) & 0xF;
  unsigned buttons;
  if (g == 1) {
    buttons = v == 3 ? kMbAbortRetryIgnore : kMbRetryCancel;
  } else if (g == 2 || g == 3) {
    buttons = v == 2 ? kMbYesNo : kMbYesNoCancel;
  } else {
    buttons = v == 2 ? kMbOkCancel : kMbOk;
  }
  switch (static_cast<unsigned>(style) & 0xF0) {
    case 0x20:
      buttons |= kMbDefButton2;
      break;
    case 0x30:
      buttons |= kMbDefButton3;
      break;
    case 0x40:
      buttons |= kMbDefButton4;
      break;
    default:
      break;
  }
  return buttons;
}

}  // namespace quarnel_internal

// ---- Threads and scripts ----

void TThdDescriptor::Reset() {
  name.Clear();
  threadId = 0;
  handle = nullptr;
}

void HookSuspendOtherThreads(SuspendOtherThreadsProc proc) {
  g_suspend.store(proc, std::memory_order_release);
}
void HookTriggerScript(TriggerScriptProc proc) { g_trigger.store(proc, std::memory_order_release); }
void HookAssembleScriptArgs(AssembleScriptArgsProc proc) {
  g_assemble.store(proc, std::memory_order_release);
}
void HookProcessScriptErr(ProcessScriptErrProc proc) {
  g_scriptErr.store(proc, std::memory_order_release);
}
void HookGetThreadCount(GetThreadCountProc proc) {
  g_threadCount.store(proc, std::memory_order_release);
}
void HookEnumThreads(EnumThreadsProc proc) { g_enumThreads.store(proc, std::memory_order_release); }

void SuspendOtherThreads() {
  if (SuspendOtherThreadsProc proc = g_suspend.load(std::memory_order_acquire)) proc();
}

int TriggerScriptArgs(TString* a, TString* b, TString* c, TString* d, const Args* words) {
  TriggerScriptProc proc = g_trigger.load(std::memory_order_acquire);
  if (proc == nullptr) return 0;
  const Args capped = Capped(words);
  return proc(a, b, c, d, &capped);
}

int AssembleScriptArgsArgs(TString* a, TString* b, TString* c, TString* d, const Args* words) {
  AssembleScriptArgsProc proc = g_assemble.load(std::memory_order_acquire);
  if (proc == nullptr) return 0;
  const Args capped = Capped(words);
  return proc(a, b, c, d, &capped);
}

int ProcessScriptErr(int a, int b, TString* c, TString* d, TString* e, int f, TString* g,
                     TString* h) {
  ProcessScriptErrProc proc = g_scriptErr.load(std::memory_order_acquire);
  return proc ? proc(a, b, c, d, e, f, g, h) : 0;
}

int GetThreadCount() {
  GetThreadCountProc proc = g_threadCount.load(std::memory_order_acquire);
  return proc ? proc() : 1;
}

bool quarnel_internal::HasEnumThreadsHook() {
  return g_enumThreads.load(std::memory_order_acquire) != nullptr;
}

int EnumThreads(int index, TThdDescriptor* thread) {
  if (EnumThreadsProc proc = g_enumThreads.load(std::memory_order_acquire))
    return proc(index, thread);
  if (thread == nullptr) return 1;
  thread->Reset();
  thread->threadId = UGetCurrentThreadId();
  thread->handle = UGetCurrentThread();
  return 1;
}

void HookUserTextOutW(UserTextOutWProc proc) { t_textOut = proc; }
UserTextOutWProc UserTextOutW() { return t_textOut; }

// ---- Debugger and fatal messages ----

void DebuggerBreak() { UDebugBreak(); }

void DebuggerString(const TString* text) {
  if (text == nullptr) return;
  // Up to three bytes a unit in the widest 8-bit form (UTF-8), within the
  // 32767 bytes a fill takes.
  const int units = text->Length();
  const int size = units * 3 + 1 > 32767 ? 32767 : units * 3 + 1;
  std::string narrow(static_cast<std::size_t>(size), '\0');
  text->FillBufferAnsi(narrow.data(), static_cast<short>(size), 0);
  narrow.resize(std::strlen(narrow.c_str()));
  UOutputDebugStringA(narrow.c_str());
}

void FatalAlert(const TString* text) {
  SplashScreenClose(1);
  const TString title = LibraryTitle();
  UMessageBoxW(text ? text->Text() : u"", title.Text(), kFatalStyle);
}

int StackOverflow() { return 0; }

int IsPtrValid(void* p, int size) {
  if (p == nullptr) return 0;
  const std::size_t bytes = size == -1 ? 4 : static_cast<std::size_t>(static_cast<unsigned>(size));
  return UIsBadReadPtr(p, bytes) == 0 && UIsBadWritePtr(p, bytes) == 0 ? 1 : 0;
}

void SplashScreenClose(int) {}
