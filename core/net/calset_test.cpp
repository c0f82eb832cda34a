// Tests of calendar sets: the bit set's growth and shrinking, comparisons, and the
// names and bits encodings, with a calendar-name table installed through the lookup.
#include "core/net/calset.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/base/base.h"
#include "core/net/memlimit.h"
#include "core/net/namelookup.h"

namespace quorvel {
namespace {

// A calendar-name table for the tests; an empty string stands for a nameless entry.
struct Table {
  std::vector<std::string> names;
  NameLookup lookup{this, count, nameOf, indexOf};

  static int count(void *ctx) { return int(static_cast<Table *>(ctx)->names.size()); }
  static const char *nameOf(void *ctx, int i) {
    const std::string &n = static_cast<Table *>(ctx)->names[size_t(i)];
    return n.empty() ? nullptr : n.c_str();
  }
  static int indexOf(void *ctx, const char *name) {
    auto &names = static_cast<Table *>(ctx)->names;
    for (size_t i = 0; i < names.size(); i++)
      if (!names[i].empty() && names[i] == name) return int(i);
    return -1;
  }
};

class CalSetTest : public testing::Test {
 protected:
  void install(std::vector<std::string> names) {
    table.names = std::move(names);
    setNameLookup(&table.lookup);
  }
  void TearDown() override {
    resetNameLookup();
    freebits(&set);
    freebits(&other);
  }
  Table table;
  CalSet set = nullptr;
  CalSet other = nullptr;
};

std::vector<int> members(const uint16_t *s) {
  std::vector<int> out;
  for (int i = 0; i < setBitCount(s); i++)
    if (testbit(s, i)) out.push_back(i);
  return out;
}

// The names field as text: the bytes after the length word.
std::string namesText(const std::vector<char> &field) {
  return std::string(field.data() + 4, field.size() - 4);
}

/* ---- The bit set -------------------------------------------------------------- */

TEST_F(CalSetTest, SetbitGrowsTheSetAndKeepsBitPositions) {
  setbit(&set, 0, 1);
  EXPECT_EQ(setBitCount(set), 1);
  EXPECT_EQ(setByteSize(set), 4);
  setbit(&set, 17, 1);
  EXPECT_EQ(setBitCount(set), 18);
  EXPECT_EQ(setByteSize(set), 6);
  EXPECT_EQ(set[1], 0x0001);
  EXPECT_EQ(set[2], 0x0002);  // bit 17 is word 2, position 1
  setbit(&set, 3, 1);
  setbit(&set, 0, 0);
  EXPECT_EQ(members(set), (std::vector<int>{3, 17}));
  EXPECT_EQ(setMembers(set), 2);
  setbit(&set, -1, 1);  // ignored
  EXPECT_EQ(setBitCount(set), 18);
  EXPECT_FALSE(testbit(set, 100));
  EXPECT_FALSE(testbit(set, -5));
  EXPECT_FALSE(testbit(nullptr, 0));
}

TEST_F(CalSetTest, AllocbitsClearsBitsCutOffAndZeroesAddedWords) {
  for (int i = 0; i < 20; i++) setbit(&set, i, 1);
  allocbits(&set, 18);
  EXPECT_EQ(setBitCount(set), 18);
  EXPECT_EQ(set[2], 0x0003);  // bits 18 and 19 cleared
  allocbits(&set, 40);
  EXPECT_EQ(setByteSize(set), 8);
  EXPECT_EQ(members(set).size(), 18u);
  EXPECT_EQ(set[3], 0);
  // Shrinking to a multiple of 16 drops whole words.
  allocbits(&set, 16);
  EXPECT_EQ(setByteSize(set), 4);
  EXPECT_EQ(setMembers(set), 16);
  allocbits(&set, 0);
  EXPECT_EQ(set, nullptr);
  EXPECT_EQ(setMembers(set), 0);
}

TEST_F(CalSetTest, SetsEqualIgnoresLengthsAndAbsentMeansEmpty) {
  EXPECT_TRUE(setsEqual(nullptr, nullptr));
  allocbits(&set, 40);
  EXPECT_TRUE(setsEqual(set, nullptr));
  EXPECT_TRUE(setsEqual(nullptr, set));
  setbit(&set, 5, 1);
  setbit(&other, 5, 1);
  EXPECT_EQ(setBitCount(other), 6);
  EXPECT_TRUE(setsEqual(set, other));
  EXPECT_TRUE(setsEqual(other, set));
  setbit(&set, 33, 1);
  EXPECT_FALSE(setsEqual(set, other));
  EXPECT_FALSE(setsEqual(other, set));
  EXPECT_FALSE(setsEqual(set, nullptr));

  copybits(&other, set);
  EXPECT_TRUE(setsEqual(set, other));
  EXPECT_NE(set, other);  // a copy, not the same storage
  setbit(&set, 1, 1);
  EXPECT_FALSE(testbit(other, 1));
  copybits(&other, nullptr);
  EXPECT_EQ(other, nullptr);
}

TEST_F(CalSetTest, EveryCalendarNeedsExactlyAllTableEntries) {
  EXPECT_FALSE(holdsEveryCalendar(set));  // no table, no calendars
  install({"ann", "bob", "cy"});
  addEveryCalendar(&set);
  EXPECT_EQ(members(set), (std::vector<int>{0, 1, 2}));
  EXPECT_TRUE(holdsEveryCalendar(set));
  setbit(&set, 1, 0);
  EXPECT_FALSE(holdsEveryCalendar(set));
  setbit(&set, 1, 1);
  setbit(&set, 5, 1);  // one beyond the table
  EXPECT_FALSE(holdsEveryCalendar(set));
}

/* ---- Names encoding ----------------------------------------------------------- */

TEST_F(CalSetTest, WritenetcharsListsNamedMembersBetweenBackquotes) {
  install({"ann", "", "bob", "cy"});
  setbit(&set, 0, 1);
  setbit(&set, 1, 1);  // no name: left out
  setbit(&set, 3, 1);
  std::vector<char> out(size_t(netcharsSize(set)));
  int total = writenetchars(out.data(), out.size(), set);
  ASSERT_EQ(total, 4 + 9);
  ASSERT_EQ(size_t(total), out.size());
  uint32_t word;
  memcpy(&word, out.data(), 4);
  EXPECT_EQ(ntohl(word), uint32_t(total));
  EXPECT_EQ(namesText(out), std::string("`ann`cy`\0", 9));

  // Too small an area is refused without writing past it.
  std::vector<char> small(5, 'k');
  EXPECT_EQ(writenetchars(small.data(), small.size(), set), -1);
}

TEST_F(CalSetTest, WritenetcharsSendsEveryCalendarAsAll) {
  install({"ann", "bob"});
  addEveryCalendar(&set);
  std::vector<char> out(64);
  EXPECT_EQ(writenetchars(out.data(), out.size(), set), 14);
  EXPECT_EQ(std::string(out.data() + 4, 10), std::string("`__ALL__`\0", 10));

  // An absent set is four zero bytes; an allocated empty one is a bare backquote.
  EXPECT_EQ(writenetchars(out.data(), out.size(), nullptr), 4);
  EXPECT_EQ(std::vector<char>(out.begin(), out.begin() + 4), std::vector<char>(4, 0));
  allocbits(&other, 10);
  EXPECT_EQ(writenetchars(out.data(), out.size(), other), 6);
  EXPECT_EQ(std::string(out.data() + 4, 2), std::string("`\0", 2));
}

TEST_F(CalSetTest, ReadnetcharsAddsKnownNamesAndSkipsUnknownOnes) {
  install({"ann", "bob", "cy", "dee"});
  setbit(&set, 1, 1);
  setbit(&set, 3, 1);
  std::vector<char> field(size_t(netcharsSize(set)));
  int total = writenetchars(field.data(), field.size(), set);
  EXPECT_EQ(readnetchars(field.data(), field.size(), &other), total);
  EXPECT_TRUE(setsEqual(set, other));
  // Every backquote before the closing NUL opens a name and is overwritten.
  EXPECT_EQ(namesText(field), std::string("\0bob\0dee\0\0", 10));

  // Names the table does not know add nothing; the known one still counts.
  freebits(&other);
  std::string text = "`zed`cy`nobody`";
  std::vector<char> raw(4);
  raw.insert(raw.end(), text.begin(), text.end());
  raw.push_back('\0');
  uint32_t word = htonl(uint32_t(raw.size()));
  memcpy(raw.data(), &word, 4);
  EXPECT_EQ(readnetchars(raw.data(), raw.size(), &other), int(raw.size()));
  EXPECT_EQ(members(other), (std::vector<int>{2}));
}

TEST_F(CalSetTest, ReadnetcharsExpandsAllAndRefusesOversizeFields) {
  install({"ann", "bob", "cy"});
  addEveryCalendar(&set);
  std::vector<char> field(64);
  int total = writenetchars(field.data(), field.size(), set);
  EXPECT_EQ(readnetchars(field.data(), size_t(total), &other), 14);
  EXPECT_EQ(members(other), (std::vector<int>{0, 1, 2}));

  // A zero length word is an empty 4-byte field.
  freebits(&other);
  std::vector<char> zero(4, 0);
  EXPECT_EQ(readnetchars(zero.data(), zero.size(), &other), 4);
  EXPECT_EQ(other, nullptr);

  // Beyond 30720 bytes, or beyond what the caller holds, the field is refused.
  std::vector<char> big(40000, '`');
  uint32_t word = htonl(30721);
  memcpy(big.data(), &word, 4);
  testing::internal::CaptureStderr();
  EXPECT_EQ(readnetchars(big.data(), big.size(), &other), 4);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "readnetchars: nbytes too large 30721\n");
  word = htonl(100);
  memcpy(big.data(), &word, 4);
  testing::internal::CaptureStderr();
  EXPECT_EQ(readnetchars(big.data(), 50, &other), 4);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "readnetchars: nbytes too large 100\n");
  EXPECT_EQ(other, nullptr);
}

