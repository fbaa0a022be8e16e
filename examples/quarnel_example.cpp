// The main job of this version of the library: a host that installs a log
// hook, loads the default resource module (libvellores.so, "vellores.dll"),
// lets the library map a few platform failures into library error codes
// (each mapping is logged through the hook, its message printed by %E), and
// formats messages with the library's engine.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "quarnel/quarnel.h"

namespace {

// UTF-16 to UTF-8 for printing on the terminal.
std::string Utf8(const TString& s) { return s.ToUtf8(); }

// The host's log hook: formats the line with the library's own engine and
// prints it with its level.
int PrintLogLine(unsigned level, const char* format, const Args* args) {
  TString line;
  FormatLogLine(&line, format, args);
  std::printf("log %u: %s\n", level, Utf8(line).c_str());
  return 0;
}

}  // namespace

int main() {
  HookDebugLogfChar(PrintLogLine);

  // The library's words and messages live in the default resource module,
  // found beside the library.
  std::printf("-- the default resource module\n");
  TString vellores(u"vellores.dll");
  const int loaded = DLLoadLib(&vellores);
  TString status;
  status.SPrintf(u"DLLoadLib(\"vellores.dll\"): %~d", loaded);
  std::printf("%s\n", Utf8(status).c_str());

  std::printf("-- platform failures mapped to library codes\n");
  const struct {
    const char* what;
    int err;
  } failures[] = {
      {"OpenSettings: open failed", ENOENT},
      {"SaveChunk: WriteFile failed", ENOSPC},
      {"LockFile: flock failed", EACCES},
      {"ReadHeader: read failed", EIO},
  };
  for (const auto& f : failures) {
    const unsigned winerr = UWinErrorFromErrno(f.err);
    const int code = MapAndLogErr(nullptr, f.what, winerr);
    TString message;
    message.SPrintf(u"%s: errno %~d is Windows error %~u, library code %~d: %E", f.what, f.err,
                    winerr, code, code);
    std::printf("%s\n", Utf8(message).c_str());
  }

  std::printf("-- the formatting engine\n");
  TString name(u"vellomarch.cfh");
  TString line;
  line.SPrintf(u"%S: %d of %d chunks (%x), %K on disk, type %Y", &name, 1234567, 2000000, 0xBEEFu,
               3u * 1024 * 1024, 0x4366682Eu);
  std::printf("%s\n", Utf8(line).c_str());
  line.SPrintf(u"[%-8s|%8s|%08d|%~d|%.3F|%LK]", "left", "right", 42, 1234567, 1234u,
               static_cast<std::uint64_t>(0));
  std::printf("%s\n", Utf8(line).c_str());
  line.SPrintf(u"%i%d %-2i%d", 1, 2);
  std::printf("arguments out of order: %s\n", Utf8(line).c_str());
  for (int n : {1, 2, 3, 11, 22, 103}) {
    line.FormatOrdinal(n);
    std::printf("%s ", Utf8(line).c_str());
  }
  std::printf("\n");

  std::printf("-- messages of the library's own codes\n");
  for (int code : {kErrMemNotObtained, kErrModuleConflict, kErrQueueEmpty, kErrPersistTooNew}) {
    line.SPrintf(u"%~d: %E", code, code);
    std::printf("%s\n", Utf8(line).c_str());
  }
  DLUnloadLib(&vellores);
  return 0;
}
