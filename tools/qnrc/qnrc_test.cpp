#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "quarnel/platform/resblob.h"
#include "tests/support/helpers.h"
#include "tools/qnrc/compiler.h"
#include "tools/qnrc/symbols.h"

namespace {

bool NoFiles(const std::string&, Bytes*) { return false; }

// Compiles and builds the blob; fails the test with the compiler's message.
Bytes Blob(const std::string& script, const qnrc::FileReader& reader = NoFiles) {
  std::vector<qnrc::Resource> resources;
  qnrc::Error error;
  EXPECT_TRUE(qnrc::Compile(script, "/scripts", reader, &resources, &error))
      << "line " << error.line << ": " << error.message;
  return qnrc::BuildBlob(resources);
}

qnrc::Error ErrorOf(const std::string& script, const qnrc::FileReader& reader = NoFiles) {
  std::vector<qnrc::Resource> resources;
  qnrc::Error error;
  EXPECT_FALSE(qnrc::Compile(script, "/scripts", reader, &resources, &error)) << script;
  return error;
}

Bytes Find(const Bytes& blob, unsigned type, int id) {
  UResBlob b;
  EXPECT_EQ(UResBlobOpen(blob.data(), blob.size(), &b), 0u);
  UResEntry e{};
  if (UResBlobFind(b, type, id, &e) == nullptr) return {};
  return Bytes(e.bytes, e.bytes + e.size);
}

using Records = std::vector<std::pair<std::string, std::string>>;

// The records of a string list, each a tag of four bytes and a text, as
// LoadKString walks them; the end marker must close the list.
Records ListRecords(const Bytes& list) {
  Records out;
  std::size_t at = 0;
  while (at + 2 <= list.size()) {
    const unsigned length = list[at] | list[at + 1] << 8;
    if (length == 0xFFFF || length < 4 || at + 2 + length > list.size()) break;
    const auto record = list.begin() + static_cast<std::ptrdiff_t>(at);
    out.emplace_back(std::string(record + 2, record + 6),
                     std::string(record + 6, record + 2 + length));
    at += 2 + length + (length & 1);
  }
  EXPECT_TRUE(at + 2 == list.size() && list[at] == 0xFF && list[at + 1] == 0xFF)
      << "the end marker closes the list";
  return out;
}

// The whole container of a small script, byte by byte: header, directory
// (numbered resources by type and id, then named ones), the name, then each
// resource's data on a 4-byte boundary.
TEST(Qnrc, WritesTheContainerByteForByte) {
  const Bytes blob = Blob(
      "moduleid 1 2 -3 -4\n"
      "stringlist 7 { 'Ab!?' \"xyz\" }\n"
      "resource 300 \"Nm\" { 1 2 }\n");
  const Bytes expected = {'Q', 'N', 'R', 'S', 0x01, 0x00, 0x14, 0x00, 0x03, 0x00, 0x00, 0x00, 0x7C,
                          0x00, 0x00, 0x00,
                          // (10, 10001): data at 84, 24 bytes
                          0x0A, 0x00, 0x00, 0x00, 0x11, 0x27, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                          0x54, 0x00, 0x00, 0x00, 0x18, 0x00, 0x00, 0x00,
                          // (256, 7): data at 108, 12 bytes
                          0x00, 0x01, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
                          0x6C, 0x00, 0x00, 0x00, 0x0C, 0x00, 0x00, 0x00,
                          // (300, "Nm"): name at 76, data at 120, 2 bytes
                          0x2C, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x4C, 0x00, 0x00, 0x00,
                          0x78, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00,
                          // the name "Nm", padding
                          0x02, 0x00, 'N', 0x00, 'm', 0x00, 0x00, 0x00,
                          // the module id resource: 'DYL.', 769, 769, 1, 2, -3, -4
                          0x2E, 0x4C, 0x59, 0x44, 0x01, 0x03, 0x01, 0x03, 0x01, 0x00, 0x00, 0x00,
                          0x02, 0x00, 0x00, 0x00, 0xFD, 0xFF, 0xFF, 0xFF, 0xFC, 0xFF, 0xFF, 0xFF,
                          // the string list: length 7, tag, text, pad, end
                          0x07, 0x00, 'A', 'b', '!', '?', 'x', 'y', 'z', 0x00, 0xFF, 0xFF,
                          // the named resource's bytes, padding to the blob's size
                          0x01, 0x02, 0x00, 0x00};
  EXPECT_EQ(blob, expected);
}

TEST(Qnrc, StringTableBlocksHoldSixteenCountedStrings) {
  const Bytes blob =
      Blob("stringtable { 17 \"bc\" 16 \"A\\xC3\\xA9\" 40 \"\\xF0\\x9F\\x98\\x80\" }\n");
  Bytes block2 = Find(blob, 6, 2);
  Bytes expected2 = {0x02, 0x00, 'A', 0x00, 0xE9, 0x00, 0x02, 0x00, 'b', 0x00, 'c', 0x00};
  for (int i = 2; i < 16; ++i) expected2.insert(expected2.end(), {0x00, 0x00});
  EXPECT_EQ(block2, expected2);
  // Id 40 is the ninth string of block 3; U+1F600 is a surrogate pair.
  Bytes expected3;
  for (int i = 0; i < 8; ++i) expected3.insert(expected3.end(), {0x00, 0x00});
  expected3.insert(expected3.end(), {0x02, 0x00, 0x3D, 0xD8, 0x00, 0xDE});
  for (int i = 9; i < 16; ++i) expected3.insert(expected3.end(), {0x00, 0x00});
  EXPECT_EQ(Find(blob, 6, 3), expected3);
  EXPECT_TRUE(Find(blob, 6, 1).empty());
}

TEST(Qnrc, DataItemsAndFiles) {
  const auto reader = [](const std::string& path, Bytes* bytes) {
    if (path != "/scripts/sub/x.bin") return false;
    *bytes = {9, 8, 7};
    return true;
  };
  const Bytes blob = Blob(
      "data 5 { u16 0x1234 u16be 0x1234 u32 -2 u32be 0x01020304 -1 255 \"a\" \"b\\n\\0\\x7\" }\n"
      "data 6 file \"sub/x.bin\"\n"
      "resource 77 -9 { }\n",
      reader);
  EXPECT_EQ(Find(blob, 10, 5), (Bytes{0x34, 0x12, 0x12, 0x34, 0xFE, 0xFF, 0xFF, 0xFF, 1, 2, 3, 4,
                                      0xFF, 0xFF, 'a', 'b', '\n', 0, 7}));
  EXPECT_EQ(Find(blob, 10, 6), (Bytes{9, 8, 7}));
  UResBlob b;
  ASSERT_EQ(UResBlobOpen(blob.data(), blob.size(), &b), 0u);
  EXPECT_NE(UResBlobFind(b, 77, -9, nullptr), nullptr);
}

// Icon and cursor files become a group and one resource per image, the
// images numbered from 1 past the ids the script uses itself.
TEST(Qnrc, IconAndCursorFilesBecomeGroupsAndImages) {
  const auto ico = [](int kind, std::vector<std::pair<int, Bytes>> images) {
    Bytes f = {0, 0, static_cast<unsigned char>(kind), 0, static_cast<unsigned char>(images.size()),
               0};
    unsigned offset = 6 + 16 * static_cast<unsigned>(images.size());
    for (const auto& [size, data] : images) {
      // Width, height, colours, reserved, hot spot (3, 4), size, offset.
      const auto side = static_cast<unsigned char>(size);
      f.insert(f.end(), {side, side, 0, 0, 3, 0, 4, 0, static_cast<unsigned char>(data.size()), 0,
                         0, 0, static_cast<unsigned char>(offset), 0, 0, 0});
      offset += static_cast<unsigned>(data.size());
    }
    for (const auto& image : images) f.insert(f.end(), image.second.begin(), image.second.end());
    return f;
  };
  Bytes bitmapHeader(16, 0);
  bitmapHeader[14] = 32;  // bit count of the image
  const std::map<std::string, Bytes> files = {
      {"/scripts/a.ico", ico(1, {{16, {1, 2, 3}}, {32, {4, 5}}})},
      {"/scripts/c.cur", ico(2, {{32, bitmapHeader}})},
      {"/scripts/b.bmp",
       Bytes{'B', 'M', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 12, 0, 0, 0, 2, 0, 3, 0, 1, 0, 24, 0}}};
  const auto reader = [&](const std::string& path, Bytes* bytes) {
    const auto it = files.find(path);
    if (it == files.end()) return false;
    *bytes = it->second;
    return true;
  };
  const Bytes blob = Blob(
      "resource 3 1 { 0 }\n"
      "icon 100 \"a.ico\"\n"
      "cursor 101 \"c.cur\"\n"
      "bitmap \"Pic\" \"b.bmp\"\n",
      reader);
  // Images 2 and 3 (1 is taken by the script), each entry ending in its id.
  EXPECT_EQ(Find(blob, 14, 100), (Bytes{0,  0,  1, 0, 2, 0,                          //
                                        16, 16, 0, 0, 3, 0, 4, 0, 3, 0, 0, 0, 2, 0,  //
                                        32, 32, 0, 0, 3, 0, 4, 0, 2, 0, 0, 0, 3, 0}));
  EXPECT_EQ(Find(blob, 3, 2), (Bytes{1, 2, 3}));
  EXPECT_EQ(Find(blob, 3, 3), (Bytes{4, 5}));
  // A cursor image starts with its hot spot (3, 4); its group entry holds
  // 16-bit width, doubled height, one plane, the bit count and the size.
  EXPECT_EQ(Find(blob, 12, 101), (Bytes{0,  0, 2,  0, 1, 0,  //
                                        32, 0, 64, 0, 1, 0, 32, 0, 20, 0, 0, 0, 1, 0}));
  Bytes cursor = {3, 0, 4, 0};
  cursor.insert(cursor.end(), bitmapHeader.begin(), bitmapHeader.end());
  EXPECT_EQ(Find(blob, 1, 1), cursor);
  UResBlob b;
  ASSERT_EQ(UResBlobOpen(blob.data(), blob.size(), &b), 0u);
  UResEntry e{};
  ASSERT_NE(UResBlobFindNamed(b, 2, u"PIC", 3, &e), nullptr);
  EXPECT_EQ(Bytes(e.bytes, e.bytes + e.size), (Bytes{12, 0, 0, 0, 2, 0, 3, 0, 1, 0, 24, 0}));
}

struct BadScript {
  const char* script;
  int line;
  const char* message;
};

TEST(Qnrc, ReportsBadScriptsWithTheirLine) {
  const BadScript rows[] = {
      {"stringlist 1 {\n  'abc' \"x\"\n}", 2, "tag 'abc' must be four characters"},
      {"stringlist 1 {\n  'ab\\x80c' \"x\"\n}", 2,
       "tag 'ab\\x80c' is not a four-character code (no byte above 0x7F, at least one letter, "
       "digit or punctuation character)"},
      {"stringlist 1 { 'Abcd' \"x\"\n 'Abcd' \"y\" }", 2,
       "tag 'Abcd' appears twice in string list 1"},
      {"stringlist 1 { 'Abcd' }", 1, "expected a text in double quotes"},
      {"stringlist 1 { 'Abcd' \"x }", 1, "unterminated text"},
      {"stringlist 1 'Abcd' \"x\"", 1, "expected '{'"},
      {"\n\nfrobnicate 3", 3, "unknown statement 'frobnicate'"},
      {"data 1 { 256 }", 1, "a byte 256 is out of range (-128..255)"},
      {"data 1 { u16 70000 }", 1, "a 16-bit word 70000 is out of range (-32768..65535)"},
      {"data 1 { u64 1 }", 1, "unknown item 'u64' (a byte, a text, u16, u32, u16be or u32be)"},
      {"data 1 { 12ab }", 1, "bad number '12ab'"},
      {"data 1 { 0x100000000 }", 1, "number '0x100000000' is out of range"},
      {"data 1 { \"\\q\" }", 1, "unknown escape '\\q'"},
      {"data 1 { 1 2", 1, "expected a byte, a text or '}'"},
      {"data 1 file \"missing.bin\"", 1, "cannot read file \"/scripts/missing.bin\""},
      {"data 1 { }\n\ndata 1 { 2 }", 3, "resource type 10 id 1 is defined twice (first on line 1)"},
      {"resource 5 \"Ab\" { }\nresource 5 \"aB\" { }", 2,
       "resource type 5 name \"aB\" is defined twice (first on line 1)"},
      {"resource 0 1 { }", 1, "a resource type 0 is out of range (1..2147483647)"},
      {"resource 5 \"\" { }", 1, "a resource name has 1 to 255 characters"},
      {"moduleid 1 2 3", 1, "expected the last error code"},
      {"moduleid 1 2 3 4\ndata 10001 { }", 2,
       "resource type 10 id 10001 is defined twice (first on line 1)"},
      {"stringtable { 70000 \"x\" }", 1, "a string id 70000 is out of range (0..65535)"},
      {"stringtable { 3 \"x\"\n3 \"y\" }", 2, "string 3 is defined twice (first on line 1)"},
      {"data 1 { 1 } @", 1, "unexpected character '@'"},
      {"# only a comment\n{", 2, "expected a statement"},
  };
  for (const BadScript& row : rows) {
    SCOPED_TRACE(row.script);
    const qnrc::Error e = ErrorOf(row.script);
    EXPECT_EQ(e.line, row.line);
    EXPECT_EQ(e.message, row.message);
  }
  // Files that are not what the statement needs.
  const auto junk = [](const std::string&, Bytes* bytes) {
    *bytes = {0, 0, 1, 0, 1, 0, 16, 16, 0, 0, 1, 0, 32, 0, 200, 0, 0, 0, 22, 0, 0, 0};
    return true;
  };
  EXPECT_EQ(ErrorOf("icon 1 \"a.ico\"", junk).message,
            "\"a.ico\" is not an icon file: image 1 lies outside the file");
  EXPECT_EQ(ErrorOf("cursor 1 \"a.ico\"", junk).message,
            "\"a.ico\" is not a cursor file: bad header");
  EXPECT_EQ(ErrorOf("bitmap 1 \"a.ico\"", junk).message, "\"a.ico\" is not a bitmap file");
  const std::string longText(65531, 'x');
  EXPECT_EQ(ErrorOf("stringlist 1 { 'Long' \"" + longText + "\" }").message,
            "text of 'Long' is too long (65531 bytes; at most 65530)");
}

// Random string lists compiled and read back entry by entry, as LoadKString
// walks them.
TEST(Qnrc, RandomStringListsReadBack) {
  std::mt19937 rng(20240611);
  for (int round = 0; round < 200; ++round) {
    std::map<int, std::map<std::string, std::string>> model;
    std::string script;
    const int lists = 1 + static_cast<int>(rng() % 4);
    for (int l = 0; l < lists; ++l) {
      const int id = static_cast<int>(rng() % 100000) - 50000;
      if (model.count(id)) continue;
      auto& entries = model[id];
      script += "stringlist " + std::to_string(id) + " {\n";
      const int n = static_cast<int>(rng() % 12);
      for (int k = 0; k < n; ++k) {
        std::string tag;
        for (int c = 0; c < 4; ++c) tag += static_cast<char>('A' + rng() % 58);  // A..z, [\]^_`
        if (entries.count(tag) || tag.find('\\') != std::string::npos) continue;
        std::string text;
        const int len = static_cast<int>(rng() % 9);
        std::string escaped;
        for (int c = 0; c < len; ++c) {
          const unsigned char b = static_cast<unsigned char>(1 + rng() % 255);
          text += static_cast<char>(b);
          char buf[8];
          std::snprintf(buf, sizeof buf, "\\x%02X", b);
          escaped += buf;
        }
        entries[tag] = text;
        script += "  '" + tag + "' \"" + escaped + "\"\n";
      }
      script += "}\n";
    }
    SCOPED_TRACE(script);
    const Bytes blob = Blob(script);
    for (const auto& [id, entries] : model) {
      const auto records = ListRecords(Find(blob, 256, id));
      const std::map<std::string, std::string> seen(records.begin(), records.end());
      EXPECT_EQ(seen, entries);
    }
  }
}

// The program itself: outputs on success, "SCRIPT:LINE: error: ..." and
// status 1 on failure.
TEST(Qnrc, ProgramWritesBothOutputsOrReportsTheError) {
  const auto dir = std::filesystem::temp_directory_path() /
                   ("qnrc_test_" + std::to_string(std::random_device{}()));
  std::filesystem::create_directories(dir);
  const auto write = [](const std::filesystem::path& p, const std::string& text) {
    std::ofstream(p, std::ios::binary) << text;
  };
  const auto read = [](const std::filesystem::path& p) {
    const Bytes bytes = ReadBytes(p.string());
    return std::string(bytes.begin(), bytes.end());
  };
  write(dir / "ok.qrc", "stringlist 7 { 'Ab!?' \"xyz\" }\n");
  const std::string run = std::string(QNRC_PROGRAM) + " " + (dir / "ok.qrc").string() + " -o " +
                          (dir / "ok.qnrb").string() + " -c " + (dir / "ok.cpp").string() +
                          " --symbol my_blob 2>" + (dir / "err.txt").string();
  EXPECT_EQ(std::system(run.c_str()), 0);
  const std::string blob = read(dir / "ok.qnrb");
  const Bytes expected = Blob("stringlist 7 { 'Ab!?' \"xyz\" }\n");
  EXPECT_EQ(Bytes(blob.begin(), blob.end()), expected);
  const std::string cpp = read(dir / "ok.cpp");
  EXPECT_NE(cpp.find("section(\".qnres\")"), std::string::npos);
  EXPECT_NE(cpp.find("const unsigned char my_blob[" + std::to_string(expected.size()) + "] = {"),
            std::string::npos);
  EXPECT_NE(cpp.find("0x51, 0x4E, 0x52, 0x53,"), std::string::npos);

  write(dir / "bad.qrc", "# comment\nstringlist 7 {\n  'Ab!' \"xyz\"\n}\n");
  const std::string bad = std::string(QNRC_PROGRAM) + " " + (dir / "bad.qrc").string() + " -o " +
                          (dir / "bad.qnrb").string() + " 2>" + (dir / "err.txt").string();
  EXPECT_NE(std::system(bad.c_str()), 0);
  EXPECT_EQ(read(dir / "err.txt"),
            (dir / "bad.qrc").string() + ":3: error: tag 'Ab!' must be four characters\n");
  EXPECT_FALSE(std::filesystem::exists(dir / "bad.qnrb"));
  std::filesystem::remove_all(dir);
}

// The resource script for the Windows resource compiler: raw words with the
// odd last byte as a one-byte text, names quoted, cursor and icon types as
// side files (each followed by a statement that ends the file name).
TEST(Qnrc, WritesAResourceScriptForWindows) {
  std::vector<qnrc::Resource> resources;
  qnrc::Error error;
  ASSERT_TRUE(qnrc::Compile(
      "data 7 { 1 2 3 }\nresource 300 \"Nm x\" { 0x41 0x42 }\nresource 1 5 { 9 0 11 0 }\n"
      "data 8 { }\n",
      "/scripts", NoFiles, &resources, &error));
  std::string rc;
  std::vector<qnrc::SideFile> side;
  ASSERT_TRUE(qnrc::ResourcesToRc(resources, "t.qrc", "/out/t.rc.d", &rc, &side, &error));
  EXPECT_NE(rc.find("\n5 1 \"/out/t.rc.d/0.bin\"\nLANGUAGE 0, 0\n"), std::string::npos) << rc;
  EXPECT_NE(rc.find("\n7 10 {\n  0x0201,\n  \"\\x03\"\n}\n"), std::string::npos) << rc;
  EXPECT_NE(rc.find("\n8 10 {\n}\n"), std::string::npos) << rc;
  EXPECT_NE(rc.find("\n\"Nm x\" 300 {\n  0x4241\n}\n"), std::string::npos) << rc;
  ASSERT_EQ(side.size(), 1u);
  EXPECT_EQ(side[0].path, "/out/t.rc.d/0.bin");
  EXPECT_EQ(side[0].bytes, (Bytes{9, 0, 11, 0}));

  // What Windows cannot number or name is refused, with its line.
  for (const char* script : {"data -9 { 1 }", "resource 70000 1 { 1 }", "data 70000 { 1 }",
                             "resource 300 \"a\\\"b\" { 1 }"}) {
    SCOPED_TRACE(script);
    resources.clear();
    ASSERT_TRUE(qnrc::Compile(script, "/scripts", NoFiles, &resources, &error));
    EXPECT_FALSE(qnrc::ResourcesToRc(resources, "t.qrc", "/out", &rc, &side, &error));
    EXPECT_EQ(error.line, 1);
  }
}

// A symbol map's tag: the offset's four bytes, lowest first.
std::string Tag(std::uint32_t offset) {
  std::string tag;
  for (int k = 0; k < 4; ++k) tag += static_cast<char>(offset >> (8 * k));
  return tag;
}

}  // namespace

