#include "tests/support/helpers.h"

#include <cstdio>
#include <fstream>
#include <sstream>

#include "quarnel/resources/resmgr.h"

Bytes StringList(const ListEntries& entries, bool terminate) {
  Bytes bytes;
  for (const auto& [tag, text] : entries) {
    const std::size_t len = tag.size() + text.size();
    bytes.push_back(static_cast<unsigned char>(len & 0xFF));
    bytes.push_back(static_cast<unsigned char>(len >> 8));
    bytes.insert(bytes.end(), tag.begin(), tag.end());
    bytes.insert(bytes.end(), text.begin(), text.end());
    if (len & 1) bytes.push_back(0);
  }
  if (terminate) bytes.insert(bytes.end(), {0xFF, 0xFF});
  return bytes;
}

HostList::HostList(int id, const ListEntries& entries, bool terminate) : id_(id) {
  Set(entries, terminate);
}

HostList::~HostList() { RMAddHostKList(id_, nullptr, 0); }

void HostList::Set(const ListEntries& entries, bool terminate) {
  bytes_ = StringList(entries, terminate);
  RMAddHostKList(id_, bytes_.data(), static_cast<int>(bytes_.size()));
}

UnitLetters::UnitLetters() : HostList(16000, {{"KMkm", "KMGkmg"}, {"Zero", "Zero"}}) {}

std::string ErrorText(int code) { return Fmt(u"%E", code); }

std::string Grouped(long long v) {
  const std::string digits = std::to_string(v < 0 ? -v : v);
  std::string out;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    if (i > 0 && (digits.size() - i) % 3 == 0) out += ',';
    out += digits[i];
  }
  return v < 0 ? "-" + out : out;
}

std::vector<std::vector<std::string>> ReadTsv(const std::string& name) {
  std::vector<std::vector<std::string>> rows;
  std::ifstream in(std::string(QUARNEL_TEST_DATA_DIR) + "/" + name);
  EXPECT_TRUE(in.good()) << name;
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> fields;
    std::stringstream ss(line);
    std::string f;
    while (std::getline(ss, f, '\t')) fields.push_back(f);
    if (line.back() == '\t') fields.push_back("");
    rows.push_back(fields);
  }
  EXPECT_FALSE(rows.empty()) << name << " holds no rows";
  return rows;
}

std::string Hex(const std::string& bytes) {
  std::string out;
  char buf[4];
  for (unsigned char c : bytes) {
    std::snprintf(buf, sizeof buf, "%02X", c);
    out += buf;
  }
  return out;
}

std::string Unhex(const std::string& hex) {
  std::string out;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
    out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return out;
}

std::string Hex16(const std::u16string& units) {
  std::string out;
  char buf[8];
  for (char16_t u : units) {
    std::snprintf(buf, sizeof buf, "%s%04X", out.empty() ? "" : " ", static_cast<unsigned>(u));
    out += buf;
  }
  return out;
}

std::u16string Unhex16(const std::string& hex) {
  std::u16string units;
  std::istringstream in(hex);
  for (unsigned u; in >> std::hex >> u;) units.push_back(static_cast<char16_t>(u));
  return units;
}
