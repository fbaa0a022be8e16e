#include "quarnel/foundation/crashreport.h"

#include <atomic>
#include <cstring>

#include "quarnel/compress/internal/packblock.h"
#include "quarnel/datetime/tdate.h"
#include "quarnel/foundation/alert.h"
#include "quarnel/foundation/internal/demangle.h"
#include "quarnel/foundation/internal/reportfmt.h"
#include "quarnel/foundation/internal/symmap.h"
#include "quarnel/platform/env.h"
#include "quarnel/platform/internal/crashmodule.h"
#include "quarnel/platform/internal/crashsignal.h"
#include "quarnel/platform/locale.h"
#include "quarnel/platform/resblob.h"
#include "quarnel/platform/threadid.h"
#include "quarnel/platform/wintime.h"
#include "quarnel/text/internal/datefmt.h"
#include "quarnel/text/tstring.h"

namespace {

using quarnel_internal::NarrowDateWords;
using quarnel_internal::ReportPrintf;

constexpr unsigned short kLogList = 16040;
constexpr unsigned kLogFileKey = 0x4C67466C;  // 'LgFl'
constexpr unsigned kHeadingKey = 0x4C6F6748;  // 'LogH'
constexpr char kDefaultLogName[] = "assert_log.utx";
constexpr char kHelperProgram[] = "assert";
constexpr int kLineBytes = 1024;  // one formatted line, as the original's buffer
constexpr int kMaxThreads = 256;
constexpr int kMaxNameBytes = 257;  // a thread's name: 256 characters
constexpr int kMaxFrames = 256;     // frames walked per thread
constexpr int kCaptureTimeoutMs = 500;
constexpr std::size_t kMaxContainer = 1u << 20;
constexpr std::size_t kMaxSymbolMap = 1u << 20;

// What the report reads that needs the heap or a lock to find: prepared
// ahead and copied in while holding the busy flag, so that no report reads it
// half written.
struct Prepared {
  char logName[256];
  char heading[4096];
  NarrowDateWords dateWords;
  int bias;  // minutes to add to local time to get UTC
};

Prepared g_prepared;
std::atomic<unsigned> g_preparedLcid{~0u};  // the locale of g_prepared's date words

// ---- exception names ----------------------------------------------------------------------------

struct ExceptionNameRow {
  unsigned code;
  const char* name;
};

constexpr ExceptionNameRow kExceptionNames[] = {
    {0xC0000005, "ACCESS_VIOLATION"},
    {0xC000008C, "ARRAY_BOUNDS_EXCEEDED"},
    {0x80000003, "BREAKPOINT"},
    {0x80000002, "DATATYPE_MISALIGNMENT"},
    {0xC000008D, "FLT_DENORMAL_OPERAND"},
    {0xC000008E, "FLT_DIVIDE_BY_ZERO"},
    {0xC000008F, "FLT_INEXACT_RESULT"},
    {0xC0000090, "FLT_INVALID_OPERATION"},
    {0xC0000091, "FLT_OVERFLOW"},
    {0xC0000092, "FLT_STACK_CHECK"},
    {0xC0000093, "FLT_UNDERFLOW"},
    {0x80000001, "GUARD_PAGE"},
    {0xC000001D, "ILLEGAL_INSTRUCTION"},
    {0xC0000006, "IN_PAGE_ERROR"},
    {0xC0000094, "INT_DIVIDE_BY_ZERO"},
    {0xC0000095, "INT_OVERFLOW"},
    {0xC0000026, "INVALID_DISPOSITION"},
    {0xC0000008, "INVALID_HANDLE"},
    {0xC0000025, "NONCONTINUABLE_EXCEPTION"},
    {0xC0000096, "PRIV_INSTRUCTION"},
    {0x80000004, "SINGLE_STEP"},
    {0xC00000FD, "STACK_OVERFLOW"},
    {0xE0000000, "ASSERTION"},
    // No system message table to ask on this platform: the one further code
    // the library raises itself (abort) is named here.
    {0x40000015, "FATAL_APP_EXIT"},
};

// ---- the report's state: fixed storage, used by the thread holding g_busy ----------------------

std::atomic<unsigned> g_busy{0};  // the reporting thread's id, 0 when none

// Takes the busy flag for thread `self`, waiting while another thread holds
// it. False when `self` holds it already (a fault inside its own report).
bool AcquireBusy(unsigned self) {
  unsigned expected = 0;
  while (!g_busy.compare_exchange_strong(expected, self, std::memory_order_acq_rel)) {
    if (expected == self) return false;
    UHandlerSleep(1);
    expected = 0;
  }
  return true;
}

void ReleaseBusy() { g_busy.store(0, std::memory_order_release); }

struct State {
  char path[4352];
  char line[kLineBytes];
  int fd = -1;
  const char* errorInfo = nullptr;
  unsigned ids[kMaxThreads];
  char names[kMaxThreads][kMaxNameBytes];
  unsigned others[kMaxThreads];
  UThreadContext contexts[kMaxThreads];
  unsigned errors[kMaxThreads];
  quarnel_internal::WalkFrame frames[kMaxFrames];
  std::uintptr_t unwoundIps[kMaxFrames], unwoundFps[kMaxFrames];  // UUnwindStack's answer
  char symbol[1024];
  char demangled[1024];
  // The symbol map of the module last asked for.
  const UModuleInfo* mapModule = nullptr;
  std::size_t mapSize = 0;
  unsigned char container[kMaxContainer];
  unsigned char map[kMaxSymbolMap];
};

State g_state;
TThdDescriptor* g_descriptor = nullptr;  // made when the handler is installed

void Write(const char* text, int n) {
  if (g_state.fd >= 0 && n > 0) UCrashLogWrite(g_state.fd, text, static_cast<std::uint64_t>(n));
}

void Break(int count = 1) {
  for (int i = 0; i < count; ++i) Write("\r\n", 2);
}

template <class... A>
void Line(const char* format, const A&... values) {
  const int n = ReportPrintf(g_state.line, kLineBytes, &g_prepared.dateWords, format, values...);
  Write(g_state.line, n);
}

// ---- modules, sections, symbols -----------------------------------------------------------------

// The unpacked symbol map of `module` in g_state.map (mapSize 0: none).
void LoadSymbolMap(const UModuleInfo* module) {
  State& s = g_state;
  if (module == s.mapModule) return;
  s.mapModule = module;
  s.mapSize = 0;
  const std::size_t n = UModuleReadResources(*module, s.container, sizeof s.container);
  UResBlob blob;
  UResEntry entry;
  if (n == 0 || UResBlobOpen(s.container, n, &blob) != 0 ||
      UResBlobFind(blob, kResTypeStringList, quarnel_internal::kSymbolMapResource, &entry) ==
          nullptr) {
    return;
  }
  if (entry.size < quarnel_internal::kPackHeaderSize || entry.size > sizeof s.map ||
      !quarnel_internal::StartsWithMagic(entry.bytes, entry.size,
                                         quarnel_internal::kPackMagicCode)) {
    return;
  }
  std::memcpy(s.map, entry.bytes, entry.size);
  quarnel_internal::UnpackPlan plan;
  if (!quarnel_internal::PlanUnpack(s.map, entry.size, &plan) || plan.room > sizeof s.map ||
      !quarnel_internal::UnpackInPlace(s.map, entry.size, &plan)) {
    return;
  }
  s.mapSize = plan.n;
}

// The function naming `ip` and the distance from its start: from the
// module's symbol map, else from its dynamic symbols (demangled).
bool NameOf(const UModuleInfo* module, std::uintptr_t ip, const char** name,
            std::uintptr_t* distance) {
  if (module == nullptr) return false;
  State& s = g_state;
  LoadSymbolMap(module);
  quarnel_internal::SymbolMapHit hit;
  const std::uintptr_t offset = ip - module->base;
  if (s.mapSize > 0 && offset <= 0xFFFFFFFFu &&
      quarnel_internal::FindInSymbolMap(s.map, s.mapSize, static_cast<std::uint32_t>(offset),
                                        &hit)) {
    const int n = hit.length < 64 ? hit.length : 64;
    std::memcpy(s.symbol, hit.name, static_cast<std::size_t>(n));
    s.symbol[n] = '\0';
    *name = s.symbol;
    *distance = offset - hit.offset;
    return true;
  }
  std::uintptr_t start = 0;
  if (!UModuleDynamicSymbol(*module, ip, s.symbol, sizeof s.symbol, &start)) return false;
  *name = quarnel_internal::Demangle(s.symbol, s.demangled, sizeof s.demangled) >= 0 ? s.demangled
                                                                                     : s.symbol;
  *distance = ip - start;
  return true;
}

// Section number and offset of `address` in its module (0 and the address's
// low 32 bits when no module file holds it).
void SectionOf(const UModuleInfo* module, std::uintptr_t address, unsigned* section,
               std::uint32_t* offset) {
  if (module == nullptr || !UModuleSectionOf(*module, address, section, offset)) {
    *section = 0;
    *offset = static_cast<std::uint32_t>(module ? address - module->base : address);
  }
}

// ---- the report ---------------------------------------------------------------------------------

// Memory the report reads on a thread's stack: the map showed it readable.
// It may lie in a sanitizer's red zone or be written by its thread, which
// the report does not care about.
#if defined(__clang__) || defined(__GNUC__)
#define QUARNEL_RAW_READ __attribute__((no_sanitize("address", "thread")))
#else
#define QUARNEL_RAW_READ
#endif

QUARNEL_RAW_READ std::uint32_t Word32(std::uintptr_t p) {
  return *reinterpret_cast<const volatile std::uint32_t*>(p);
}

QUARNEL_RAW_READ std::uintptr_t Word64(std::uintptr_t p) {
  return *reinterpret_cast<const volatile std::uintptr_t*>(p);
}

bool IsFourCharCode(std::uint32_t v) {
  for (int i = 0; i < 4; ++i) {
    const unsigned b = (v >> (8 * i)) & 0xFF;
    if (b >= 0x80 || (b & 0x60) == 0) return false;
  }
  return true;
}

// The thread's frames by the system's unwind tables where it has them, by
// the frame-pointer chain otherwise.
int WalkThread(const UThreadContext& c, quarnel_internal::WalkFrame* frames, int max) {
  std::uintptr_t* ips = g_state.unwoundIps;
  std::uintptr_t* fps = g_state.unwoundFps;
  const int n = UUnwindStack(c, ips, fps, max < kMaxFrames ? max : kMaxFrames);
  if (n < 0) return quarnel_internal::WalkStack(c.rip, c.rbp, frames, max);
  for (int i = 0; i < n; ++i)
    frames[i] = quarnel_internal::WalkFrame{ips[i], fps[i], UMemoryAccessible(fps[i], 48, true)};
  return n;
}

void WriteFrames(const UThreadContext& c) {
  Break(2);
  Line("Module           Fn (symbol or seg:offset in DLL)   Args");
  Break();
  Line(
      "===============  =================================  "
      "=======================================================================");
  Break();
  const int n = WalkThread(c, g_state.frames, kMaxFrames);
  for (int i = 0; i < n; ++i) {
    const quarnel_internal::WalkFrame& f = g_state.frames[i];
    const UModuleInfo* module = UModuleOf(f.ip);
    Line("%-15s  ", UModuleBaseName(module));
    const char* name = nullptr;
    std::uintptr_t distance = 0;
    if (NameOf(module, f.ip, &name, &distance)) {
      Line("%-27.64s+%-5lX  ", name, distance);
    } else {
      unsigned section;
      std::uint32_t offset;
      SectionOf(module, f.ip, &section, &offset);
      char place[16];
      ReportPrintf(place, sizeof place, nullptr, "%04X:%08X", section, offset);
      Line("%-33s  ", place);
    }
    if (f.args) {
      for (int k = 0; k < 8; ++k) {
        const std::uint32_t w = Word32(f.fp + 16 + 4 * k);
        const auto sw = static_cast<std::int32_t>(w);
        if (IsFourCharCode(w)) {
          Line("  '%y' ", w);
        } else if (sw >= -7 && sw <= 7) {
          Line("%8d ", sw);
        } else {
          Line("%08X ", w);
        }
      }
    }
    Break();
  }
}

void WriteRegisters(const UThreadContext& c) {
  Break(2);
  Line("RAX:%016lX  CS:%04X RIP:%016lX  RFlags:%016lX", c.rax, c.cs, c.rip, c.rflags);
  Break();
  Line("RBX:%016lX  SS:%04X RSP:%016lX  RBP:   %016lX", c.rbx, c.ss, c.rsp, c.rbp);
  Break();
  Line("RCX:%016lX  DS:%04X RSI:%016lX  FS:    %04X", c.rcx, c.ds, c.rsi, c.fs);
  Break();
  Line("RDX:%016lX  ES:%04X RDI:%016lX  GS:    %04X", c.rdx, c.es, c.rdi, c.gs);
  Break();
  Line(
      "R8: %016lX  R9: %016lX  R10:%016lX  R11:%016lX  R12:%016lX  R13:%016lX  R14:%016lX  "
      "R15:%016lX",
      c.r8, c.r9, c.r10, c.r11, c.r12, c.r13, c.r14, c.r15);
  Break();
}

// Fills ids and names with the threads to report, the faulting one first.
int ListThreads(unsigned faulting) {
  State& s = g_state;
  int n = 0;
  if (quarnel_internal::HasEnumThreadsHook() && g_descriptor != nullptr) {
    const int count = GetThreadCount();
    for (int i = 0; i < count && n < kMaxThreads; ++i) {
      g_descriptor->Reset();
      if (!EnumThreads(i, g_descriptor)) continue;
      s.ids[n] = g_descriptor->threadId;
      const short len = g_descriptor->name.FillBufferAnsi(s.names[n], kMaxNameBytes);
      s.names[n][len > 0 ? (len < kMaxNameBytes ? len : kMaxNameBytes - 1) : 0] = '\0';
      ++n;
    }
  } else {
    n = UListThreads(s.ids, kMaxThreads);
    for (int i = 0; i < n; ++i) {
      if (UThreadName(s.ids[i], s.names[i], kMaxNameBytes) < 0) s.names[i][0] = '\0';
    }
  }
  int at = 0;
  while (at < n && s.ids[at] != faulting) ++at;
  if (at == n) {
    // Not listed (a host list without it, or a full table): it comes first all the same.
    if (n == kMaxThreads) --n;
    at = n++;
    s.ids[at] = faulting;
    if (UThreadName(faulting, s.names[at], kMaxNameBytes) < 0) s.names[at][0] = '\0';
  }
  char name[kMaxNameBytes];
  std::memcpy(name, s.names[at], sizeof name);
  for (int i = at; i > 0; --i) {
    s.ids[i] = s.ids[i - 1];
    std::memcpy(s.names[i], s.names[i - 1], kMaxNameBytes);
  }
  s.ids[0] = faulting;
  std::memcpy(s.names[0], name, sizeof name);
  return n;
}

void WriteReport(unsigned code, const UThreadContext& faultContext, unsigned faulting) {
  State& s = g_state;
  const QuarnelEnvType* env = QuarnelEnv();

  Break();
  Line("XXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXX");
  Break(3);
  char system[65];
  USystemName(system, sizeof system);
  Line("OS: %s version %d.%d (build %d)", system, env->osMajor, env->osMinor, env->osBuild);
  if (!env->systemExtra.empty()) Line(", %s", env->systemExtra.c_str());
  Break();
  Line("Application: %s, version %s", env->appName.c_str(), env->appVersion.c_str());
  Break();
  UFILETIME utc;
  UGetSystemTimeAsFileTime(&utc);
  const std::uint64_t ticks =
      UFileTimeTicks(utc) - static_cast<std::int64_t>(g_prepared.bias) * 60 * 10000000;
  const UFILETIME local{static_cast<std::uint32_t>(ticks), static_cast<std::uint32_t>(ticks >> 32)};
  USYSTEMTIME st{};
  UFileTimeToSystemTime(&local, &st);
  const TDate now(&st);
  Line("Exception occurred on %D at %.1T", &now, &now);
  Break();
  if (s.errorInfo != nullptr) {
    Line("Error info: %s", s.errorInfo);
    Break();
  }
  Line("Exception code: %08X %s", code, CrashExceptionName(code));
  Break();
  const UModuleInfo* module = UModuleOf(faultContext.rip);
  unsigned section;
  std::uint32_t offset;
  SectionOf(module, faultContext.rip, &section, &offset);
  Line("Fault address: %016lX %04X:%08X %s", faultContext.rip, section, offset,
       UModuleBaseName(module));
  Break(2);

  // Every thread, the faulting one first; the others' registers by capture.
  const int n = ListThreads(faulting);
  for (int i = 1; i < n; ++i) s.others[i - 1] = s.ids[i];
  if (n > 1) UCaptureThreads(s.others, n - 1, s.contexts + 1, s.errors + 1, kCaptureTimeoutMs);
  s.contexts[0] = faultContext;
  s.errors[0] = 0;
  USnapshotMemoryMap();
  for (int i = 0; i < n; ++i) {
    Break();
    Line("Thread ID: %08X, Name: %s", s.ids[i], s.names[i][0] ? s.names[i] : "Unknown");
    if (s.errors[i] != 0) {
      Break();
      Line("** GetThreadContext failed LastError is :%d", s.errors[i]);
      continue;
    }
    WriteRegisters(s.contexts[i]);
    WriteFrames(s.contexts[i]);
    Break();
    UCrashLogFlush(s.fd);
  }
}

// The log file's path in g_state.path: log folder, "/", name (the name alone
// when the folder is empty). False when it does not fit.
bool LogPath() {
  State& s = g_state;
  const std::string& folder = QuarnelEnv()->logFolder;
  const std::size_t n = std::strlen(g_prepared.logName);
  if (folder.size() + n + 2 > sizeof s.path) return false;
  std::memcpy(s.path, folder.data(), folder.size());
  std::size_t at = folder.size();
  if (at > 0) s.path[at++] = '/';
  std::memcpy(s.path + at, g_prepared.logName, n + 1);
  return true;
}

// The report for one exception on the calling thread. A second exception on
// the thread that is reporting returns at once; one on another thread waits
// until the report is written and then reports itself.
void Handle(unsigned code, unsigned self, const UThreadContext& context, const char* errorInfo) {
  if (!AcquireBusy(self)) return;
  State& s = g_state;
  s.errorInfo = errorInfo;
  s.mapModule = nullptr;
  std::uint64_t size = 0;
  s.fd = LogPath() ? UCrashLogOpen(s.path, &size) : -1;
  if (s.fd >= 0) {
    USnapshotModules();  // takes the loader's lock: before other threads are held
    SuspendOtherThreads();
    if (size == 0) Write(g_prepared.heading, static_cast<int>(std::strlen(g_prepared.heading)));
    WriteReport(code, context, self);
    UCrashLogClose(s.fd);
    s.fd = -1;
    UReleaseThreads();
  }
  UStartCrashHelper(QuarnelEnv()->appFolder.c_str(), kHelperProgram, errorInfo);
  s.errorInfo = nullptr;  // the assertion record is cleared after each report
  ReleaseBusy();
}

void OnFatal(const UFatalEvent& event) {
  Handle(event.code, event.threadId, *event.context, nullptr);
}

// The resource text `key` of list 16040 in 8-bit text, line ends made CR LF
// when `crlf`; empty when no module has it.
void LoadText(unsigned key, char* dst, std::size_t size, bool crlf) {
  TString text;
  text.LoadKString(kLogList, key);
  char raw[4096];
  const short n = text.FillBufferAnsi(raw, sizeof raw);
  std::size_t out = 0;
  for (short i = 0; i < n && out + 2 < size; ++i) {
    if (crlf && raw[i] == '\n' && (i == 0 || raw[i - 1] != '\r')) dst[out++] = '\r';
    dst[out++] = raw[i];
  }
  dst[out] = '\0';
}

struct Installer {
  Installer() { InstallCrashHandler(); }
};
Installer g_installer;

}  // namespace

