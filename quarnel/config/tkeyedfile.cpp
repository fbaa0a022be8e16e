#include "quarnel/config/tkeyedfile.h"

#include <string>

#include "quarnel/platform/profile.h"

namespace {

const char16_t kDefault[] = u"Default";

TString DeviceSection(int n) {
  TString name;
  name.SPrintf(u"Device%02d", n);
  return name;
}

// The value of `key` in `section`, "" when there is none.
TString ReadKey(const TFileLoc& file, const TString& section, const TString* key) {
  TString path;
  file.GetPath(&path);
  std::u16string buffer(TString::kMaxLength + 1, u'\0');
  const unsigned n =
      UGetPrivateProfileString(section.Text(), key != nullptr ? key->Text() : u"", u"",
                               buffer.data(), static_cast<unsigned>(buffer.size()), path.Text());
  return TString(std::u16string_view(buffer.data(), n));
}

void WriteKey(const TFileLoc& file, const TString* key, const TString& value) {
  TString path;
  file.GetPath(&path);
  UWritePrivateProfileString(kDefault, key != nullptr ? key->Text() : u"", value.Text(),
                             path.Text());
}

}  // namespace

TKeyedFile::TKeyedFile() : section_(0), multiSec_(0), sectionCount_(0) {}
TKeyedFile::TKeyedFile(const TKeyedFile& other) = default;
TKeyedFile& TKeyedFile::operator=(const TKeyedFile& other) = default;
TKeyedFile::~TKeyedFile() = default;

int TKeyedFile::SetFile(const TFolderLoc* folder) {
  for (int n = 0;; ++n) {
    SetFile(folder, n);
    if (!file_.Exists()) return 0;
  }
}

int TKeyedFile::SetFile(const TFolderLoc* folder, int n) {
  TString name;
  name.SPrintf(u"device%02d.rdi", n);
  return SetFile(folder, name);
}

int TKeyedFile::SetFile(const TFolderLoc* folder, TString name) {
  section_ = 0;
  multiSec_ = 0;
  TFolderLoc where;
  if (folder != nullptr) where = *folder;
  file_.Set(&where, &name);
  return 0;
}

int TKeyedFile::GetFileLoc(TFileLoc* loc) const {
  if (loc != nullptr) *loc = file_;
  return 0;
}

int TKeyedFile::Exists() const { return file_.Exists(); }

int TKeyedFile::Delete(int clearAttributes) const { return file_.Delete(clearAttributes); }

int TKeyedFile::SetKey(const TString* key, const TString* value) {
  WriteKey(file_, key, value != nullptr ? *value : TString());
  return 0;
}

int TKeyedFile::SetKey(const TString* key, const unsigned* value) {
  TString text;
  text.SPrintf(u"0x%x", value != nullptr ? *value : 0u);
  WriteKey(file_, key, text);
  return 0;
}

int TKeyedFile::SetKey(const TString* key, const TDate* value) {
  TString text;
  if (value != nullptr) text.SPrintf(u"%D", value);
  WriteKey(file_, key, text);
  return 0;
}

TString TKeyedFile::currentSection() const {
  return multiSec_ ? DeviceSection(section_) : TString(kDefault);
}

int TKeyedFile::GetKey(const TString* key, TString* value) const {
  if (value != nullptr) *value = ReadKey(file_, currentSection(), key);
  return 0;
}

int TKeyedFile::GetKey(const TString* key, unsigned* value) const {
  if (value == nullptr) return 0;
  *value = 0;
  ReadKey(file_, currentSection(), key).SScanf(u"%u", value);
  return 0;
}

int TKeyedFile::isMultiSec(const TString* key) {
  multiSec_ = ReadKey(file_, TString(kDefault), key).IsEmpty() ? 1 : 0;
  return multiSec_;
}

int TKeyedFile::CountSections(const TString* key) {
  int count = 0;
  while (count < kMaxSections && !ReadKey(file_, DeviceSection(count), key).IsEmpty()) {
    multiSec_ = 1;
    ++count;
  }
  sectionCount_ = count;
  return count;
}
