#include "quarnel/platform/testchild.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include "quarnel/platform/win32/winapi.h"

namespace {

constexpr char kChildVariable[] = "QUARNEL_TEST_CHILD";

std::string g_rerun;
int g_starts = 0;  // Start and Spawn calls made since SetRerunArguments

// In a child: the number of the Start that runs the work, and the handles
// of the answer pipe and the release event; false in a parent.
bool ChildSpec(int* number, HANDLE* answer, HANDLE* release) {
  char spec[96];
  const DWORD n = ::GetEnvironmentVariableA(kChildVariable, spec, sizeof spec);
  if (n == 0 || n >= sizeof spec) return false;
  unsigned long long a = 0, r = 0;
  if (std::sscanf(spec, "%d %llu %llu", number, &a, &r) != 3) return false;
  *answer = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(a));
  *release = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(r));
  return true;
}

// Starts this program again with the rerun arguments and `spec` in the
// child variable, its output going nowhere; the inheritable handles named in
// `spec` pass to it. False when it could not start.
bool StartAgain(const char* spec, PROCESS_INFORMATION* pi) {
  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  HANDLE nul = ::CreateFileW(L"NUL", GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                             OPEN_EXISTING, 0, nullptr);
  if (nul == INVALID_HANDLE_VALUE) return false;
  wchar_t exe[MAX_PATH];
  ::GetModuleFileNameW(nullptr, exe, MAX_PATH);
  std::wstring command = L"\"" + std::wstring(exe) + L"\" " + quarnel_internal::WideOf(g_rerun);
  STARTUPINFOW si{};
  si.cb = sizeof si;
  si.dwFlags = STARTF_USESTDHANDLES;
  si.hStdInput = nullptr;
  si.hStdOutput = nul;
  si.hStdError = nul;
  ::SetEnvironmentVariableA(kChildVariable, spec);
  const BOOL started =
      ::CreateProcessW(exe, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &si, pi);
  ::SetEnvironmentVariableA(kChildVariable, nullptr);
  ::CloseHandle(nul);
  if (started) ::CloseHandle(pi->hThread);
  return started != 0;
}

}  // namespace

UTestChild::~UTestChild() { Release(); }

void UTestChild::SetRerunArguments(const char* arguments) {
  g_rerun = arguments ? arguments : "";
  g_starts = 0;
}

bool UTestChild::InChild() {
  int number;
  HANDLE answer, release;
  return ChildSpec(&number, &answer, &release);
}

int UTestChild::Start(int (*work)(void* arg), void* arg) {
  Release();
  const int number = ++g_starts;
  int wanted;
  HANDLE answer, release;
  if (ChildSpec(&wanted, &answer, &release)) {
    if (number != wanted) return -1;
    const int result = work(arg);
    DWORD written = 0;
    ::WriteFile(answer, &result, sizeof result, &written, nullptr);
    ::WaitForSingleObject(release, INFINITE);
    ::ExitProcess(0);
  }
  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  HANDLE readEnd = nullptr, writeEnd = nullptr;
  if (!::CreatePipe(&readEnd, &writeEnd, &inherit, 0)) return -1;
  ::SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
  HANDLE event = ::CreateEventW(&inherit, TRUE, FALSE, nullptr);
  char spec[96];
  std::snprintf(spec, sizeof spec, "%d %llu %llu", number,
                static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(writeEnd)),
                static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(event)));
  PROCESS_INFORMATION pi{};
  const bool started = event != nullptr && StartAgain(spec, &pi);
  ::CloseHandle(writeEnd);
  int result = -1;
  if (started) {
    process_ = pi.hProcess;
    releaseEvent_ = event;
    DWORD got = 0;
    int value = 0;
    if (::ReadFile(readEnd, &value, sizeof value, &got, nullptr) && got == sizeof value)
      result = value;
  } else if (event != nullptr) {
    ::CloseHandle(event);
  }
  ::CloseHandle(readEnd);
  return result;
}

// A spawned child is this program started again, like a started one; it runs
// the test up to its own Spawn of the same number and ends with the work's
// result. In the child, the test's earlier Spawns start nothing and answer 0.
int UTestChild::Spawn(int (*work)(void* arg), void* arg) {
  Release();
  const int number = ++g_starts;
  int wanted;
  HANDLE answer, release;
  if (ChildSpec(&wanted, &answer, &release)) {
    if (number == wanted) ::ExitProcess(static_cast<UINT>(work(arg) & 0xFF));
    return 0;
  }
  char spec[96];
  std::snprintf(spec, sizeof spec, "%d 0 0", number);
  PROCESS_INFORMATION pi{};
  if (!StartAgain(spec, &pi)) return -1;
  spawned_ = pi.hProcess;
  return 0;
}

int UTestChild::Wait() {
  if (spawned_ == nullptr) return -1;
  ::WaitForSingleObject(static_cast<HANDLE>(spawned_), INFINITE);
  DWORD code = 0;
  const bool got = ::GetExitCodeProcess(static_cast<HANDLE>(spawned_), &code);
  ::CloseHandle(static_cast<HANDLE>(spawned_));
  spawned_ = nullptr;
  return got && code <= 0xFF ? static_cast<int>(code) : -1;
}

void UTestChild::Kill() {
  if (spawned_ == nullptr) return;
  ::TerminateProcess(static_cast<HANDLE>(spawned_), 0x100);
  Wait();
}

void UTestChild::Release() {
  if (process_ == nullptr) return;
  ::SetEvent(static_cast<HANDLE>(releaseEvent_));
  ::WaitForSingleObject(static_cast<HANDLE>(process_), 30000);
  ::CloseHandle(static_cast<HANDLE>(process_));
  ::CloseHandle(static_cast<HANDLE>(releaseEvent_));
  process_ = nullptr;
  releaseEvent_ = nullptr;
}
