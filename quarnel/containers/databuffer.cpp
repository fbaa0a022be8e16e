#include "quarnel/containers/databuffer.h"

#include <climits>
#include <cstdint>
#include <cstring>
#include <optional>

#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/text/tstring.h"

namespace {

// The element an out-of-range index refers to, one per thread and type; kept
// out of the class so that it is no part of the exported interface.
template <class T>
T& Scratch() {
  thread_local T scratch;
  return scratch;
}

// Assertion lines of module "databuffer".
constexpr int kLineZeroElement = 30;  // TDataBuffer with element size 0
constexpr int kLineTooLarge = 45;     // a count whose bytes pass 32 bits
constexpr int kLineInsertAt = 90;     // TDataBuffer::Insert beyond the count
constexpr int kLineDateIndex = 120;   // TDateBuffer::operator[] at or beyond the size in bytes
constexpr int kLineIndex = 150;       // integer buffer operator[] beyond the count
constexpr int kLineSetAt = 160;       // integer buffer SetAt beyond the count
constexpr int kLineLoad = 180;        // TSint16Buffer::Load beyond the count
constexpr int kLineMove = 200;        // TUint64Buffer::Move: from >= n or n >= count
constexpr int kLineMoveRange = 205;   // TUint64Buffer::Move reaching beyond the count

// The address `offset` bytes into `base`, computed as an integer so that an
// unchecked address may lie anywhere.
void* addressAt(const unsigned char* base, std::uint64_t offset) {
  return reinterpret_cast<void*>(reinterpret_cast<std::uintptr_t>(base) +
                                 static_cast<std::uintptr_t>(offset));
}

// Whether [p, p + n) overlaps the block [base, base + size).
bool overlaps(const void* p, std::uint64_t n, const unsigned char* base, unsigned size) {
  const auto a = reinterpret_cast<std::uintptr_t>(p);
  const auto b = reinterpret_cast<std::uintptr_t>(base);
  return n != 0 && size != 0 && a < b + size && b < a + n;
}

// Copies `bytes` from `data` (null: zeros) to `to`.
void copyOrZero(const void* data, void* to, std::size_t bytes) {
  if (bytes == 0) return;
  if (data != nullptr) {
    std::memcpy(to, data, bytes);
  } else {
    std::memset(to, 0, bytes);
  }
}

// Grows `memory` to `newSize` bytes; false when the memory refused, or when
// the size passes 32 bits (which asserts).
bool growTo(TMemory& memory, std::uint64_t newSize) {
  if (newSize > UINT_MAX) {
    Debug("databuffer", kLineTooLarge);
    return false;
  }
  memory.SetSize(static_cast<unsigned>(newSize), -1);
  return memory.GetSize() == newSize;
}

// The bytes to copy in: `data` itself, or a copy of it when it lies inside
// the block that is about to grow (and may move). ok() is false when that
// copy could not be made.
class StableSource {
 public:
  StableSource(const void* data, std::uint64_t n, const TMemory& memory) : data_(data) {
    if (data != nullptr && overlaps(data, n, memory.MemPtr(), memory.GetSize())) {
      copy_.emplace(static_cast<short>(1));
      copy_->SetSize(static_cast<unsigned>(n), -1);
      if (copy_->GetSize() == n) {
        std::memcpy(copy_->MemPtr(), data, static_cast<std::size_t>(n));
        data_ = copy_->MemPtr();
      } else {
        ok_ = false;
      }
    }
  }
  bool ok() const { return ok_; }
  const void* get() const { return data_; }

 private:
  const void* data_;
  bool ok_ = true;
  std::optional<TMemory> copy_;
};

}  // namespace

// ------------------------------------------------------------ TDataBuffer

TDataBuffer::TDataBuffer(unsigned elementSize) : elementSize_(elementSize) {
  if (elementSize == 0) Debug("databuffer", kLineZeroElement);
}

int TDataBuffer::SetCount(unsigned n) {
  const std::uint64_t bytes = static_cast<std::uint64_t>(n) * elementSize_;
  if (bytes > UINT_MAX) {
    Debug("databuffer", kLineTooLarge);
    return kErrMemNotObtained;
  }
  return SetSize(static_cast<unsigned>(bytes), -1);
}

void* TDataBuffer::PointAt(unsigned i) const {
  return addressAt(MemPtr(), static_cast<std::uint64_t>(i) * elementSize_);
}

void* TDataBuffer::GetAt(unsigned i) const { return i < Count() ? PointAt(i) : nullptr; }

bool TDataBuffer::grow(unsigned n) {
  if (elementSize_ == 0) return false;
  return growTo(*this, (static_cast<std::uint64_t>(Count()) + n) * elementSize_);
}

