// Import of TLocHandle records from arbitrary bytes, and what a host may
// then do with a handle without resolving it on disk: its path with tokens
// expanded and made again, its mount information, comparisons. No crash, no
// read outside the input; a refused record leaves the handle unchanged; an
// accepted one exports a record of the size Import gave that imports to the
// same bytes.
//
// The first byte chooses how the rest is used: as a whole record, or as the
// part after a well-formed header (words and volume onwards), so that the
// fuzzer reaches the parts without first finding the tag.
//
// Area: quarnel/fileio/tlochandle.cpp
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "quarnel/fileio/tlochandle.h"
#include "quarnel/foundation/marshall.h"
#include "quarnel/text/tstring.h"

namespace {

std::vector<std::uint8_t> Exported(const TLocHandle& h) {
  std::vector<std::uint8_t> b(h.StoreSize());
  if (h.Export(b.data(), static_cast<int>(b.size())) != static_cast<int>(b.size())) std::abort();
  return b;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const bool whole = data[0] % 2 == 0;
  ++data, --size;
  std::vector<std::uint8_t> bytes;
  if (!whole) {
    PersistHeader header;
    _initpersist(&header, TLocHandle::kSignature, 256, 256);
    bytes.resize(sizeof header);
    std::memcpy(bytes.data(), &header, sizeof header);
  }
  bytes.insert(bytes.end(), data, data + size);
  bytes.shrink_to_fit();  // an exact-size copy, so that a read past the end is caught
  const int n = bytes.size() > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(bytes.size());

  TLocHandle seed;
  const TString name(u"seed"), secret(u"pw");
  seed.SetMountInfo(&name, &secret);
  const std::vector<std::uint8_t> before = Exported(seed);
  TLocHandle h = seed;
  const int r = h.Import(bytes.data(), n);
  if (r <= 0) {
    if (Exported(h) != before) std::abort();
    return 0;
  }
  if (r > ((n + 3) & ~3) || r % 4 != 0 || r != static_cast<int>(h.StoreSize())) std::abort();
  const std::vector<std::uint8_t> record = Exported(h);
  TLocHandle back;
  if (back.Import(record.data(), static_cast<int>(record.size())) != r) std::abort();
  if (Exported(back) != record) std::abort();

  TString path, user, pass, label;
  h.GetPath(&path);
  h.GetMountInfo(&user, &pass, &label, nullptr);
  TLocHandle copy = h;
  copy.SetMountInfo(&user, &pass);
  if (Exported(copy) != record) std::abort();  // unscrambling undoes scrambling
  copy.TokenizeLocation();
  volatile int sink = h.Equal(&back, 0) + (h == copy);
  (void)sink;
  return 0;
}
