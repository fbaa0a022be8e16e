// An element space read from arbitrary bytes: LmValid must refuse what is
// unsafe, and on an area it accepts every operation must keep inside the
// area and leave it valid.
//
// Input: two bytes (little-endian) giving the length of the area, the area,
// then a script of operations, each an opcode byte and two 16-bit arguments.
//
// Area: quarnel/containers/elementspace.cpp
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "quarnel/containers/elementspace.h"
#include "quarnel/platform/debugout.h"

namespace {

void Quiet(const char*) {}

// Every element lies inside the area's data and reads without fault.
void CheckElements(ElementSpace& es) {
  const int count = es.LmCount();
  const unsigned char* base = es.MemPtr();
  const unsigned size = es.GetSize();
  unsigned sum = 0;
  for (int r = 1; r <= count; ++r) {
    if (es.LmTest(r) != 0) continue;
    const int n = es.LmSize(r);
    const auto* p = reinterpret_cast<const unsigned char*>(es.LmGet(r));
    if (n < 0 || p == nullptr || p < base + 84 || p + n > base + size) std::abort();
    for (int i = 0; i < n; ++i) sum += p[i];
  }
  static volatile unsigned sink = 0;
  sink = sink + sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  USetDebugOutputSink(Quiet);
  if (size < 2) return 0;
  std::size_t areaLength = data[0] | (data[1] << 8);
  data += 2;
  size -= 2;
  if (areaLength > size) areaLength = size;
  ElementSpace es(0, 0);
  if (es.SetSize(static_cast<unsigned>(areaLength)) != 0) return 0;
  if (areaLength != 0) std::memcpy(es.MemPtr(), data, areaLength);
  if (es.LmValid() != 0) return 0;
  // A hostile growth unit could ask for a gigabyte at the first growth: the
  // area is sound, but the harness keeps its memory small.
  int unit = 0, required = 0;
  es.LmGetParms(&unit, &required);
  if (unit > (1 << 20)) return 0;
  CheckElements(es);

  const std::uint8_t* op = data + areaLength;
  std::size_t left = size - areaLength;
  while (left >= 5) {
    const int code = op[0] % 20;
    const int a = op[1] | (op[2] << 8);
    const int b = op[3] | (op[4] << 8);
    op += 5;
    left -= 5;
    bool oddity = false;  // LmSet on an inner empty slot leaves a known invalid count
    switch (code) {
      case 0:
        es.LmAdd(nullptr, b % 3000);
        break;
      case 1: {
        char bytes[64];
        std::memset(bytes, a & 0xFF, sizeof bytes);
        es.LmAdd(bytes, b % 64);
        break;
      }
      case 2:
        oddity = a % 40 <= es.LmCount() && es.LmTest(a % 40) != 0;
        es.LmSet(a % 40, b % 5000);
        break;
      case 3:
        if (b & 1) {
          es.LmDupeAssert(a % 40);
        } else {
          es.LmDupe(a % 40);
        }
        break;
      case 4:
      case 5:
        es.LmRemove(a % 40);
        break;
      case 6:
        es.LmSwap(a % 40, b % 40);
        break;
      case 7:
        es.LmMark(a % 40);
        break;
      case 8:
        es.LmUnmark();
        break;
      case 9:
        es.LmCollect();
        break;
      case 10:
        es.LmCompress();
        break;
      case 11:
        es.LmReserve(a * 2 - 100);
        break;
      case 12:
        es.LmPreflight(a * 2 - 100);
        break;
      case 13:
        es.LmLock();
        break;
      case 14:
        es.LmUnlock();
        break;
      case 15:
        es.LmSetParms(a * 4, b & 1);
        break;
      case 16:
        es.LmRepair();
        break;
      case 17:
        es.LmGet(a % 40);
        es.LmSize(b % 40);
        es.LmOverhead(b);  // (2b - empty slots) * 4: negative when most slots are empty
        // LmFull answers from the freed count, which the validity rules leave
        // unchecked: a stored area may say it is full.
        es.LmFull();
        if (es.LmPhys(a) < a) std::abort();
        break;
      case 18:
        oddity = a % 40 <= es.LmCount() && es.LmTest(a % 40) != 0;
        es.LmSetAssert(a % 40, b % 300);
        break;
      default:
        es.LmAddAssert(nullptr, b % 300);
        break;
    }
    if (es.LmValid() != 0) {
      if (oddity) return 0;
      std::abort();
    }
    CheckElements(es);
  }
  return 0;
}
