// Chunk files for the tests: a store's chunks as a map from (type, id) to
// their bytes, and a file assembled field by field from the documented
// layouts.
#ifndef QUARNEL_TESTS_SUPPORT_CHUNK_STORE_H_
#define QUARNEL_TESTS_SUPPORT_CHUNK_STORE_H_

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <utility>

#include "quarnel/chunk/chunkmanager.h"
#include "quarnel/compress/hashblock.h"
#include "quarnel/compress/memcomp.h"
#include "quarnel/foundation/tmemory.h"

using ChunkKey = std::pair<int, int>;
using ChunkContent = std::map<ChunkKey, std::string>;

inline void SetBytes(TMemory* h, const std::string& s) {
  h->SetSize(static_cast<unsigned>(s.size()));
  if (!s.empty()) std::memcpy(h->MemPtr(), s.data(), s.size());
}

// A new block holding `s`.
inline TMemory* BlockOf(const std::string& s) {
  auto* h = new TMemory(1);
  SetBytes(h, s);
  return h;
}

// The bytes a handle stands for: unpacked when the host packed them.
inline std::string Plain(const TMemory* h) {
  TMemory copy(*h);
  MemUncomp(&copy);
  return std::string(reinterpret_cast<const char*>(copy.MemPtr()), copy.GetSize());
}

// Every chunk the manager lists, fetched (and so registered).
inline ChunkContent ReadChunks(ChunkManager* m) {
  ChunkContent c;
  for (int t = 1; t <= m->CHCountTypes(); ++t) {
    const int type = m->CHEnumType(t);
    for (int n = 1; n <= m->CHCountChunks(type); ++n) {
      const int id = m->CHEnumChunk(type, n);
      TMemory* h = nullptr;
      EXPECT_EQ(m->CHGetChunk(type, id, &h), 0) << type << " " << id;
      if (h) c[{type, id}] = Plain(h);
    }
  }
  return c;
}

// A chunk file's bytes, written field by field.
struct ChunkImage {
  std::string b;
  explicit ChunkImage(std::size_t n) : b(n, '\0') {}
  template <class T>
  void Put(std::size_t at, T v) {
    std::memcpy(&b[at], &v, sizeof v);
  }
  void Bytes(std::size_t at, const std::string& s) { b.replace(at, s.size(), s); }
  // The header sector: granule 4, the first chunk at 512.
  void Header(short version, long long mapAt, long long mapSize, long long end) {
    Put<unsigned>(0, 0x4366682E);
    Put<short>(4, 0x0100);
    Put<short>(6, version);
    Put<long long>(8, mapAt);
    Put<long long>(16, mapSize);
    Put<long long>(24, end);
    Put<int>(36, 4);
    Put<long long>(40, 512);
  }
  // A chunk header in the current (64) or the 0x0100 (56) layout, then the
  // data.
  void Chunk(std::size_t at, bool old, unsigned type, long long id, long long size, long long slack,
             const std::string& data) {
    const unsigned hash = HashBlock(reinterpret_cast<const unsigned char*>(data.data()),
                                    static_cast<int>(data.size()));
    Put<unsigned>(at, type);
    Put<long long>(at + (old ? 4 : 8), id);
    Put<long long>(at + (old ? 12 : 16), size);
    Put<long long>(at + (old ? 20 : 24), slack);
    Put<unsigned>(at + (old ? 44 : 48), hash);
    Bytes(at + (old ? 56 : 64), data);
  }
  // A map entry in the current (48) or the 0x0100 (44) layout.
  void Entry(std::size_t at, bool old, unsigned type, long long id, long long address,
             long long slack = 0) {
    Put<unsigned>(at, type);
    Put<long long>(at + (old ? 4 : 8), id);
    Put<long long>(at + (old ? 12 : 16), address);
    Put<long long>(at + (old ? 20 : 24), slack);
  }
};

#endif  // QUARNEL_TESTS_SUPPORT_CHUNK_STORE_H_