const char* CrashExceptionName(unsigned code) {
  for (const ExceptionNameRow& row : kExceptionNames) {
    if (row.code == code) return row.name;
  }
  if (code >= 0xE0000001 && code <= 0xE00000FF) return "Unidentified Exception";
  return "";
}

int InstallCrashHandler() {
  static const bool prepared = [] {
    QuarnelEnv();  // the record is filled here, never in a handler
    g_descriptor = new TThdDescriptor;
    PrepareCrashReport();
    return true;
  }();
  (void)prepared;
  return UInstallFatalSignalHandlers(OnFatal);
}

void PrepareCrashReport() {
  Prepared next{};
  LoadText(kLogFileKey, next.logName, sizeof next.logName, false);
  if (next.logName[0] == '\0') std::memcpy(next.logName, kDefaultLogName, sizeof kDefaultLogName);
  LoadText(kHeadingKey, next.heading, sizeof next.heading, true);
  quarnel_internal::PrepareNarrowDateWords(UGetDefaultLCID(), &next.dateWords);
  next.bias = UCurrentTimeZoneBias();
  if (!AcquireBusy(UGetCurrentThreadId())) return;
  g_prepared = next;
  g_preparedLcid.store(UGetDefaultLCID(), std::memory_order_relaxed);
  ReleaseBusy();
}

