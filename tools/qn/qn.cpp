// qn: the main program, the shared pieces and the commands that need no chunk
// file (err, crc, pack, unpack, res).
#include "tools/qn/qn.h"

#include <cstdio>
#include <cstring>
#include <map>

#include "quarnel/compress/hashblock.h"
#include "quarnel/compress/memcomp.h"
#include "quarnel/fileio/tfile.h"
#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/error.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/tmemory.h"
#include "quarnel/platform/console.h"
#include "quarnel/platform/drivemap.h"
#include "quarnel/platform/module.h"
#include "quarnel/resources/resmgr.h"
#include "quarnel/text/tstring.h"

namespace qn {
namespace {

std::string lastLogLine;

int CollectLogLine(unsigned level, const char* format, const ::Args* args) {
  if (level >= kLogMisuse && level != kLogDetail) {
    TString line;
    FormatLogLine(&line, format, args);
    lastLogLine = line.ToUtf8();
  }
  return 0;
}

}  // namespace

bool Command::Has(const std::string& name) const {
  for (const auto& [n, v] : options)
    if (n == name) return true;
  return false;
}

std::string Command::Value(const std::string& name) const {
  for (const auto& [n, v] : options)
    if (n == name) return v;
  return "";
}

std::string ErrText(int err) {
  TString text;
  text.SPrintf(u"%E", err);
  return text.ToUtf8();
}

void ClearLog() { lastLogLine.clear(); }
void Note(const std::string& line) { lastLogLine = line; }
std::string LastLogLine() { return lastLogLine; }

int Fail(const std::string& what, int err) {
  const std::string text = ErrText(err);
  std::fprintf(stderr, "qn: %s: %s (%d)\n", what.c_str(), text.empty() ? "error" : text.c_str(),
               err);
  if (!lastLogLine.empty()) std::fprintf(stderr, "qn: %s\n", lastLogLine.c_str());
  ClearLog();
  return kExitFailed;
}

int Say(const std::string& what, int status) {
  std::fprintf(stderr, "qn: %s\n", what.c_str());
  return status;
}

int LocOf(const std::string& hostPath, TFileLoc* loc) {
  char16_t path[4096];
  if (hostPath.empty() || ULocFromHostPath(hostPath.c_str(), path, 4096) == 0)
    return kErrInvalidName;
  TString text(path);
  return loc->SetPath(&text);
}

int ReadWhole(const std::string& hostPath, TMemory* out) {
  TFileLoc loc;
  TFile file;
  std::uint64_t size = 0;
  int err = LocOf(hostPath, &loc);
  if (err == 0) err = file.Open(&loc, 1);
  if (err == 0) err = file.GetEOF(&size);
  if (err != 0) return err;
  if (size > 0x7FFFFFFF) return kErrBadParameter;
  if ((err = out->SetSize(static_cast<unsigned>(size))) != 0) return err;
  unsigned count = static_cast<unsigned>(size);
  if (count == 0) return 0;
  err = file.Read(&count, out->MemPtr());
  if (err == 0 && count != size) err = kErrEndOfFile;
  return err;
}

int WriteWhole(const std::string& hostPath, const unsigned char* data, std::size_t size) {
  TFileLoc loc;
  TFile file;
  int err = LocOf(hostPath, &loc);
  if (err == 0) err = file.Create(&loc, 2);
  unsigned count = static_cast<unsigned>(size);
  if (err == 0 && count > 0) err = file.Write(&count, data);
  if (err == 0) err = file.Close();
  return err;
}

std::string TypeText(unsigned type) {
  char text[16];
  bool printable = true;
  for (int shift = 24; shift >= 0; shift -= 8) {
    const unsigned c = (type >> shift) & 0xFF;
    if (c < 0x20 || c > 0x7E) printable = false;
  }
  if (printable)
    std::snprintf(text, sizeof text, "%c%c%c%c", type >> 24, (type >> 16) & 0xFF,
                  (type >> 8) & 0xFF, type & 0xFF);
  else
    std::snprintf(text, sizeof text, "0x%08X", type);
  return text;
}

bool ParseInt(const std::string& text, long long* value) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  const bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
  *value = hex ? static_cast<long long>(std::strtoull(text.c_str() + 2, &end, 16))
               : std::strtoll(text.c_str(), &end, 10);
  return errno == 0 && end && *end == '\0';
}

bool ParseType(const std::string& text, unsigned* type) {
  long long v = 0;
  if (text.size() == 4 && !ParseInt(text, &v)) {
    *type = 0;
    for (unsigned char c : text) *type = (*type << 8) | c;
  } else if (ParseInt(text, &v) && v >= -0x80000000LL && v <= 0xFFFFFFFFLL) {
    *type = static_cast<unsigned>(v);
  } else {
    return false;
  }
  return *type != 0 && *type != 0xFFFFFFFF;
}