/* ---- Bits encoding ------------------------------------------------------------ */

TEST_F(CalSetTest, NetbitsRoundTripsCountsThatAreNotMultiplesOfSixteen) {
  for (int n : {1, 15, 17, 33, 2032}) {
    freebits(&set);
    freebits(&other);
    for (int i = 0; i < n; i += 3) setbit(&set, i, 1);
    allocbits(&set, n);
    std::vector<char> out(NETBITS_MAX);
    int bytes = writenetbits(out.data(), out.size(), set);
    EXPECT_EQ(bytes, ((n + 15) / 16) * 2 + 2) << n;
    EXPECT_EQ(uint8_t(out[0]) << 8 | uint8_t(out[1]), n);
    EXPECT_EQ(readnetbits(out.data(), size_t(bytes), &other), bytes) << n;
    EXPECT_EQ(setBitCount(other), n);
    EXPECT_TRUE(setsEqual(set, other)) << n;
  }
  // Words travel in network order: bit 0 and bit 9 of word 1 give 0x0201.
  freebits(&set);
  setbit(&set, 0, 1);
  setbit(&set, 9, 1);
  std::vector<char> out(8);
  EXPECT_EQ(writenetbits(out.data(), out.size(), set), 4);
  EXPECT_EQ(std::vector<uint8_t>(out.begin(), out.begin() + 4),
            (std::vector<uint8_t>{0x00, 0x0A, 0x02, 0x01}));
}

