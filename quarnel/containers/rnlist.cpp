#include "quarnel/containers/rnlist.h"

#include <cstring>

#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/sort.h"

namespace {

// Assertion lines of module "rnlist".
constexpr int kLineAlloc = 40;          // Alloc with a negative count
constexpr int kLineSet = 95;            // Set outside 0..count-1
constexpr int kLineIns = 130;           // Ins outside 0..count
constexpr int kLineInsertShrink = 260;  // Insert could not cut the destination to `at`

}  // namespace

// A count whose bytes pass 32 bits is refused like any growth the memory
// cannot serve.
bool RNList::resize(int n) {
  const unsigned long long bytes = static_cast<unsigned long long>(n) * sizeof(int);
  if (bytes > 0xFFFFFFFFull) return false;
  SetSize(static_cast<unsigned>(bytes), -1);
  return GetSize() == bytes;
}

int RNList::Alloc(int n) {
  if (n < 0) {
    Debug("rnlist", kLineAlloc);
    return kErrBadParameter;
  }
  return resize(n) ? 0 : kErrMemNotObtained;
}

int RNList::One(int rn) {
  if (!resize(1)) return kErrMemNotObtained;
  entries()[0] = rn;
  return 0;
}

int RNList::Enum(int i) const { return i >= 0 && i < Count() ? entries()[i] : 0; }

int& RNList::operator[](int i) {
  if (i >= 0 && i < Count()) return entries()[i];
  thread_local int scratch;
  scratch = 0;
  return scratch;
}

int RNList::Set(int i, int rn) {
  if (i < 0 || i >= Count()) {
    Debug("rnlist", kLineSet);
    return 0;
  }
  const int old = entries()[i];
  entries()[i] = rn;
  return old;
}

int RNList::Find(int rn) const {
  const int n = Count();
  const int* e = entries();
  for (int i = 0; i < n; ++i) {
    if (e[i] == rn) return i;
  }
  return -1;
}

int RNList::Add(int rn) {
  if (Find(rn) >= 0) return 0;
  const int n = Count();
  if (!resize(n + 1)) return kErrMemNotObtained;
  entries()[n] = rn;
  return 0;
}

int RNList::Ins(int rn, int at) {
  const int n = Count();
  if (at < 0 || at > n) {
    Debug("rnlist", kLineIns);
    return kErrBadParameter;
  }
  if (!resize(n + 1)) return kErrMemNotObtained;
  int* e = entries();
  std::memmove(e + at + 1, e + at, static_cast<std::size_t>(n - at) * sizeof(int));
  e[at] = rn;
  return 0;
}

int RNList::Del(int rn) {
  const int n = Count();
  int* e = entries();
  int kept = 0;
  for (int i = 0; i < n; ++i) {
    if (e[i] != rn) e[kept++] = e[i];
  }
  const int removed = n - kept;
  if (removed != 0) resize(kept);  // shrinking keeps the first `kept` entries
  return removed;
}

int RNList::Copy(RNList* other) {
  if (other == nullptr || other == this) return 0;
  const int n = Count();
  if (!other->resize(n)) return kErrMemNotObtained;
  if (n != 0) std::memcpy(other->entries(), entries(), static_cast<std::size_t>(n) * sizeof(int));
  return 0;
}

// Each candidate is looked for in the destination as it grows, so an entry
// repeated here is added once.
int RNList::Append(RNList* other) {
  if (other == nullptr || other == this) return 0;
  const int n = Count();
  for (int i = 0; i < n; ++i) {
    const int err = other->Add(entries()[i]);
    if (err != 0) return err;
  }
  return 0;
}

int RNList::Remove(RNList* other) {
  if (other == nullptr) return 0;
  if (other == this) return Alloc(0);
  const int n = Count();
  for (int i = 0; i < n; ++i) other->Del(entries()[i]);
  return 0;
}

// With two temporaries: A holds other's entries from `at` on, B this list;
// A appended to B makes B this list followed by the tail entries it lacked;
// other is cut to `at` entries and B appended to it.
int RNList::Insert(RNList* other, int at) {
  if (other == nullptr) return 0;
  const int count = other->Count();
  if (at < 0) at = 0;
  if (at > count) at = count;

  RNList tail;
  RNList merged;
  if (!tail.resize(count - at) || !merged.resize(Count())) return kErrMemNotObtained;
  if (count > at) {
    std::memcpy(tail.entries(), other->entries() + at,
                static_cast<std::size_t>(count - at) * sizeof(int));
  }
  if (Count() != 0) {
    std::memcpy(merged.entries(), entries(), static_cast<std::size_t>(Count()) * sizeof(int));
  }
  int err = tail.Append(&merged);
  if (err != 0) return err;
  if (!other->resize(at)) Debug("rnlist", kLineInsertShrink);
  return merged.Append(other);
}

int RNList::Sort(void* context, void* compare) {
  ::Sort(MemPtr(), static_cast<unsigned>(Count()), sizeof(int), context,
         reinterpret_cast<SortCompareProc>(compare));
  return 0;
}
