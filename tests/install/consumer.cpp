// Uses the installed library through its umbrella header.
#include <quarnel/quarnel.h>

#include <cstdio>

int main() {
  TString s(u"installed");
  s.Append(u" quarnel");
  void* block = MemAlloc(64);
  const bool ok = s.Length() == 17 && MemSize(block) == 64;
  MemFree(block);
  std::printf("consumer: %s\n", ok ? "ok" : "FAILED");
  return ok ? 0 : 1;
}
