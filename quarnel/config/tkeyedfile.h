// TKeyedFile: key=value settings in a sectioned text file of the Windows
// private-profile form (profile.h), as the per-device description files
// "device%02d.rdi" use it: one file per device with its keys in section
// "Default", or one file holding several devices in sections "Device00",
// "Device01", ...
//
// Values: text as given; unsigned numbers written as "0x%x" and read back
// through SScanf's "%u" (which takes the "0x" form); dates written with
// "%D". Reads come from the current section: "Device%02d" of the current
// section number when the multi-section flag is set (isMultiSec,
// CountSections), else "Default". Writes always go to "Default", whatever
// the flag: kept so, as the files were always written.
//
// No member reports a failure of the profile calls: a failed write goes
// unnoticed, a failed read gives the empty string (0 as a number). A
// TKeyedFile is a value used by one thread at a time; the file itself may be
// written by several threads and processes at once (profile.h).
#ifndef QUARNEL_CONFIG_TKEYEDFILE_H_
#define QUARNEL_CONFIG_TKEYEDFILE_H_

#include "quarnel/datetime/tdate.h"
#include "quarnel/fileio/location.h"
#include "quarnel/foundation/export.h"
#include "quarnel/text/tstring.h"

class QUARNEL_API TKeyedFile {
 public:
  static constexpr int kMaxSections = 100;

  TKeyedFile();
  TKeyedFile(const TKeyedFile& other);
  TKeyedFile& operator=(const TKeyedFile& other);
  ~TKeyedFile();

  // Each resets the section number and the multi-section flag to 0 and
  // returns 0. The file: the first "device%02d.rdi" (0, 1, 2, ...) that
  // does not exist in `folder`; "device%02d.rdi" of `n`; `name`.
  int SetFile(const TFolderLoc* folder);
  int SetFile(const TFolderLoc* folder, int n);
  int SetFile(const TFolderLoc* folder, TString name);
  int GetFileLoc(TFileLoc* loc) const;
  int Exists() const;
  int Delete(int clearAttributes) const;  // TFileLoc::Delete

  // Write into section "Default"; each returns 0.
  int SetKey(const TString* key, const TString* value);
  int SetKey(const TString* key, const unsigned* value);  // "0x%x"
  int SetKey(const TString* key, const TDate* value);     // "%D"
  // Read from the current section; a missing key gives "" (and 0). 0.
  int GetKey(const TString* key, TString* value) const;
  int GetKey(const TString* key, unsigned* value) const;  // the text scanned with "%u"

  // The flag becomes 0 when `key` has a value in "Default", else 1; returns it.
  int isMultiSec(const TString* key);
  // Counts the sections "Device00", "Device01", ... in which `key` has a
  // value, up to the first that has none (at most 100); each found sets the
  // multi-section flag. Returns the count, which is also kept.
  int CountSections(const TString* key);

  // The section number GetKey reads from when the flag is set.
  void SetSection(int n) { section_ = n; }
  int GetSection() const { return section_; }
  int IsMultiSection() const { return multiSec_; }
  int GetSectionCount() const { return sectionCount_; }

 private:
  // "Device%02d" of the section number when the flag is set, else "Default".
  TString currentSection() const;

  int section_;
  TFileLoc file_;
  int multiSec_;
  int sectionCount_;
};

#endif  // QUARNEL_CONFIG_TKEYEDFILE_H_
