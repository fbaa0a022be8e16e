// The README's short tour, built with the examples so that it stays true.
#include <cstdio>
#include <cstring>

#include "quarnel/quarnel.h"

int main() {
  TLoadedLib words(TString(u"vellores.dll"));  // the library's own texts
  TString line;
  line.SPrintf(u"%~d: %E", kErrQueueEmpty, kErrQueueEmpty);
  std::printf("%s\n", line.ToUtf8().c_str());

  TMemory block;
  block.SetSize(10000);
  std::memset(block.MemPtr(), 'q', block.GetSize());
  MemComp(&block);
  std::printf("packed 10000 bytes into %u\n", block.GetSize());

  TDict ages(0, 0);
  ages.Define(1970, 54);
  ages.Define(2001, 23);
  for (auto [year, age] : ages) std::printf("%d -> %d\n", year, age);

  const TDate date(2024, 3, 5, 14, 7, 9, 0);
  line.SPrintf(u"%D, %~D", &date, &date);
  std::printf("%s\n", line.ToUtf8().c_str());
  return 0;
}