void quarnel_internal::ReportAssertion(const char* message) {
  InstallCrashHandler();  // the asserting thread gets its alternate stack
  // Modules and host lists prepare the texts when they change; what may have
  // changed since is the locale and the offset from UTC.
  if (UGetDefaultLCID() != g_preparedLcid.load(std::memory_order_relaxed)) {
    PrepareCrashReport();
  } else {
    const int bias = UCurrentTimeZoneBias();
    if (AcquireBusy(UGetCurrentThreadId())) {
      g_prepared.bias = bias;
      ReleaseBusy();
    }
  }
  UThreadContext context;
  UCaptureCurrentContext(&context);
  Handle(kAssertionCode, UGetCurrentThreadId(), context, message);
}

int quarnel_internal::WalkStack(std::uintptr_t ip, std::uintptr_t fp, WalkFrame* frames, int max) {
  int n = 0;
  bool readable = UMemoryAccessible(fp, 16, true);
  while (n < max) {
    frames[n++] = WalkFrame{ip, fp, UMemoryAccessible(fp, 48, true)};
    if (!readable) break;
    const std::uintptr_t next = Word64(fp);
    ip = Word64(fp + 8);
    if (next % 8 != 0 || next <= fp || !UMemoryAccessible(next, 16, true)) break;
    fp = next;
  }
  return n;
}
