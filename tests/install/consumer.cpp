// Uses the installed library through its umbrella header.
#include <quarnel/quarnel.h>

#include <cstdio>

int main() {
  TString s(u"installed");
  s.Append(u" quarnel");
  void* block = MemAlloc(64);
  const bool ok = s.Length() == 17 && MemSize(block) == 64;
  MemFree(block);
  // The default resource module is installed beside the library.
  TString vellores(u"vellores.dll");
  const int loaded = DLLoadLib(&vellores);
  TString message;
  message.SPrintf(u"%E", -1115);
  const bool messages = loaded == 0 && message.Identical(u"Disk full", -1);
  DLUnloadLib(&vellores);
  std::printf("consumer: %s\n", ok && messages ? "ok" : "FAILED");
  return ok && messages ? 0 : 1;
}
