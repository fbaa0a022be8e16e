// Faults for the crash report's tests, in a module that carries a symbol map.
// Only the entry point is exported, so the map alone can name the functions
// that fault.
#include <cstdlib>

namespace {

__attribute__((noinline, no_sanitize("undefined"))) void WriteThroughNull(volatile int* p) {
  *p = 0x51;
}

__attribute__((noinline, no_sanitize("undefined"))) int DivideBy(int divisor) {
  volatile int d = divisor;
  return 1000 / d;
}

// Deep enough to run out of stack: each call keeps a frame of its own.
// `limit` is never reached; it only keeps the compiler from seeing an
// endless recursion.
__attribute__((noinline)) int Recurse(int depth, int limit) {
  volatile char frame[256];
  frame[0] = static_cast<char>(depth);
  if (depth == limit) return 0;
  const int below = Recurse(depth + 1, limit);
  asm volatile("" ::: "memory");
  return below + frame[0];
}

}  // namespace

// 1 null write, 2 integer division by zero, 3 stack overflow, 4 abort.
extern "C" __attribute__((visibility("default"), noinline)) int QntCrash(int kind) {
  volatile int* nowhere = nullptr;
  switch (kind) {
    case 1:
      WriteThroughNull(nowhere);
      return 1;
    case 2:
      return DivideBy(0);
    case 3:
      return Recurse(0, -1);
    default:
      std::abort();
  }
}
