// Import of TFolderLoc, TFileLoc and TVol records from arbitrary bytes, and
// what a host may then do with the path without touching the disk: the
// volume rules, parents, extensions, full paths. No crash, no read outside
// the input; a refused record leaves the object unchanged; an accepted one
// exports a record that imports to the same path, of the size Import gave.
//
// The first byte chooses how the rest is used: as a whole record (header
// included), or as a string record behind a well-formed header of each type
// (the 16 bytes after the persistence header zero), so that the fuzzer
// reaches the path without first finding the tags.
//
// Area: quarnel/fileio/location.cpp quarnel/fileio/tvol.cpp quarnel/fileio/internal/locpath.cpp
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>
#include <vector>

#include "quarnel/fileio/location.h"
#include "quarnel/fileio/tvol.h"
#include "quarnel/foundation/marshall.h"
#include "quarnel/platform/fileapi.h"
#include "quarnel/text/tstring.h"

namespace {

constexpr unsigned kTags[] = {0x466F6C2E, 0x46696C2E, 0x566F6C2E};  // 'Fol.', 'Fil.', 'Vol.'

std::vector<std::uint8_t> WithHeader(unsigned signature, const std::uint8_t* data,
                                     std::size_t size) {
  std::vector<std::uint8_t> b(24 + size, 0);
  PersistHeader h;
  _initpersist(&h, signature, 256, 256);
  std::memcpy(b.data(), &h, sizeof h);
  if (size > 0) std::memcpy(b.data() + 24, data, size);
  return b;
}

void ExercisePath(const TString& path) {
  TVol vol;
  vol.Set(&path, 1);
  volatile int sink = vol.IsValid(0, 0) + vol.IsValid(0, 1);
  TFolderLoc folder, parent;
  folder.SetPath(&path);
  sink = sink + folder.IsRoot() + folder.GetParent(&parent);
  TFileLoc file;
  file.SetPath(&path, path.Length() & 1);
  TString ext(u".txt");
  sink = sink + file.CompareExt(&ext);
  char16_t full[1024];
  sink = sink + static_cast<int>(UGetFullPathName(path.Text(), 1024, full, nullptr));
  (void)sink;
}

// Imports into `object` (first holding `seed`); checks the contract.
template <class T>
void Check(const std::vector<std::uint8_t>& bytes, int n, const T& seed) {
  T object = seed;
  const int r = object.Import(bytes.data(), n);
  if (r <= 0) {
    if (!object.Path().Identical(seed.Path())) std::abort();
    return;
  }
  if (r != static_cast<int>(object.StoreSize()) || r > n || r % 4 != 0) std::abort();
  std::vector<std::uint8_t> again(object.StoreSize());
  if (object.Export(again.data(), static_cast<int>(again.size())) != r) std::abort();
  T back;
  if (back.Import(again.data(), r) != r || !back.Path().Identical(object.Path())) std::abort();
  ExercisePath(object.Path());
}

template <class T>
T Seeded() {
  T t;
  TString p(u"C:\\seed\\");
  if constexpr (std::is_same_v<T, TFileLoc>) {
    t.SetPath(&p, 0);
  } else if constexpr (std::is_same_v<T, TVol>) {
    t.Set(&p, 1);
  } else {
    t.SetPath(&p);
  }
  return t;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::uint8_t mode = data[0];
  ++data, --size;
  std::vector<std::uint8_t> bytes(data, data + size);
  if (mode % 4 != 0) bytes = WithHeader(kTags[mode % 4 - 1], data, size);
  bytes.shrink_to_fit();  // an exact-size copy, so that a read past the end is caught
  const int n = bytes.size() > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(bytes.size());
  Check(bytes, n, Seeded<TFolderLoc>());
  Check(bytes, n, Seeded<TFileLoc>());
  Check(bytes, n, Seeded<TVol>());
  return 0;
}
