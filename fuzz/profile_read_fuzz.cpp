// The private-profile reader and editor over arbitrary file bytes: every
// query on every section and key the file names, then a write and a
// deletion. No crash, no read outside the input, nothing written past a
// caller's buffer, edits inside the file; a written key reads back.
//
// The first byte chooses the system code page (1252, 65001 or 932) and the
// size of the caller's buffers; the rest is the file.
//
// Area: quarnel/platform/internal/profiletext.cpp
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "quarnel/platform/internal/profiletext.h"

using namespace quarnel_internal;

namespace {

constexpr char16_t kGuard = 0xFFFF;

// A query into a buffer of `size` units with guards behind it; the result
// (the units before the terminator).
template <class Query>
std::u16string Ask(unsigned size, Query query) {
  std::vector<char16_t> buf(size + 4, kGuard);
  const unsigned n = query(buf.data(), size);
  for (std::size_t i = size; i < buf.size(); ++i)
    if (buf[i] != kGuard) std::abort();
  if (size > 0 && n >= size) std::abort();
  return std::u16string(buf.data(), size > 0 ? n : 0);
}

// The names of a double-terminated list.
std::vector<std::u16string> Names(const std::u16string& list) {
  std::vector<std::u16string> out;
  for (std::size_t at = 0; at < list.size();) {
    const std::size_t end = list.find(u'\0', at);
    out.push_back(list.substr(at, end - at));
    if (end == std::u16string::npos) break;
    at = end + 1;
  }
  return out;
}

std::string Apply(std::string_view bytes, const ProfileEdit& e) {
  if (!e.changed) return std::string(bytes);
  if (e.from > e.to || e.to > bytes.size()) std::abort();
  return std::string(bytes.substr(0, e.from)) + e.bytes + std::string(bytes.substr(e.to));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  static const unsigned kPages[] = {1252, 65001, 932};
  const unsigned page = kPages[data[0] % 3];
  const unsigned bufSize = data[0] / 3 % 2 ? 4096 : data[0] / 6 % 9;
  const std::string file(reinterpret_cast<const char*>(data + 1), size - 1);

  const std::u16string sections = Ask(4096, [&](char16_t* b, unsigned n) {
    return ProfileGetString(file, page, nullptr, nullptr, u"d", b, n);
  });
  for (const std::u16string& s : Names(sections)) {
    const std::u16string keys = Ask(bufSize, [&](char16_t* b, unsigned n) {
      return ProfileGetString(file, page, s.c_str(), nullptr, u"d", b, n);
    });
    Ask(bufSize,
        [&](char16_t* b, unsigned n) { return ProfileGetSection(file, page, s.c_str(), b, n); });
    for (const std::u16string& k : Names(keys)) {
      Ask(bufSize, [&](char16_t* b, unsigned n) {
        return ProfileGetString(file, page, s.c_str(), k.c_str(), u"d", b, n);
      });
      ProfileGetInt(file, page, s.c_str(), k.c_str(), 7);
    }
  }

  // A written key reads back; a deleted one is gone.
  const ProfileEdit set = ProfileWrite(file, page, u"S", u"k", u"v1");
  const std::string written = Apply(file, set);
  const auto get = [&](const std::string& bytes) {
    return Ask(16, [&](char16_t* b, unsigned n) {
      return ProfileGetString(bytes, page, u"S", u"k", u"none", b, n);
    });
  };
  if (get(written) != u"v1") std::abort();
  get(Apply(written, ProfileWrite(written, page, u"S", u"k", nullptr)));
  Apply(written, ProfileWrite(written, page, u"S", nullptr, nullptr));
  return 0;
}
