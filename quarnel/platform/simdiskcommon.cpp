// The simulated disk: a record of the changes the file calls make inside one
// folder, and the files a crash at any point of it would leave. The same on
// every platform; each supplies its file layer's notes and the few host file
// calls the record needs (internal/simdisk.h).
#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "quarnel/platform/faults.h"
#include "quarnel/platform/internal/simdisk.h"
#include "quarnel/platform/lasterror.h"

namespace quarnel_internal {
namespace {

constexpr unsigned kWinInvalidParameter = 87;

struct DiskOp {
  enum Kind { kWrite, kLength, kFlush, kDelete, kWhole } kind;
  int file;
  std::uint64_t offset;  // kWrite: where; kLength: the new length
  std::string bytes;     // kWrite, kWhole
};

// A file as the record sees it: present or absent, and its bytes.
struct FileState {
  bool present = false;
  std::string bytes;
};

struct DiskFile {
  std::string relative;  // below the recorded folder, "/"-separated
  FileState start;
};

struct Record {
  std::mutex lock;
  std::atomic<bool> on{false};
  std::string folder;  // host path, no trailing "/"
  std::vector<DiskFile> files;
  std::vector<DiskOp> ops;
};

Record& TheRecord() {
  static Record* r = new Record;
  return *r;
}

void ReadWhole(const std::string& host, FileState* out) {
  out->bytes.clear();
  out->present = ReadHostFile(host, &out->bytes);
}

// The relative name of `host` inside the recorded folder, "" when outside.
std::string RelativeOf(const Record& r, const std::string& host) {
  if (host.size() <= r.folder.size() + 1 || host[r.folder.size()] != '/' ||
      !SameHostName(std::string_view(host).substr(0, r.folder.size()), r.folder))
    return std::string();
  return host.substr(r.folder.size() + 1);
}

// Index of the file in the record, -1 when outside the folder; with `touch`
// a file met for the first time is added with its present contents.
int FileIndex(Record& r, const std::string& host, bool touch) {
  const std::string rel = RelativeOf(r, host);
  if (rel.empty()) return -1;
  for (std::size_t i = 0; i < r.files.size(); ++i)
    if (SameHostName(r.files[i].relative, rel)) return static_cast<int>(i);
  if (!touch) return -1;
  DiskFile f;
  f.relative = rel;
  ReadWhole(host, &f.start);
  r.files.push_back(std::move(f));
  return static_cast<int>(r.files.size() - 1);
}

void Note(const std::string& host, DiskOp op) {
  Record& r = TheRecord();
  std::lock_guard<std::mutex> hold(r.lock);
  if (!r.on.load(std::memory_order_relaxed)) return;
  op.file = FileIndex(r, host, true);
  if (op.file < 0) return;
  r.ops.push_back(std::move(op));
}

void Apply(const DiskOp& op, FileState* s, std::size_t keepBytes) {
  switch (op.kind) {
    case DiskOp::kWrite: {
      if (!s->present) return;  // an open file that was deleted: the bytes go nowhere
      const std::size_t end = static_cast<std::size_t>(op.offset) + keepBytes;
      if (s->bytes.size() < end) s->bytes.resize(end, '\0');
      s->bytes.replace(static_cast<std::size_t>(op.offset), keepBytes, op.bytes, 0, keepBytes);
      return;
    }
    case DiskOp::kLength:
      if (s->present) s->bytes.resize(static_cast<std::size_t>(op.offset), '\0');
      return;
    case DiskOp::kFlush:
      return;
    case DiskOp::kDelete:
      *s = FileState{};
      return;
    case DiskOp::kWhole:
      s->present = true;
      s->bytes = op.bytes;
      return;
  }
}

// What a crash before `io` may leave of one file: its changes after its last
// flush (pending) and the choices among them.
struct Pending {
  std::vector<int> ops;  // indexes of the pending changes
  int lastWrite = -1;    // index of the last pending write, -1 for none
  // none, all, [the last write torn], [the first half]
  int Choices() const {
    if (ops.empty()) return 1;
    return 2 + (lastWrite >= 0 ? 1 : 0) + (ops.size() >= 2 ? 1 : 0);
  }
  // The index after the last change kept by `choice`, and whether the
  // change at `lastWrite` is torn.
  int Until(int choice, int flushed, int io, bool* torn) const {
    *torn = false;
    if (choice == 0) return flushed;
    if (choice == 1) return io;
    if (choice == 2 && lastWrite >= 0) {
      *torn = true;
      return lastWrite + 1;
    }
    return ops[ops.size() / 2 - 1] + 1;
  }
};

Pending PendingOf(const Record& r, int file, int io, int* flushed) {
  Pending p;
  *flushed = 0;
  for (int i = 0; i < io; ++i) {
    const DiskOp& op = r.ops[static_cast<std::size_t>(i)];
    if (op.file != file) continue;
    if (op.kind == DiskOp::kFlush) {
      *flushed = i + 1;
      p = Pending{};
    } else {
      p.ops.push_back(i);
      if (op.kind == DiskOp::kWrite) p.lastWrite = i;
    }
  }
  return p;
}

}  // namespace

bool DiskRecording() { return TheRecord().on.load(std::memory_order_relaxed); }

void DiskTouch(const std::string& host) {
  if (!DiskRecording()) return;
  Record& r = TheRecord();
  std::lock_guard<std::mutex> hold(r.lock);
  if (r.on.load(std::memory_order_relaxed)) FileIndex(r, host, true);
}

void DiskNoteWrite(const std::string& host, std::uint64_t offset, const void* data,
                   std::size_t count) {
  if (!DiskRecording() || count == 0) return;
  Note(host, DiskOp{DiskOp::kWrite, 0, offset, std::string(static_cast<const char*>(data), count)});
}

void DiskNoteLength(const std::string& host, std::uint64_t length) {
  if (DiskRecording()) Note(host, DiskOp{DiskOp::kLength, 0, length, {}});
}

void DiskNoteFlush(const std::string& host) {
  if (DiskRecording()) Note(host, DiskOp{DiskOp::kFlush, 0, 0, {}});
}

void DiskNoteDelete(const std::string& host) {
  if (DiskRecording()) Note(host, DiskOp{DiskOp::kDelete, 0, 0, {}});
}

void DiskNoteWhole(const std::string& host) {
  if (!DiskRecording()) return;
  FileState now;
  ReadWhole(host, &now);
  Note(host, DiskOp{DiskOp::kWhole, 0, 0, std::move(now.bytes)});
}

}  // namespace quarnel_internal

