// TString: the stored record.
//
//   0   PersistHeader 'Str.', 256, 256
//   8   length (16 bits)      10  style (16 bits)     12  extra (32 bits)
//   16  byte order (8 bits)   17  seven zero bytes
//   24  the text, 2 x length + 2 bytes with its terminator, then zero padding
//       to a multiple of 4
//
// in the byte order of the writer. A record of the other byte order is read
// when the caller allows it (`swap`): the header, the length, the style and
// the text are swapped; the extra word is carried as it is, like Marshall.
#include <cstdint>
#include <cstring>

#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/marshall.h"
#include "quarnel/text/tstring.h"

namespace {

constexpr unsigned kSignature = 0x5374722E;  // 'Str.'
constexpr short kVersion = 256;
constexpr int kFixedBytes = 24;
constexpr int kOldFixedBytes = 13;

unsigned StoreSizeFor(int length) { return static_cast<unsigned>((2 * length + 2 + 27) & ~3); }

std::uint16_t Read16(const unsigned char* p, bool swap) {
  std::uint16_t v;
  std::memcpy(&v, p, 2);
  return swap ? SwapUint16(v) : v;
}

void Write16(unsigned char* p, std::uint16_t v, bool swap) {
  if (swap) v = SwapUint16(v);
  std::memcpy(p, &v, 2);
}

// Copies `n` units from bytes at `src` into `dst`, swapping each when asked.
void CopyUnits(char16_t* dst, const unsigned char* src, int n, bool swap) {
  std::memcpy(dst, src, static_cast<std::size_t>(n) * 2);
  if (swap) {
    for (int i = 0; i < n; ++i) dst[i] = static_cast<char16_t>(SwapUint16(dst[i]));
  }
}

}  // namespace

unsigned TString::StorBufferSize() const { return static_cast<unsigned>(2 * length_ + 2); }

void TString::StorBuffer(unsigned char* dst, unsigned size) const {
  if (dst == nullptr) {
    Debug("tstring", kLineNull);
    return;
  }
  const unsigned n = size < StorBufferSize() ? size : StorBufferSize();
  std::memcpy(dst, text_, n);
}

unsigned TString::StoreSize() const { return StoreSizeFor(length_); }

int TString::Export(void* dst, int size, int swap) const {
  const unsigned need = StoreSize();
  if (dst == nullptr) {
    Debug("tstring", kLineNull);
    return kErrExportBufferTooSmall;
  }
  if (size < 0 || static_cast<unsigned>(size) < need) return kErrExportBufferTooSmall;
  auto* out = static_cast<unsigned char*>(dst);
  PersistHeader header;
  _initpersist(&header, kSignature, kVersion, kVersion);
  std::memcpy(out, &header, sizeof header);
  if (swap) {
    std::uint32_t sig;
    std::memcpy(&sig, out, 4);
    sig = SwapUint32(sig);
    std::memcpy(out, &sig, 4);
    Write16(out + 4, Read16(out + 4, false), true);
    Write16(out + 6, Read16(out + 6, false), true);
  }
  const bool sw = swap != 0;
  Write16(out + 8, static_cast<std::uint16_t>(length_), sw);
  Write16(out + 10, style_, sw);
  std::memcpy(out + 12, &extra_, 4);
  out[16] = byteOrder_;
  std::memset(out + 17, 0, 7);
  for (int i = 0; i <= length_; ++i) Write16(out + kFixedBytes + 2 * i, text_[i], sw);
  const unsigned used = kFixedBytes + StorBufferSize();
  std::memset(out + used, 0, need - used);
  return static_cast<int>(need);
}

int TString::Import(const void* src, int size, int swap) {
  if (src == nullptr) {
    Debug("tstring", kLineNull);
    return kErrImportDataTooShort;
  }
  if (size < kFixedBytes) return kErrImportDataTooShort;
  const auto* in = static_cast<const unsigned char*>(src);
  PersistHeader header;
  std::memcpy(&header, in, sizeof header);
  const int check = _checkpersist(&header, kSignature, kVersion, kVersion);
  // A record of the other byte order is read only when the caller asks for
  // the swap; otherwise its code goes back as the failure.
  if (check != kErrNone && !(check == kErrPersistOtherByteOrder && swap)) return check;
  const bool sw = check == kErrPersistOtherByteOrder;
  const auto len = static_cast<std::int16_t>(Read16(in + 8, sw));
  if (len < 0 || len > kMaxLength) {
    DebugLogf(kLogInternalData, "TString::Import: bad length %~d", static_cast<int>(len));
    return kErrInvalidData;
  }
  const unsigned need = StoreSizeFor(len);
  if (static_cast<unsigned>(size) < need) return kErrImportDataTooShort;
  checkUnlocked(kLineLocked);
  setBufferSize(len * 2);
  CopyUnits(text_, in + kFixedBytes, len, sw);
  length_ = len;
  text_[len] = 0;
  style_ = Read16(in + 10, sw);
  std::memcpy(&extra_, in + 12, 4);
  byteOrder_ = in[16];
  return static_cast<int>(need);
}

// The earlier record: a 4-byte prefix, length, style, extra and byte order
// packed from byte 4, the text from byte 13. It carries no size, so the
// caller vouches for the bytes; only the length is checked.
int TString::OldImport(const void* src, int swap) {
  if (src == nullptr) {
    Debug("tstring", kLineNull);
    return kErrImportDataTooShort;
  }
  const auto* in = static_cast<const unsigned char*>(src);
  const bool sw = swap != 0;
  const auto len = static_cast<std::int16_t>(Read16(in + 4, sw));
  if (len < 0 || len > kMaxLength) {
    DebugLogf(kLogInternalData, "TString::OldImport: bad length %~d", static_cast<int>(len));
    return kErrInvalidData;
  }
  checkUnlocked(kLineLocked);
  setBufferSize(len * 2);
  CopyUnits(text_, in + kOldFixedBytes, len, sw);
  length_ = len;
  text_[len] = 0;
  style_ = Read16(in + 6, sw);
  std::memcpy(&extra_, in + 8, 4);
  byteOrder_ = in[12];
  return kOldFixedBytes + 2 * len + 2;
}

void TString::swapUnits() {
  for (int i = 0; i < length_; ++i) text_[i] = static_cast<char16_t>(SwapUint16(text_[i]));
}

// Turns the string into the other byte order: the style and every unit are
// swapped; the length stays this machine's count, and the extra word is left
// as it is (it has never been swapped; readers rely on that).
void TString::Marshall() {
  checkUnlocked(kLineLocked);
  style_ = SwapUint16(style_);
  swapUnits();
}
