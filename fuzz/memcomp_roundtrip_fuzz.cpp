// Packing arbitrary bytes and unpacking them again gives the bytes back; the
// packed form is exactly the plain reference's (checked for inputs of up to
// 1 KiB, where the plain reference is quick enough), and the in-place packer and
// unpacker stay inside buffers of exactly the room they ask for.
//
// Area: quarnel/compress/memcomp.cpp quarnel/compress/internal/packblock.cpp
// Area: quarnel/compress/internal/segcode.cpp
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "quarnel/compress/compress_reference.h"
#include "quarnel/compress/internal/packblock.h"
#include "quarnel/compress/internal/segcode.h"
#include "quarnel/compress/memcomp.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/tmemory.h"

using namespace quarnel_internal;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > (std::size_t{1} << 20)) return 0;
  const auto n = static_cast<unsigned>(size);
  const std::vector<std::uint8_t> input(data, data + size);

  // In place over a plain buffer.
  static SegmentIndex index;
  static std::uint16_t chain[kSegmentSize];
  const SegmentCoder coder(&index, chain);
  const unsigned room = n + PackSlack(n);
  auto buf = std::make_unique<std::uint8_t[]>(room);
  if (n != 0) std::memcpy(buf.get(), data, n);
  const PackOutcome r = PackInPlace(buf.get(), n, kPackMagicCode, coder, nullptr, nullptr);
  if (r.kind == PackOutcome::kAborted) std::abort();
  if (r.kind == PackOutcome::kSmallBuffer) {
    if (n > kSegmentSize || (n != 0 && std::memcmp(buf.get(), data, n) != 0)) std::abort();
  }
  std::vector<std::uint8_t> packed;
  if (r.kind == PackOutcome::kPacked) {
    if (r.size > room) std::abort();
    packed.assign(buf.get(), buf.get() + r.size);
    if (size <= 1024) {
      std::vector<std::uint8_t> ref;
      if (!quarnel_reference::PackBlock(input, &ref) || ref != packed) std::abort();
    }
    UnpackPlan plan;
    if (!PlanUnpack(packed.data(), r.size, &plan) || plan.n != n) std::abort();
    auto out = std::make_unique<std::uint8_t[]>(plan.room);
    std::memcpy(out.get(), packed.data(), r.size);
    if (!UnpackInPlace(out.get(), r.size, &plan)) std::abort();
    if (n != 0 && std::memcmp(out.get(), data, n) != 0) std::abort();
  }

  // The same through MemComp and MemUncomp.
  TMemory m(1);
  if (m.SetSize(n) != 0) return 0;
  if (n != 0) std::memcpy(m.MemPtr(), data, n);
  const bool marked = n >= 4 && std::memcmp(data, "QnQy", 4) == 0;
  const int rc = MemComp(&m);
  if (rc == kErrMemNotObtained) return 0;
  if (rc != 0) std::abort();
  if (marked) return 0;  // taken for a packed block: left alone
  if (r.kind == PackOutcome::kPacked &&
      (m.GetSize() != packed.size() ||
       std::memcmp(m.MemPtr(), packed.data(), packed.size()) != 0)) {
    std::abort();
  }
  if (MemUncomp(&m) != 0) std::abort();
  if (r.kind == PackOutcome::kSmallBuffer) {
    if (m.GetSize() != room) std::abort();
  } else if (m.GetSize() != n) {
    std::abort();
  }
  if (n != 0 && std::memcmp(m.MemPtr(), data, n) != 0) std::abort();
  return 0;
}
