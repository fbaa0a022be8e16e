#include "quarnel/platform/ptrcheck.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <string>

namespace {

bool ReadMaps(std::string* out) {
  const int fd = ::open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buf[4096];
  for (;;) {
    const ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0) {
      ::close(fd);
      return false;
    }
    if (n == 0) break;
    out->append(buf, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return true;
}

bool ParseHex(const std::string& s, std::size_t* pos, std::uintptr_t* value) {
  std::uintptr_t v = 0;
  const std::size_t start = *pos;
  while (*pos < s.size()) {
    const char c = s[*pos];
    int d;
    if (c >= '0' && c <= '9')
      d = c - '0';
    else if (c >= 'a' && c <= 'f')
      d = c - 'a' + 10;
    else
      break;
    v = v * 16 + static_cast<std::uintptr_t>(d);
    ++*pos;
  }
  *value = v;
  return *pos > start;
}

// True when the mappings cover [begin, end) without a gap and each has the
// permission `perm` ('r' or 'w').
bool Covered(std::uintptr_t begin, std::uintptr_t end, char perm) {
  std::string maps;
  if (!ReadMaps(&maps)) return false;
  std::uintptr_t cur = begin;
  std::size_t pos = 0;
  while (pos < maps.size()) {
    const std::size_t eol = maps.find('\n', pos);
    const std::size_t next = eol == std::string::npos ? maps.size() : eol + 1;
    std::uintptr_t lo;
    std::uintptr_t hi;
    std::size_t p = pos;
    bool parsed = ParseHex(maps, &p, &lo) && p < maps.size() && maps[p] == '-';
    if (parsed) {
      ++p;
      parsed = ParseHex(maps, &p, &hi) && p + 2 < maps.size() && maps[p] == ' ';
    }
    if (parsed) {
      const bool readable = maps[p + 1] == 'r';
      const bool writable = maps[p + 2] == 'w';
      if (hi > cur) {
        if (lo > cur) return false;  // a gap
        if (!(perm == 'r' ? readable : writable)) return false;
        cur = hi;
        if (cur >= end) return true;
      }
    }
    pos = next;
  }
  return false;
}

int IsBad(const void* p, std::size_t size, char perm) {
  if (size == 0) return 0;
  const std::uintptr_t a = reinterpret_cast<std::uintptr_t>(p);
  if (a == 0 || size > UINTPTR_MAX - a) return 1;
  return Covered(a, a + size, perm) ? 0 : 1;
}

}  // namespace

int UIsBadReadPtr(const void* p, std::size_t size) { return IsBad(p, size, 'r'); }
int UIsBadWritePtr(void* p, std::size_t size) { return IsBad(p, size, 'w'); }