TEST_F(CalSetTest, NetbitsRefusesSetsBeyond2032Bits) {
  setbit(&set, 2032, 1);  // 2033 bits: 258 bytes
  std::vector<char> out(512, 'k');
  testing::internal::CaptureStderr();
  EXPECT_EQ(writenetbits(out.data(), out.size(), set), 4);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "writenetbits: nbytes too large 258\n");
  EXPECT_EQ(std::vector<char>(out.begin(), out.begin() + 4), std::vector<char>(4, 0));

  std::vector<char> in(512, 0);
  in[0] = char(2033 >> 8);
  in[1] = char(2033 & 0xFF);
  testing::internal::CaptureStderr();
  EXPECT_EQ(readnetbits(in.data(), in.size(), &other), 4);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "readnetbits: nbytes too large 258\n");
  EXPECT_EQ(other, nullptr);

  // Empty sets and zero counts are four zero bytes each way.
  EXPECT_EQ(writenetbits(out.data(), out.size(), nullptr), 4);
  freebits(&set);
  allocbits(&set, 40);  // room for 40 bits, no members
  out.assign(out.size(), 'k');
  EXPECT_EQ(writenetbits(out.data(), out.size(), set), 4);
  EXPECT_EQ(std::vector<char>(out.begin(), out.begin() + 4), std::vector<char>(4, 0));
  EXPECT_EQ(readnetbits(in.data() + 100, 4, &other), 4);
  EXPECT_EQ(other, nullptr);
}

TEST_F(CalSetTest, ReadnetbitsReplacesTheSetAndDropsStrayBits) {
  for (int i = 0; i < 40; i++) setbit(&other, i, 1);
  // Count 5 with every bit of its word set: only bits 0..4 are members.
  std::vector<char> in = {0x00, 0x05, char(0xFF), char(0xFF)};
  EXPECT_EQ(readnetbits(in.data(), in.size(), &other), 4);
  EXPECT_EQ(setBitCount(other), 5);
  EXPECT_EQ(members(other), (std::vector<int>{0, 1, 2, 3, 4}));
  // A count whose words are not all there is refused.
  std::vector<char> cut = {0x00, 0x20, 0x00, 0x01};
  testing::internal::CaptureStderr();
  EXPECT_EQ(readnetbits(cut.data(), cut.size(), &set), 4);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "readnetbits: nbytes too large 6\n");
}

TEST_F(CalSetTest, ReadnetsetChoosesTheEncoding) {
  install({"ann", "bob"});
  setbit(&set, 1, 1);
  std::vector<char> names(64), bits(64);
  writenetchars(names.data(), names.size(), set);
  writenetbits(bits.data(), bits.size(), set);
  EXPECT_EQ(readnetset(names.data(), names.size(), &other, 1), 10);
  EXPECT_TRUE(setsEqual(set, other));
  freebits(&other);
  EXPECT_EQ(readnetset(bits.data(), bits.size(), &other, 0), 4);
  EXPECT_TRUE(setsEqual(set, other));
}

TEST(CalSetDeath, AllocbitsReportsOutOfMemory) {
  if (!memLimitWorks()) GTEST_SKIP() << "address-space cap breaks the sanitizer";
  EXPECT_EXIT(
      {
        CalSet s = nullptr;
        exhaustMemory();
        allocbits(&s, 60000);
        exitProcess(0);
      },
      testing::ExitedWithCode(1), "^OutOfMem: called from allocbits\\(\\)\n$");
}

}  // namespace
}  // namespace quorvel