void* TDataBuffer::Append(const void* data, unsigned n) {
  const unsigned old = Count();
  if (!fits(n)) return nullptr;
  const std::size_t bytes = static_cast<std::size_t>(n) * elementSize_;
  const StableSource source(data, bytes, *this);
  if (!source.ok() || !grow(n)) return nullptr;
  void* first = PointAt(old);
  copyOrZero(source.get(), first, bytes);
  return first;
}

void* TDataBuffer::Insert(const void* data, unsigned n, unsigned at) {
  const unsigned old = Count();
  if (at > old) {
    Debug("databuffer", kLineInsertAt);
    return nullptr;
  }
  if (!fits(n)) return nullptr;
  const std::size_t bytes = static_cast<std::size_t>(n) * elementSize_;
  const StableSource source(data, bytes, *this);
  if (!source.ok() || !grow(n)) return nullptr;
  auto* base = MemPtr();
  const std::size_t atByte = static_cast<std::size_t>(at) * elementSize_;
  const std::size_t tail = static_cast<std::size_t>(old - at) * elementSize_;
  std::memmove(base + atByte + bytes, base + atByte, tail);
  copyOrZero(source.get(), base + atByte, bytes);
  return base + atByte;
}

bool TDataBuffer::fits(unsigned n) const {
  if (elementSize_ == 0) return false;
  if ((static_cast<std::uint64_t>(Count()) + n) * elementSize_ > UINT_MAX) {
    Debug("databuffer", kLineTooLarge);
    return false;
  }
  return true;
}

// ------------------------------------------------------------ TDateBuffer

TDate* TDateBuffer::operator[](unsigned i) const {
  if (i >= GetSize()) Debug("databuffer", kLineDateIndex);
  return static_cast<TDate*>(GetAt(i));
}

// --------------------------------------------------------- integer buffers

template <class T>
T& TIntegerBuffer<T>::operator[](unsigned i) {
  if (i >= count()) {
    Debug("databuffer", kLineIndex);
    T& scratch = Scratch<T>();
    scratch = 0;
    return scratch;
  }
  return elements()[i];
}

template <class T>
void TIntegerBuffer<T>::SetAt(unsigned i, T value) {
  if (i >= count()) {
    Debug("databuffer", kLineSetAt);
    return;
  }
  elements()[i] = value;
}

template <class T>
void TIntegerBuffer<T>::add(T value) {
  const unsigned old = count();
  if (!growTo(*this, static_cast<std::uint64_t>(GetSize()) + sizeof(T))) return;
  elements()[old] = value;
}

template class TIntegerBuffer<std::uint8_t>;
template class TIntegerBuffer<std::int16_t>;
template class TIntegerBuffer<std::int32_t>;
template class TIntegerBuffer<std::uint32_t>;
template class TIntegerBuffer<std::uint64_t>;

std::uint8_t* TUint8Buffer::PointAt(unsigned i) const {
  return static_cast<std::uint8_t*>(addressAt(MemPtr(), i));
}

std::uint8_t* TUint8Buffer::GetAt(unsigned i) const { return i < count() ? PointAt(i) : nullptr; }

void TSint16Buffer::Load(const void* data, unsigned n, unsigned at) {
  if (static_cast<std::uint64_t>(at) + n > count()) {
    Debug("databuffer", kLineLoad);
    return;
  }
  if (n == 0) return;
  if (data == nullptr) {
    std::memset(elements() + at, 0, static_cast<std::size_t>(n) * sizeof(std::int16_t));
  } else {
    std::memmove(elements() + at, data, static_cast<std::size_t>(n) * sizeof(std::int16_t));
  }
}

void TSint16Buffer::Append(const void* data, unsigned bytes) {
  const unsigned old = GetSize();
  if (static_cast<std::uint64_t>(old) + bytes > UINT_MAX) {
    Debug("databuffer", kLineTooLarge);
    return;
  }
  const StableSource source(data, bytes, *this);
  if (!source.ok() || !growTo(*this, static_cast<std::uint64_t>(old) + bytes)) return;
  copyOrZero(source.get(), MemPtr() + old, bytes);
}

void TSint16Buffer::Append(const TString* text) {
  if (text == nullptr) return;
  Append(text->Text(), static_cast<unsigned>(text->Length()) * sizeof(char16_t));
}

void TUint64Buffer::Move(unsigned from, unsigned to, unsigned n) {
  const unsigned total = count();
  if (from >= n || n >= total) Debug("databuffer", kLineMove);
  if (static_cast<std::uint64_t>(from) + n > total || static_cast<std::uint64_t>(to) + n > total) {
    Debug("databuffer", kLineMoveRange);
    return;
  }
  if (n == 0) return;
  std::memmove(elements() + to, elements() + from,
               static_cast<std::size_t>(n) * sizeof(std::uint64_t));
}