Progress::Progress(const char* what, std::uint64_t total)
    : what_(what), total_(total), on_(UStdIsConsole(kStdError) == 1 && total > 0) {}

Progress::~Progress() { Clear(); }

void Progress::Clear() {
  if (on_ && shown_ >= 0) std::fprintf(stderr, "\r%*s\r", 40, "");
  shown_ = -1;
}

void Progress::Step(std::uint64_t done) {
  if (!on_) return;
  const int percent = static_cast<int>(done * 100 / total_);
  if (percent == shown_) return;
  shown_ = percent;
  std::fprintf(stderr, "\r%s: %d%%", what_, percent);
  std::fflush(stderr);
}

bool Parse(const Words& args, const char* usage, const std::vector<std::string>& flags,
           std::size_t minWords, std::size_t maxWords, Command* cmd, int* status) {
  for (const std::string& a : args) {
    if (a == "--help" || a == "-h") {
      std::fputs(usage, stdout);
      *status = kExitOk;
      return false;
    }
    if (a.size() > 2 && a.compare(0, 2, "--") == 0) {
      bool known = false;
      for (const std::string& f : flags) known = known || f == a;
      if (!known) {
        std::fprintf(stderr, "qn: unknown option %s\n%s", a.c_str(), usage);
        *status = kExitUsage;
        return false;
      }
      cmd->options.emplace_back(a, "");
    } else {
      cmd->words.push_back(a);
    }
  }
  if (cmd->words.size() < minWords || cmd->words.size() > maxWords) {
    std::fprintf(stderr, "qn: wrong number of arguments\n%s", usage);
    *status = kExitUsage;
    return false;
  }
  return true;
}