using namespace quarnel_internal;

int UDiskRecord(const char16_t* folder) {
  Record& r = TheRecord();
  if (folder == nullptr) {
    r.on.store(false, std::memory_order_relaxed);
    return 1;
  }
  std::string host;
  if (const unsigned err = HostFolderOf(folder, &host)) {
    USetLastError(err);
    return 0;
  }
  std::lock_guard<std::mutex> hold(r.lock);
  r.folder = host;
  r.files.clear();
  r.ops.clear();
  r.on.store(true, std::memory_order_relaxed);
  return 1;
}

void UDiskReset() {
  Record& r = TheRecord();
  std::lock_guard<std::mutex> hold(r.lock);
  r.on.store(false, std::memory_order_relaxed);
  r.files.clear();
  r.ops.clear();
  r.folder.clear();
}

int UDiskIoCount() {
  Record& r = TheRecord();
  std::lock_guard<std::mutex> hold(r.lock);
  return static_cast<int>(r.ops.size());
}

int UDiskCrashImages(int io) {
  Record& r = TheRecord();
  std::lock_guard<std::mutex> hold(r.lock);
  if (io < 0 || io > static_cast<int>(r.ops.size())) {
    USetLastError(kWinInvalidParameter);
    return 0;
  }
  int images = 1;
  for (std::size_t f = 0; f < r.files.size(); ++f) {
    int flushed;
    images *= PendingOf(r, static_cast<int>(f), io, &flushed).Choices();
  }
  return images;
}

int UDiskBuildCrash(int io, int image, const char16_t* folder) {
  Record& r = TheRecord();
  std::string target;
  if (const unsigned err = folder ? HostFolderOf(folder, &target) : kWinInvalidParameter) {
    USetLastError(err);
    return 0;
  }
  std::lock_guard<std::mutex> hold(r.lock);
  if (io < 0 || io > static_cast<int>(r.ops.size()) || image < 0 ||
      SameHostName(target, r.folder)) {
    USetLastError(kWinInvalidParameter);
    return 0;
  }
  std::vector<Pending> pending(r.files.size());
  std::vector<int> flushed(r.files.size());
  long long images = 1;
  for (std::size_t f = 0; f < r.files.size(); ++f) {
    pending[f] = PendingOf(r, static_cast<int>(f), io, &flushed[f]);
    images *= pending[f].Choices();
  }
  if (image >= images) {
    USetLastError(kWinInvalidParameter);
    return 0;
  }
  int rest = image;
  for (std::size_t f = 0; f < r.files.size(); ++f) {
    const int choice = rest % pending[f].Choices();
    rest /= pending[f].Choices();
    bool torn = false;
    const int upTo = pending[f].Until(choice, flushed[f], io, &torn);
    FileState s = r.files[f].start;
    for (int i = 0; i < upTo; ++i) {
      const DiskOp& op = r.ops[static_cast<std::size_t>(i)];
      if (op.file != static_cast<int>(f)) continue;
      const bool half = torn && i == pending[f].lastWrite;
      Apply(op, &s, half ? op.bytes.size() / 2 : op.bytes.size());
    }
    if (const unsigned err =
            ReplaceHostFile(target + "/" + r.files[f].relative, s.present ? &s.bytes : nullptr)) {
      USetLastError(err);
      return 0;
    }
  }
  return 1;
}
