// A drive letter mapped to a fresh folder for as long as the object lives,
// for programs that reach files by Windows paths (benchmarks, fuzz targets).
// The folder is made under `base` (the temporary folder unless given) with a
// random name after `prefix`; the destructor removes the mapping and the
// folder with everything in it. Header-only: the programs that use it link
// no test support.
#ifndef QUARNEL_TESTS_SUPPORT_SCRATCH_DRIVE_H_
#define QUARNEL_TESTS_SUPPORT_SCRATCH_DRIVE_H_

#include <filesystem>
#include <random>
#include <string>
#include <system_error>

#include "quarnel/platform/env.h"

class ScratchDrive {
 public:
  ScratchDrive(char16_t letter, const std::string& prefix,
               const std::filesystem::path& base = std::filesystem::temp_directory_path())
      : letter_(letter), root_(base / (prefix + std::to_string(std::random_device{}()))) {
    std::filesystem::create_directories(root_);
    QuarnelSetDrive(letter_, root_.c_str());
  }
  ~ScratchDrive() {
    QuarnelSetDrive(letter_, nullptr);
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
  }
  ScratchDrive(const ScratchDrive&) = delete;
  ScratchDrive& operator=(const ScratchDrive&) = delete;

  // The host folder the drive's root stands for.
  const std::filesystem::path& Root() const { return root_; }

 private:
  char16_t letter_;
  std::filesystem::path root_;
};

#endif  // QUARNEL_TESTS_SUPPORT_SCRATCH_DRIVE_H_
