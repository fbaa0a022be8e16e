// The standard-C++ faces of the classes, used as a host uses them: linked
// against libquarnel.so through the umbrella header, so that this file also
// proves that each face compiles for a host and is exported.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <deque>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "quarnel/quarnel.h"
#include "tests/support/platform_cases.h"

namespace {

using Pairs = std::vector<std::pair<int, int>>;

template <class Range>
auto Collect(const Range& range) {
  std::vector<std::decay_t<decltype(*range.begin())>> out;
  for (auto v : range) out.push_back(v);
  return out;
}

// Moving keeps what the moved value held (heap blocks change hands, nothing
// is copied that need not be) and leaves the source empty and usable; the
// copies take const sources.
TEST(Faces, ValuesMoveIntoStandardContainersAndCopyFromConst) {
  std::vector<TString> strings;
  TString longText;
  longText.Fill(u'x', 400);  // beyond the inline area: on the heap
  const char16_t* block = longText.Text();
  strings.push_back(std::move(longText));
  strings.push_back(TString(u"short"));
  for (int i = 0; i < 20; ++i) strings.emplace_back(std::u16string(300 + i, u'y'));
  EXPECT_EQ(strings[0].Text(), block);
  EXPECT_EQ(longText.Length(), 0);
  longText.Append(u"again");
  EXPECT_TRUE(longText.Identical(u"again"));
  EXPECT_TRUE(strings[1].Identical(u"short"));
  EXPECT_EQ(strings.back().Length(), 319);

  // A string with a buffer out is copied, not robbed.
  TString locked(u"locked");
  locked.GetBuffer(10);
  TString copy(std::move(locked));
  EXPECT_TRUE(copy.Identical(u"locked"));
  EXPECT_TRUE(locked.Identical(u"locked"));
  locked.ReleaseBuffer(-1);

  // Purgeable blocks keep their place on the purge list when a vector moves
  // them; a stale entry would empty freed memory (AddressSanitizer) and
  // leave the moved blocks full.
  std::vector<TMemory> blocks;
  const TMemoryStats before = tmemGetStats();
  for (unsigned i = 0; i < 12; ++i) {
    TMemory m;
    m.SetSize(i % 2 ? 100 : 5000);  // inline and heap storage alike
    m.MemPtr()[7] = static_cast<unsigned char>(i);
    if (i < 6) m.SetFlags(kTMemPurgeable, 0);
    blocks.push_back(std::move(m));
    EXPECT_EQ(m.GetSize(), 0u);
    EXPECT_EQ(m.GetFlags(), 0u);
  }
  EXPECT_EQ(tmemGetStats().purgeableBlocks, before.purgeableBlocks + 6);
  for (unsigned i = 0; i < 12; ++i) EXPECT_EQ(blocks[i].MemPtr()[7], i);
  tmemPurgeBlocks(0);
  for (unsigned i = 0; i < 12; ++i) EXPECT_EQ(blocks[i].GetSize() == 0, i < 6) << i;
  {
    const TMemory& constBlock = blocks[9];
    const TMemory fromConst(constBlock);
    EXPECT_EQ(fromConst.MemPtr()[7], 9);
  }
  blocks.clear();
  EXPECT_EQ(tmemGetStats().heapBlocks, before.heapBlocks);
  EXPECT_EQ(tmemGetStats().purgeableBlocks, before.purgeableBlocks);

  TDict dict(10, 0);
  dict.Define(5, 50);
  dict.Define(0, 7);
  const TDict constDict(dict);
  TDict moved(std::move(dict));
  EXPECT_EQ(moved.Lookup(5), 50);
  EXPECT_EQ(moved.Lookup(0), 7);
  EXPECT_EQ(constDict.GetCount(), 2);
  EXPECT_EQ(dict.GetCount(), 0);
  dict.Define(1, 1);
  EXPECT_EQ(dict.Lookup(1), 1);

  TDict64 dict64(10, 1);
  dict64.Define(1ull << 40, 3);
  std::vector<TDict64> dicts64;
  dicts64.push_back(std::move(dict64));
  EXPECT_EQ(dicts64[0].Lookup(1ull << 40), 3u);
  EXPECT_EQ(dict64.GetCount(), 0);

  TDictLinear linear;
  linear.Define(4, 40);
  TDictLinear linearMoved(std::move(linear));
  EXPECT_EQ(linearMoved.Lookup(4), 40);
  EXPECT_EQ(linear.Lookup(4), 0);
  linear.Define(6, 60);  // the moved-from dictionary makes a new block
  EXPECT_EQ(linear.Lookup(6), 60);

  TList list;
  for (std::intptr_t i = 1; i <= 3; ++i) list.AddLast(i);
  void* second = list.Next(list.First());
  TList listMoved(std::move(list));
  EXPECT_EQ(TList::Item(second), 2);
  EXPECT_EQ(listMoved.Next(second), listMoved.GetAtRaw(2));
  EXPECT_EQ(list.Count(), 0);
  list.AddLast(9);
  EXPECT_EQ(list.GetFirst(), 9);

  TQueue queue(8);
  const unsigned char bytes[] = {1, 2, 3, 4, 5, 6};
  queue.AddToEnd(bytes, 6);
  unsigned char out[6];
  queue.GetFromFront(out, 4);
  queue.AddToEnd(bytes, 5);  // wraps round the ring's end
  TQueue queueMoved(std::move(queue));
  EXPECT_EQ(queue.GetSize(), 0u);
  EXPECT_EQ(queue.DataSize(), 0u);
  ASSERT_EQ(queueMoved.DataSize(), 7u);
  unsigned char all[7];
  ASSERT_EQ(queueMoved.GetFromFront(all, 7), 0);
  EXPECT_EQ(std::vector<unsigned char>(all, all + 7),
            (std::vector<unsigned char>{5, 6, 1, 2, 3, 4, 5}));

  ElementSpace space(4096, 0);
  const int ref = space.LmAdd("element", 8);
  std::vector<ElementSpace> spaces;
  spaces.push_back(std::move(space));
  EXPECT_STREQ(spaces[0].LmGet(ref), "element");
  EXPECT_EQ(space.LmCount(), 0);
  EXPECT_EQ(spaces[0].LmValid(), 0);

  TUint32Buffer numbers;
  numbers.Add(11);
  TDataBuffer records(12);
  records.Append("abcdefghijk", 1);
  std::vector<TUint32Buffer> buffers;
  buffers.push_back(std::move(numbers));
  TDataBuffer recordsMoved(std::move(records));
  EXPECT_EQ(buffers[0][0], 11u);
  EXPECT_EQ(numbers.Count(), 0u);
  EXPECT_EQ(recordsMoved.ElementSize(), 12u);
  EXPECT_STREQ(static_cast<const char*>(recordsMoved.GetAt(0)), "abcdefghijk");
}

// Range-for visits exactly what the old walks visit, in their order: random
// changes are checked against simple models after every step.
TEST(Faces, RangeForAgreesWithTheOldWalks) {
  const TLoadedLib words(TString(u"vellores.dll"));  // the unit letters of the log lines
  std::mt19937 rng(18);
  TDict dict(0, 1);
  TDict64 dict64(0, 0);
  TDictLinear linear;
  std::map<int, int> model;
  ElementSpace space(1024, 0);
  std::map<int, std::string> elements;
  TList list;
  std::deque<std::intptr_t> items;
  for (int step = 0; step < 600; ++step) {
    const int key = static_cast<int>(rng() % 40);
    const int value = static_cast<int>(rng() % 4);  // 0 removes
    dict.Define(key, value);
    dict64.Define(static_cast<std::uint64_t>(key) << 33, static_cast<std::uint64_t>(value));
    linear.Define(key, value);
    if (value == 0) {
      model.erase(key);
    } else {
      model[key] = value;
    }
    if (rng() % 3 != 0 || elements.empty()) {
      const std::string text(rng() % 20, static_cast<char>('a' + step % 26));
      elements[space.LmAdd(text.data(), static_cast<int>(text.size()))] = text;
    } else {
      auto it = std::next(elements.begin(), static_cast<long>(rng() % elements.size()));
      space.LmRemove(it->first);
      elements.erase(it);
    }
    if (rng() % 2 != 0 || items.empty()) {
      const int at = static_cast<int>(rng() % (items.size() + 1));
      list.AddAt(step, at);
      items.insert(items.begin() + at, step);
    } else {
      const int at = static_cast<int>(rng() % items.size());
      list.RemoveAt(at);
      items.erase(items.begin() + at);
    }

    const TDict& constDict = dict;
    Pairs walked;
    for (TDictIter it(constDict); it; ++it) walked.emplace_back(it.Key(), it.Data());
    ASSERT_EQ(Collect(constDict), walked);
    Pairs sorted = walked;
    std::sort(sorted.begin(), sorted.end());
    ASSERT_EQ(sorted, Pairs(model.begin(), model.end()));
    ASSERT_EQ(constDict.GetCount(), static_cast<int>(model.size()));
    Pairs wide;
    for (auto [k, v] : dict64) wide.emplace_back(static_cast<int>(k >> 33), static_cast<int>(v));
    std::sort(wide.begin(), wide.end());
    ASSERT_EQ(wide, sorted);
    Pairs small;
    for (const TDictLinear::Pair& p : linear) small.emplace_back(p.key, p.value);
    std::sort(small.begin(), small.end());
    ASSERT_EQ(small, sorted);

    const ElementSpace& constSpace = space;
    std::map<int, std::string> seen;
    for (auto e : constSpace)
      seen[e.refnum] = std::string(e.data, static_cast<std::size_t>(e.size));
    ASSERT_EQ(seen, elements);
    ASSERT_EQ(constSpace.LmValid(), 0);

    ASSERT_EQ(Collect(list), std::vector<std::intptr_t>(items.begin(), items.end()));
  }

  // The loop holds the list's monitor, and leaving it early lets it go.
  for (std::intptr_t item : list) {
    EXPECT_GE(list.EntryCount(), 1);
    if (item >= 0) break;
  }
  EXPECT_EQ(list.EntryCount(), 0);

  RNList numbers;
  TUint8Buffer bytes;
  TDateBuffer dates;
  TDataBuffer records(3);
  for (int i = 0; i < 50; ++i) {
    numbers.Add(i * 7 % 50);
    bytes.Add(static_cast<std::uint8_t>(i));
    records.Append("ab", 1);
  }
  dates.SetCount(4);
  std::vector<int> enumerated;
  for (int i = 0; i < numbers.Count(); ++i) enumerated.push_back(numbers.Enum(i));
  EXPECT_EQ(Collect(numbers), enumerated);
  const TUint8Buffer& constBytes = bytes;
  EXPECT_EQ(Collect(constBytes).size(), 50u);
  EXPECT_EQ(*(constBytes.end() - 1), 49);
  for (std::uint8_t& b : bytes) b = 7;
  EXPECT_EQ(bytes[49], 7);
  for (TDate& d : dates) EXPECT_EQ(&d, dates[static_cast<unsigned>(&d - dates.begin())]);
  std::vector<const void*> addresses;
  for (const void* r : records) addresses.push_back(r);
  ASSERT_EQ(addresses.size(), 50u);
  EXPECT_EQ(addresses[49], records.GetAt(49));
}

// A range-for over a TList keeps other threads' changes out until it ends.
TEST(FacesThread, RangeForHoldsTheListAgainstOtherThreads) {
  TList list;
  for (std::intptr_t i = 0; i < 1000; ++i) list.AddLast(i);
  std::atomic<bool> trying{false};
  std::thread writer;
  int seen = 0;
  for (std::intptr_t item : list) {
    if (item == 0) {
      writer = std::thread([&] {
        trying = true;
        for (int i = 0; i < 100; ++i) list.AddLast(-1);
      });
      while (!trying) std::this_thread::yield();
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ++seen;
  }
  writer.join();
  EXPECT_EQ(seen, 1000);
  EXPECT_EQ(list.Count(), 1100);
}

// UTF-8 in and out: characters beyond U+FFFF as surrogate pairs, each bad
// subsequence one U+FFFD and counted; the whole-text converter agrees with
// code page 65001 on random input.
TEST(Faces, Utf8RoundTripsAndCountsBadInput) {
  const struct {
    const char* utf8;
    std::u16string utf16;
    int replaced;
  } rows[] = {
      {"plain", u"plain", 0},
      {"caf\xC3\xA9 \xE2\x82\xAC", u"caf\u00e9 \u20ac", 0},
      {"\xF0\x9F\x98\x80!", u"\U0001F600!", 0},
      {"\xF4\x8F\xBF\xBF", u"\U0010FFFF", 0},
      {"a\x80"
       "b",
       u"a\ufffdb", 1},
      {"\xC0\xAF", u"\ufffd\ufffd", 2},                      // overlong
      {"\xED\xA0\x80", u"\ufffd\ufffd\ufffd", 3},            // a surrogate
      {"\xF4\x90\x80\x80", u"\ufffd\ufffd\ufffd\ufffd", 4},  // above U+10FFFF
      {"\xE2\x82", u"\ufffd", 1},                            // cut short
      {"\xF0\x9F\x98x", u"\ufffdx", 1},
      {"\xEF\xBF\xBD", u"\ufffd", 0},  // U+FFFD itself is no bad input
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.utf8);
    int replaced = -1;
    const TString s = TString::FromUtf8(row.utf8, &replaced);
    EXPECT_EQ(s.View(), row.utf16);
    EXPECT_EQ(replaced, row.replaced);
    EXPECT_EQ(s.ToU16String(), row.utf16);
    if (row.replaced == 0) {
      EXPECT_EQ(s.ToUtf8(), row.utf8);
    }
  }
  TString lone(u"x\xD800y\xDC00");
  int replaced = 0;
  EXPECT_EQ(lone.ToUtf8(&replaced), "x\xEF\xBF\xBDy\xEF\xBF\xBD");
  EXPECT_EQ(replaced, 2);
  TString viaView{std::u16string_view(u"\U0001F600 view")};
  EXPECT_EQ(viaView.AssignUtf8(viaView.ToUtf8()), 0);
  EXPECT_TRUE(viaView.Identical(u"\U0001F600 view"));
  EXPECT_EQ(TString(std::u16string(20000, u'z')).Length(), TString::kMaxLength);

  std::mt19937 rng(65001);
  for (int round = 0; round < 300; ++round) {
    std::string bytes(rng() % 24, '\0');
    for (char& b : bytes) b = static_cast<char>(rng() % 3 ? 0x80 + rng() % 0x78 : rng() % 0x80);
    std::u16string units(rng() % 12, u'\0');
    for (char16_t& u : units) u = static_cast<char16_t>(rng() % 2 ? 0xD7F0 + rng() % 0x420 : rng());
    char16_t wide[64];
    char narrow[64];
    const int nw =
        UMultiByteToWideChar(kCpUtf8, 0, bytes.data(), static_cast<int>(bytes.size()), wide, 64);
    const int nn = UWideCharToMultiByte(kCpUtf8, 0, units.data(), static_cast<int>(units.size()),
                                        narrow, 64, nullptr, nullptr);
    if (!bytes.empty() &&
        Utf8ToUtf16(bytes) != std::u16string(wide, static_cast<std::size_t>(nw)) &&
        WineDiffers(
            "MultiByteToWideChar(65001) reads broken sequences its own way (the byte "
            "after a cut sequence taken into it, one U+FFFD per byte of an overlong form)")) {
      continue;
    }
    if (!bytes.empty()) {
      ASSERT_EQ(Utf8ToUtf16(bytes), std::u16string(wide, static_cast<std::size_t>(nw)));
    }
    if (!units.empty()) {
      ASSERT_EQ(Utf16ToUtf8(units), std::string(narrow, static_cast<std::size_t>(nn)));
    }
  }
}

// Each guard gives back what it took at the end of its scope, and only that.
TEST(Faces, GuardsReleaseWhatTheyHold) {
  TString text(u"abc");
  {
    TStringBuffer buffer(text, 8);
    std::memcpy(buffer.Data(), u"abcdefg", 8 * sizeof(char16_t));
    buffer.SetLength(5);
  }
  EXPECT_TRUE(text.Identical(u"abcde"));
  {
    TStringAnsiText ansi(text);
    EXPECT_STREQ(ansi.Text(), "abcde");
    {
      TStringAnsiText again(text);  // asserts; the outer copy stays out
      EXPECT_EQ(again.Text(), ansi.Text());
    }
    EXPECT_EQ(ansi.View(), "abcde");  // still readable: the inner one did not close it
  }
  text = u"xyz";
  EXPECT_STREQ(TStringAnsiText(text).Text(), "xyz");  // a fresh copy: the first was closed

  const TString vellores(u"vellores.dll");
  {
    TLoadedLib lib(vellores);
    ASSERT_EQ(lib.Error(), 0) << "the default resource module is built beside the library";
    {
      TLoadedLib second(vellores);
      EXPECT_EQ(second.Error(), kErrModuleEntered);
      EXPECT_FALSE(second.IsLoaded());
    }
    EXPECT_EQ(TLoadedLib(vellores).Error(), kErrModuleEntered);  // still entered
    std::vector<TLoadedLib> held;
    held.push_back(std::move(lib));
    EXPECT_FALSE(lib.IsLoaded());
    EXPECT_TRUE(held[0].IsLoaded());
  }  // held[0] unloads it
  TLoadedLib reloaded(vellores);
  EXPECT_EQ(reloaded.Error(), 0);
}

}  // namespace
