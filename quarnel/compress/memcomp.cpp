#include "quarnel/compress/memcomp.h"

#include <cstdint>
#include <optional>

#include "quarnel/compress/internal/packblock.h"
#include "quarnel/compress/internal/segcode.h"
#include "quarnel/datetime/ticker.h"
#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/memutil.h"
#include "quarnel/foundation/tmemory.h"

using quarnel_internal::MemAllocUnfilled;
using quarnel_internal::PackOutcome;
using quarnel_internal::SegmentCoder;
using quarnel_internal::UnpackPlan;

namespace {

constexpr unsigned kPackTickerId = 0x5061636B;    // 'Pack'
constexpr unsigned kUnpackTickerId = 0x556E706B;  // 'Unpk'

static_assert(SegmentCoder::kIndexBytes <= kMemLargestRequest &&
                  SegmentCoder::kChainBytes <= kMemLargestRequest,
              "the index tables come from the small-block allocator");

}  // namespace

TCompStat::TCompStat(TMemory* memory) : TCompStat(memory, nullptr, nullptr) {}

TCompStat::TCompStat(TMemory* memory, void* pollArg, TCompPollProc pollProc)
    : memory_(memory), chain_(nullptr), head_(nullptr), pollArg_(pollArg), pollProc_(pollProc) {}

TCompStat::~TCompStat() {
  MemFree(chain_);
  MemFree(head_);
}

int TCompStat::pack(unsigned magic) {
  if (memory_ == nullptr) {
    Debug("memcomp", quarnel_internal::kMemCompNoBlockLine);
    return kErrBadParameter;
  }
  const unsigned n = memory_->GetSize();
  if (quarnel_internal::StartsWithMagic(memory_->MemPtr(), n, magic)) return 0;
  if (n > quarnel_internal::kPackMaxSize) {
    DebugLogf(kLogMisuse, "TCompStat::pack: buffer of size %u is too large to pack", n);
    return kErrBadParameter;
  }
  // The index tables first: without them nothing is changed. The coder
  // writes every entry before it reads it.
  if (head_ == nullptr) {
    head_ = static_cast<std::uint16_t*>(MemAllocUnfilled(SegmentCoder::kIndexBytes));
  }
  if (chain_ == nullptr) {
    chain_ = static_cast<std::uint16_t*>(MemAllocUnfilled(SegmentCoder::kChainBytes));
  }
  if (head_ == nullptr || chain_ == nullptr) return kErrMemNotObtained;
  TTicker ticker(kPackTickerId);
  const unsigned slack = quarnel_internal::PackSlack(n);
  int err = memory_->SetSize(n + slack);
  if (err != 0) return err;
  const SegmentCoder coder(head_, chain_);
  const PackOutcome r =
      quarnel_internal::PackInPlace(memory_->MemPtr(), n, magic, coder, pollProc_, pollArg_);
  switch (r.kind) {
    case PackOutcome::kAborted:
      DebugLogf(kLogInternalData, "TCompStat::pack: pollproc(0x%08x) terminates with error %E",
                static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(pollArg_)), r.pollResult);
      memory_->SetSize(0);
      return r.pollResult;
    case PackOutcome::kSmallBuffer:
      DebugLogf(kLogInternalData, "TCompStat::pack: can't compress small buffer of size %d",
                static_cast<int>(n));
      return 0;
    case PackOutcome::kPacked:
      break;
  }
  err = memory_->SetSize(r.size);
  if (err != 0) {
    // The packed form is only whole at its own length: bring the data back
    // rather than leave a block that can be neither used nor unpacked.
    DebugLogf(kLogMisuse, "TCompStat::pack: can't shrink buffer from %d to %d",
              static_cast<int>(n + slack), static_cast<int>(r.size));
    quarnel_internal::RestorePacked(memory_->MemPtr(), r.size, n);
    return err;
  }
  if (n != 0) {
    const auto saved = static_cast<int>((std::int64_t{n} - r.size) * 100 / n);
    DebugLogf(kLogInternalData,
              "TCompStat::pack: compressed buffer from %d to %d (%d%%) in %.3F seconds",
              static_cast<int>(n), static_cast<int>(r.size), saved, ticker.GetMS());
  }
  return 0;
}

int TCompStat::unpack() {
  if (memory_ == nullptr) {
    Debug("memcomp", quarnel_internal::kMemCompNoBlockLine);
    return kErrBadParameter;
  }
  const unsigned b = memory_->GetSize();
  if (b < quarnel_internal::kPackHeaderSize ||
      !quarnel_internal::StartsWithMagic(memory_->MemPtr(), b, kMemCompMagic)) {
    return 0;
  }
  // The ticker only times the closing log line: without a hook it is not
  // started (starting one takes the ticker registry's lock).
  std::optional<TTicker> ticker;
  if (quarnel_internal::DebugLogCharHooked()) ticker.emplace(kUnpackTickerId);
  UnpackPlan plan;
  auto corrupt = [&plan] {
    DebugLogf(kLogInternalData, "TCompStat::unpack: corrupt packed block: %s at offset %d",
              quarnel_internal::PackDefectText(plan.defect), static_cast<int>(plan.offset));
    return kErrInvalidData;
  };
  if (!quarnel_internal::PlanUnpack(memory_->MemPtr(), b, &plan)) return corrupt();
  if (plan.room > b) {
    const int err = memory_->SetSize(plan.room);
    if (err != 0) return err;
  }
  if (!quarnel_internal::UnpackInPlace(memory_->MemPtr(), b, &plan)) {
    // Only bytes above the packed ones were written: giving them back
    // leaves the block as it was.
    memory_->SetSize(b);
    return corrupt();
  }
  if (memory_->GetSize() != plan.n) {
    const int err = memory_->SetSize(plan.n);
    if (err != 0) {
      DebugLogf(kLogMisuse, "TCompStat::unpack: can't shrink buffer from %d to %d",
                static_cast<int>(b), static_cast<int>(plan.n));
      return err;
    }
  }
  DebugLogf(kLogInternalData,
            "TCompStat::unpack: decompressed buffer from %d to %d in %.3F seconds",
            static_cast<int>(b), static_cast<int>(plan.n), ticker ? ticker->GetMS() : 0u);
  return 0;
}

int MemComp(TMemory* mem) {
  TCompStat stat(mem);
  return stat.pack(kMemCompMagic);
}

int MemComp(TMemory* mem, void* pollArg, TCompPollProc pollProc) {
  TCompStat stat(mem, pollArg, pollProc);
  return stat.pack(kMemCompMagic);
}

int MemUncomp(TMemory* mem) {
  TCompStat stat(mem);
  return stat.unpack();
}