TEST(QnrcSymbols, MapKeepsOneDemangledNamePerOffsetInOrder) {
  const std::string longName = "_Z" + std::to_string(300) + std::string(300, 'f') + "v";
  const Bytes map = qnrc::BuildSymbolMap({
      {0x300, "_ZN7TString6AppendEPKDss", true},
      {0x100, "local_alias", false},
      {0x100, "global_alias", true},
      {0x100, "g", true},
      {0x200, longName, true},
      {0x1'0000'0000ull, "too_far", true},
      {0x180, "odd", false},
  });
  EXPECT_EQ(ListRecords(map), (Records{{Tag(0x100), "g"},    // global, then the shortest
                                       {Tag(0x180), "odd"},  // an odd record length is padded
                                       {Tag(0x200), std::string(qnrc::kMaxSymbolName, 'f')},
                                       {Tag(0x300), "TString::Append(char16_t const*, short)"}}));
}

// The build links the crash report's test module twice and checks every
// module's map with "qnrc --check-symbols"; this checks what that runs.
TEST(QnrcSymbols, ModulesCarryTheMapOfTheirOwnCode) {
  const std::string dir = QUARNEL_TEST_MODULE_DIR;
  const Bytes mapped = ReadBytes(dir + "/libqnt_crashcode.so");
  const Bytes unmapped = ReadBytes(dir + "/libqnt_crashcode_unmapped.so");
  ASSERT_FALSE(mapped.empty());
  std::string error;
  EXPECT_TRUE(qnrc::CheckSymbolMap(mapped, &error)) << error;
  EXPECT_FALSE(qnrc::CheckSymbolMap(unmapped, &error));
  EXPECT_EQ(error, "the module carries no symbol map");
  EXPECT_FALSE(qnrc::CheckSymbolMap(Bytes{1, 2, 3}, &error));

  // The map of one module in another's container does not pass.
  qnrc::Resource foreign;
  ASSERT_TRUE(qnrc::SymbolMapResource(ReadBytes(dir + "/libqnt_full.so"), &foreign, &error));
  qnrc::Resource own;
  ASSERT_TRUE(qnrc::SymbolMapResource(unmapped, &own, &error));
  EXPECT_NE(foreign.data, own.data);
  EXPECT_EQ(own.type, 256u);
  EXPECT_EQ(own.id, 1);
}
