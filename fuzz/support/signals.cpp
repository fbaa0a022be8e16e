// Linked into every fuzz target. The library installs its crash report's
// fatal-signal handlers when it is loaded; libFuzzer leaves a signal alone
// when a handler is already there, so an abort() in a target would end the
// process without the crashing input being written. The library's handlers
// are taken off before libFuzzer installs its own (it calls this first).
#include "quarnel/platform/internal/crashsignal.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  URemoveFatalSignalHandlers();
  return 0;
}
