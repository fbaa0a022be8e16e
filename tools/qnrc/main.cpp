// qnrc: the resource compiler.
//
//   qnrc SCRIPT [-o BLOB] [-c SOURCE] [-r RCSCRIPT] [--symbol NAME]
//        [--symbols-from MODULE]
//   qnrc --check-symbols MODULE
//
// Reads the resource script SCRIPT and writes the resource container as a
// plain file (-o) and as C++ source to compile into a module or the host
// executable (-c; the array is named NAME, "quarnel_resources" unless given),
// and as a resource script for the Windows resource compiler (-r).
// --symbols-from adds the symbol map (resource 256, id 1) of the functions of
// MODULE, a linked shared object, program or DLL: the build links a module
// once, then links it again with the resources that carry its map.
// --check-symbols checks that MODULE carries the map its own functions give
// (its code did not move when the map was linked in).
// Errors go to standard error as "SCRIPT:LINE: error: MESSAGE"; the exit
// status is then 1 and no output is written.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tools/qnrc/compiler.h"
#include "tools/qnrc/symbols.h"

namespace {

bool ReadAll(const std::string& path, std::vector<unsigned char>* bytes) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  bytes->assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  return !in.bad();
}

bool WriteAll(const std::string& path, const void* data, std::size_t size) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) return false;
  out.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
  return static_cast<bool>(out.flush());
}

int Usage() {
  std::fprintf(stderr,
               "usage: qnrc SCRIPT [-o BLOB] [-c SOURCE] [-r RCSCRIPT] [--symbol NAME]\n"
               "            [--symbols-from MODULE]\n"
               "       qnrc --check-symbols MODULE\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  std::string script;
  std::string blobPath;
  std::string cppPath;
  std::string rcPath;
  std::string symbol = "quarnel_resources";
  std::string symbolsFrom;
  std::string checkSymbols;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if ((a == "-o" || a == "-c" || a == "-r" || a == "--symbol") && i + 1 < argc) {
      (a == "-o" ? blobPath : a == "-c" ? cppPath : a == "-r" ? rcPath : symbol) = argv[++i];
    } else if ((a == "--symbols-from" || a == "--check-symbols") && i + 1 < argc) {
      (a == "--symbols-from" ? symbolsFrom : checkSymbols) = argv[++i];
    } else if (!a.empty() && a[0] != '-' && script.empty()) {
      script = a;
    } else {
      return Usage();
    }
  }
  if (!checkSymbols.empty()) {
    if (!script.empty()) return Usage();
    std::vector<unsigned char> module;
    std::string problem;
    if (!ReadAll(checkSymbols, &module)) problem = "cannot read the module";
    if (problem.empty() && !qnrc::CheckSymbolMap(module, &problem)) {
      // problem says what
    }
    if (!problem.empty()) {
      std::fprintf(stderr, "%s: error: %s\n", checkSymbols.c_str(), problem.c_str());
      return 1;
    }
    return 0;
  }
  if (script.empty()) return Usage();

  std::vector<unsigned char> text;
  if (!ReadAll(script, &text)) {
    std::fprintf(stderr, "%s: error: cannot read the script\n", script.c_str());
    return 1;
  }
  const std::size_t slash = script.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : script.substr(0, slash);
  std::vector<qnrc::Resource> resources;
  qnrc::Error error;
  if (!qnrc::Compile(std::string(text.begin(), text.end()), folder, ReadAll, &resources, &error)) {
    std::fprintf(stderr, "%s:%d: error: %s\n", script.c_str(), error.line, error.message.c_str());
    return 1;
  }
  if (!symbolsFrom.empty()) {
    std::vector<unsigned char> module;
    qnrc::Resource map;
    std::string problem;
    if (!ReadAll(symbolsFrom, &module)) {
      problem = "cannot read the module";
    } else if (qnrc::SymbolMapResource(module, &map, &problem)) {
      if (!qnrc::AddResource(&resources, std::move(map))) {
        problem = "the script defines resource 256 1 itself";
      }
    }
    if (!problem.empty()) {
      std::fprintf(stderr, "%s: error: %s\n", symbolsFrom.c_str(), problem.c_str());
      return 1;
    }
  }
  const std::vector<unsigned char> blob = qnrc::BuildBlob(resources);
  const std::string name = slash == std::string::npos ? script : script.substr(slash + 1);
  std::string rc;
  std::vector<qnrc::SideFile> sideFiles;
  if (!rcPath.empty() &&
      !qnrc::ResourcesToRc(resources, name, rcPath + ".d", &rc, &sideFiles, &error)) {
    std::fprintf(stderr, "%s:%d: error: %s\n", script.c_str(), error.line, error.message.c_str());
    return 1;
  }
  if (!blobPath.empty() && !WriteAll(blobPath, blob.data(), blob.size())) {
    std::fprintf(stderr, "%s: error: cannot write\n", blobPath.c_str());
    return 1;
  }
  if (!cppPath.empty()) {
    const std::string source = qnrc::BlobToCpp(blob, symbol, name);
    if (!WriteAll(cppPath, source.data(), source.size())) {
      std::fprintf(stderr, "%s: error: cannot write\n", cppPath.c_str());
      return 1;
    }
  }
  if (!sideFiles.empty()) std::filesystem::create_directories(rcPath + ".d");
  for (const qnrc::SideFile& file : sideFiles) {
    if (!WriteAll(file.path, file.bytes.data(), file.bytes.size())) {
      std::fprintf(stderr, "%s: error: cannot write\n", file.path.c_str());
      return 1;
    }
  }
  if (!rcPath.empty() && !WriteAll(rcPath, rc.data(), rc.size())) {
    std::fprintf(stderr, "%s: error: cannot write\n", rcPath.c_str());
    return 1;
  }
  return 0;
}
