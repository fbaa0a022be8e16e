// The resource compiler over arbitrary scripts: it either reports an error
// with a line inside the script or builds a container that the library's
// reader accepts whole, with every resource found again.
//
// Area: tools/qnrc/compiler.cpp
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "quarnel/platform/resblob.h"
#include "tools/qnrc/compiler.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string script(reinterpret_cast<const char*>(data), size);
  // Files named by the script are three fixed bytes, so that the icon, cursor
  // and bitmap readers see short and malformed input too.
  const auto reader = [](const std::string& path, std::vector<unsigned char>* bytes) {
    if (path.find("missing") != std::string::npos) return false;
    *bytes = {0, 0, 1};
    return true;
  };
  std::vector<qnrc::Resource> resources;
  qnrc::Error error;
  if (!qnrc::Compile(script, "dir", reader, &resources, &error)) {
    int lines = 1;
    for (char c : script) lines += c == '\n';
    if (error.line < 1 || error.line > lines || error.message.empty()) std::abort();
    return 0;
  }
  const std::vector<unsigned char> blob = qnrc::BuildBlob(resources);
  UResBlob b;
  if (UResBlobOpen(blob.data(), blob.size(), &b) != 0 || b.count != resources.size() ||
      b.size != blob.size()) {
    std::abort();
  }
  for (const qnrc::Resource& r : resources) {
    UResEntry e{};
    const unsigned char* hit =
        r.name.empty()
            ? UResBlobFind(b, r.type, r.id, &e)
            : UResBlobFindNamed(b, r.type, r.name.data(), static_cast<unsigned>(r.name.size()), &e);
    if (hit == nullptr || e.size != r.data.size()) std::abort();
    for (std::size_t i = 0; i < r.data.size(); ++i) {
      if (e.bytes[i] != r.data[i]) std::abort();
    }
  }
  return 0;
}
