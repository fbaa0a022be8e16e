// Unpacking arbitrary bytes as a packed block: no crash, no access outside
// the block, a refused block left exactly as it was, and a block that is
// accepted unpacks to its stated size. The bytes go through MemUncomp on a
// TMemory block and through the in-place unpacker on a buffer of exactly the
// room it asks for, so that the address checker sees any stray access.
//
// Area: quarnel/compress/memcomp.cpp quarnel/compress/internal/packblock.cpp
// Area: quarnel/compress/internal/segcode.cpp
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "quarnel/compress/internal/packblock.h"
#include "quarnel/compress/memcomp.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/tmemory.h"

using quarnel_internal::UnpackPlan;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > (std::size_t{1} << 20)) return 0;
  // Most inputs lack the magic: put it in front so that the checks run.
  std::vector<std::uint8_t> bytes(data, data + size);
  if (bytes.size() >= 8 && (size & 1) == 0) std::memcpy(bytes.data(), "QnQy", 4);
  const auto b = static_cast<unsigned>(bytes.size());

  TMemory m(1);
  if (m.SetSize(b) != 0) return 0;
  if (b != 0) std::memcpy(m.MemPtr(), bytes.data(), b);
  const int rc = MemUncomp(&m);
  const bool packed = b >= 8 && std::memcmp(bytes.data(), "QnQy", 4) == 0;
  if (rc != 0 || !packed) {
    // Refused, not packed, or short of memory for the unpacked size: as it was.
    if (m.GetSize() != b || (b != 0 && std::memcmp(m.MemPtr(), bytes.data(), b) != 0)) std::abort();
    if (!packed && rc != 0) std::abort();
    if (rc != 0 && rc != kErrInvalidData && rc != kErrMemNotObtained) std::abort();
    if (rc == kErrMemNotObtained) return 0;
  }

  if (!packed) return 0;
  UnpackPlan plan;
  bool ok = quarnel_internal::PlanUnpack(bytes.data(), b, &plan);
  std::unique_ptr<std::uint8_t[]> buf;
  if (ok) {
    if (plan.room < b || plan.room < plan.n) std::abort();
    buf = std::make_unique<std::uint8_t[]>(plan.room);
    std::memcpy(buf.get(), bytes.data(), b);
    ok = quarnel_internal::UnpackInPlace(buf.get(), b, &plan);
    // A refusal on the way leaves the packed bytes as they were.
    if (!ok && std::memcmp(buf.get(), bytes.data(), b) != 0) std::abort();
  }
  if (ok != (rc == 0)) std::abort();
  if (!ok) return 0;
  // Both ways give the same bytes.
  if (m.GetSize() != plan.n || std::memcmp(m.MemPtr(), buf.get(), plan.n) != 0) std::abort();
  return 0;
}