namespace {

int Err(const Words& args) {
  static const char usage[] =
      "usage: qn err CODE        the message text of a library error code\n"
      "       qn err --win N     the library code a Windows error number maps to, and its text\n";
  Command cmd;
  int status = 0;
  if (!Parse(args, usage, {"--win"}, 1, 1, &cmd, &status)) return status;
  long long n = 0;
  if (!ParseInt(cmd.words[0], &n) || n < -0x80000000LL || n > 0xFFFFFFFFLL)
    return Say("not a number: " + cmd.words[0], kExitUsage);
  int code = static_cast<int>(n);
  if (cmd.Has("--win")) {
    code = MapWindowsError(static_cast<unsigned>(n));
    std::printf("Windows error %u: ", static_cast<unsigned>(n));
  }
  const std::string text = ErrText(code);
  std::printf("%d: %s\n", code, text.empty() ? "(no message text)" : text.c_str());
  return kExitOk;
}

int Crc(const Words& args) {
  static const char usage[] =
      "usage: qn crc FILE    the library's block checksum (HashBlock) of the whole file\n";
  Command cmd;
  int status = 0;
  if (!Parse(args, usage, {}, 1, 1, &cmd, &status)) return status;
  TMemory data;
  if (const int err = ReadWhole(cmd.words[0], &data)) return Fail(cmd.words[0], err);
  std::printf("%08X %u %s\n", HashBlock(data.MemPtr(), static_cast<int>(data.GetSize())),
              data.GetSize(), cmd.words[0].c_str());
  return kExitOk;
}

int PackOrUnpack(const Words& args, bool pack) {
  static const char usagePack[] =
      "usage: qn pack IN OUT      packs IN into a packed block (MemComp) in OUT\n";
  static const char usageUnpack[] =
      "usage: qn unpack IN OUT    unpacks the packed block IN (MemUncomp) into OUT\n";
  Command cmd;
  int status = 0;
  if (!Parse(args, pack ? usagePack : usageUnpack, {}, 2, 2, &cmd, &status)) return status;
  TMemory data;
  if (const int err = ReadWhole(cmd.words[0], &data)) return Fail(cmd.words[0], err);
  const unsigned before = data.GetSize();
  const bool packed = before >= 4 && std::memcmp(data.MemPtr(), "QnQy", 4) == 0;
  if (!pack && !packed) return Fail(cmd.words[0] + ": not a packed block", kErrInvalidData);
  if (pack && packed) return Fail(cmd.words[0] + ": already a packed block", kErrInvalidData);
  if (const int err = pack ? MemComp(&data) : MemUncomp(&data)) return Fail(cmd.words[0], err);
  if (pack && (data.GetSize() < 4 || std::memcmp(data.MemPtr(), "QnQy", 4) != 0)) {
    // Packing did not make it smaller: the block keeps its bytes unpacked.
    data.SetSize(before);
    if (const int err = WriteWhole(cmd.words[1], data.MemPtr(), data.GetSize()))
      return Fail(cmd.words[1], err);
    std::printf("kept %u bytes unpacked: packing does not make them smaller\n", before);
    return kExitOk;
  }
  if (const int err = WriteWhole(cmd.words[1], data.MemPtr(), data.GetSize()))
    return Fail(cmd.words[1], err);
  std::printf("%s %u bytes into %u\n", pack ? "packed" : "unpacked", before, data.GetSize());
  return kExitOk;
}

int Res(const Words& args) {
  static const char usage[] =
      "usage: qn res MODULE    the id and error ranges, string lists and resources of a\n"
      "                        resource module (a name such as vellores.dll, or a path)\n";
  Command cmd;
  int status = 0;
  if (!Parse(args, usage, {}, 1, 1, &cmd, &status)) return status;
  TString name = TString::FromUtf8(cmd.words[0]);
  if (const int err = DLCheckLib(&name)) return Fail(cmd.words[0], err);
  // The module is read as data: none of its code runs.
  const std::u16string wide(name.View());
  HMODULE module = ULoadLibraryEx(wide.c_str(), kLoadLibraryAsDatafile);
  if (!module) return Fail(cmd.words[0], MapWindowsError(0));
  std::printf("module %s\n", cmd.words[0].c_str());
  std::vector<UResEntry> entries;
  for (int i = 0;; ++i) {
    UResEntry e;
    if (!UEnumResource(module, i, &e)) break;
    entries.push_back(e);
  }
  std::map<unsigned, int> perType;
  for (const UResEntry& e : entries) ++perType[e.type];
  for (const UResEntry& e : entries) {
    if (e.type == 10 && e.id == 10001 && e.size >= 24) {
      // The id resource: 'DYL.' header, then the four range values.
      const unsigned char* p = e.bytes;
      auto at = [p](int o) {
        return static_cast<int>(p[o] | (p[o + 1] << 8) | (p[o + 2] << 16) |
                                (static_cast<unsigned>(p[o + 3]) << 24));
      };
      std::printf("ids %d..%d, errors %d..%d\n", at(8), at(12), at(16), at(20));
    }
  }
  std::printf("%zu resources\n", entries.size());
  for (const auto& [type, count] : perType) std::printf("  type %u: %d\n", type, count);
  for (const UResEntry& e : entries)
    if (e.type == 256) std::printf("string list %d: %u bytes\n", e.id, e.size);
  UFreeLibrary(module);
  return kExitOk;
}

constexpr char kUsage[] =
    "usage: qn COMMAND ARGS...   (qn COMMAND --help for each)\n"
    "  info FILE                what a file is and its headline facts\n"
    "  ls FILE [--json]         the chunks of a chunk file and its free space\n"
    "  verify FILE [--recover]  the map check and every chunk's hash\n"
    "  cat FILE TYPE ID [--raw] a chunk's data on standard output\n"
    "  put FILE TYPE ID [IN] [--pack]  stores a chunk (from IN or standard input)\n"
    "  rm FILE TYPE ID          removes a chunk\n"
    "  compact FILE             drops the free space of a chunk file\n"
    "  salvage FILE OUT         rebuilds a readable chunk file from a damaged one\n"
    "  pack IN OUT, unpack IN OUT  packed blocks\n"
    "  crc FILE                 the library's block checksum of a file\n"
    "  err CODE, err --win N    the message text of a library error code\n"
    "  res MODULE               what a resource module holds\n"
    "  tour DIR                 builds, saves, breaks and salvages a small store in DIR\n"
    "exit status: 0 done, 1 damaged or lost, 2 failed, 3 usage\n";

}  // namespace
}  // namespace qn

int main(int argc, char** argv) {
  using namespace qn;
  HookDebugLogfChar(CollectLogLine);
  TString words(u"vellores.dll");
  DLLoadLib(&words);
  if (argc < 2) {
    std::fputs(kUsage, stderr);
    return kExitUsage;
  }
  const std::string command = argv[1];
  const Words args(argv + 2, argv + argc);
  static const std::map<std::string, int (*)(const Words&)> commands = {
      {"info", Info},
      {"ls", Ls},
      {"verify", Verify},
      {"cat", Cat},
      {"put", Put},
      {"rm", Rm},
      {"compact", Compact},
      {"salvage", Salvage},
      {"tour", Tour},
      {"err", Err},
      {"crc", Crc},
      {"res", Res},
      {"pack", [](const Words& a) { return PackOrUnpack(a, true); }},
      {"unpack", [](const Words& a) { return PackOrUnpack(a, false); }},
  };
  if (command == "--help" || command == "-h" || command == "help") {
    std::fputs(kUsage, stdout);
    return kExitOk;
  }
  const auto found = commands.find(command);
  if (found == commands.end()) {
    std::fprintf(stderr, "qn: unknown command %s\n%s", command.c_str(), kUsage);
    return kExitUsage;
  }
  const int status = found->second(args);
  std::fflush(stdout);
  return status;
}
