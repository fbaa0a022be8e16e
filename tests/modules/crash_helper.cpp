// The crash report's helper program for the Windows tests: writes its
// argument to helper.out in the current folder.
#include <cstdio>

int main(int argc, char** argv) {
  std::FILE* out = std::fopen("helper.out", "wb");
  if (out == nullptr) return 1;
  if (argc > 1) std::fputs(argv[1], out);
  return std::fclose(out) == 0 ? 0 : 1;
}
