// Calendar sets: growth, comparisons, and the names and bits encodings, with a name table.
#include "core/net/calset.h"
#include <gtest/gtest.h>
#include <cstring>
#include <string>
#include <vector>
#include "core/base/base.h"
#include "core/net/memlimit.h"
#include "core/net/namelookup.h"

namespace quorvel {
namespace {
using namespace std::string_literals;
using Members = std::vector<int>;
const char *const kNames[] = {"ann", nullptr, "bob", "cy"};  // entry 1 has no name
int indexOf(void *, const char *name) {
  for (int i = 0; i < 4; i++)
    if (kNames[i] != nullptr && strcmp(kNames[i], name) == 0) return i;
  return -1;
}
const NameLookup kLookup{nullptr, [](void *) { return 4; }, [](void *, int i) { return kNames[i]; },
                         indexOf};
class CalSetTest : public testing::Test {
 protected:
  void SetUp() override { setNameLookup(&kLookup); }
  void TearDown() override { resetNameLookup(), freebits(&set), freebits(&other); }
  CalSet set = nullptr, other = nullptr;
};
CalSet makeSet(int bits, const Members &members) {  // null for 0 bits
  CalSet s = nullptr;
  for (allocbits(&s, bits); int i : members) setbit(&s, i, 1);
  return s;
}
Members members(const uint16_t *s) {
  Members out;
  for (int i = 0; i < setBitCount(s); i++)
    if (testbit(s, i)) out.push_back(i);
  return out;
}
template <class F>
std::string stderrOf(F f) {
  testing::internal::CaptureStderr();
  f();
  return testing::internal::GetCapturedStderr();
}

TEST_F(CalSetTest, SetbitAndAllocbitsKeepBitPositionsAndSetsEqualComparesMembers) {
  setbit(&set, 0, 1), setbit(&set, 17, 1);
  EXPECT_TRUE(setBitCount(set) == 18 && setByteSize(set) == 6);
  EXPECT_TRUE(set[1] == 0x0001 && set[2] == 0x0002);  // bit 17: word 2, position 1
  setbit(&set, 3, 1), setbit(&set, 0, 0), setbit(&set, -1, 1);  // (-1 ignored)
  EXPECT_TRUE(members(set) == (Members{3, 17}) && setMembers(set) == 2);
  EXPECT_FALSE(testbit(set, 100) || testbit(set, -5) || testbit(nullptr, 0));
  for (int i = 0; i < 20; i++) setbit(&set, i, 1);
  EXPECT_EQ((allocbits(&set, 18), set[2]), 0x0003);  // bits 18 and 19 cleared
  EXPECT_TRUE((allocbits(&set, 40), setByteSize(set)) == 8 && set[3] == 0 && setMembers(set) == 18);
  allocbits(&set, 16);  // a multiple of 16 drops whole words
  EXPECT_TRUE(setByteSize(set) == 4 && setMembers(set) == 16);
  allocbits(&set, 70000);  // beyond what word 0 holds: the largest set
  EXPECT_TRUE(setBitCount(set) == 0xFFFF && setByteSize(set) == 4096 * 2 + 2);
  EXPECT_EQ((allocbits(&set, 0), set), nullptr);
  // setsEqual compares members whatever the lengths.
  struct Row { int bitsA; Members a; int bitsB; Members b; bool equal; } rows[] = {
      {40, {}, 0, {}, true},    {40, {5}, 6, {5}, true},    {40, {5, 33}, 6, {5}, false},
      {40, {33}, 0, {}, false}, {16, {15}, 17, {15}, true}, {17, {16}, 17, {15}, false}};
  for (const Row &r : rows) {
    set = makeSet(r.bitsA, r.a), other = makeSet(r.bitsB, r.b);
    EXPECT_TRUE(setsEqual(set, other) == r.equal && setsEqual(other, set) == r.equal) << r.bitsA;
    freebits(&set), freebits(&other);
  }
}

TEST_F(CalSetTest, NamesEncodingListsNamedMembersOrAllSkipsUnknownNamesAndRefusesOversize) {
  struct Row { int bits; Members in; std::string text; Members back; } rows[] = {
      // Calendar 1 has no name and 5 is beyond the table: left out. No set: four zero bytes.
      {4, {0, 1, 3}, "`ann`cy`\0"s, {0, 3}}, {4, {0, 1, 2, 3}, "`__ALL__`\0"s, {0, 1, 2, 3}},
      {6, {0, 1, 2, 3, 5}, "`ann`bob`cy`\0"s, {0, 2, 3}}, {10, {}, "`\0"s, {}}, {0, {}, "", {}}};
  for (const Row &r : rows) {
    set = makeSet(r.bits, r.in);
    std::vector<char> out(size_t(netcharsSize(set)));
    int total = writenetchars(out.data(), out.size(), set);
    ASSERT_EQ(total, int(4 + r.text.size())) << r.text;
    EXPECT_EQ(std::string(out.data(), total), "\0\0\0"s + char(r.bits ? total : 0) + r.text);
    EXPECT_EQ(readnetchars(out.data(), out.size(), &other), total);
    EXPECT_EQ(members(other), r.back) << r.text;
    freebits(&set), freebits(&other);
  }
  char small[13];
  EXPECT_EQ(writenetchars(small, sizeof small, set = makeSet(4, {0, 1, 2, 3})), -1);  // 14 needed
  // Unknown names are skipped; a backquote not last in the field opens a name, overwritten.
  for (std::string names : {"`zed`cy`nobody`\0"s, "`__ALL__`bob`\0"s}) {
    std::string field = "\0\0\0"s + char(4 + names.size()) + names;
    EXPECT_EQ(readnetchars(field.data(), field.size(), &other), int(field.size()));
    EXPECT_EQ(members(other), (names[1] == 'z' ? Members{3} : Members{0, 1, 2, 3}));
  }
  for (int total : {13, 12}) {
    char text[] = "\0\0\0\x0d`bob`cy`";
    text[3] = char(total);
    EXPECT_EQ(readnetchars(text, size_t(total), &other), total);
    EXPECT_EQ(std::string(text + 4, 9), total == 13 ? "\0bob\0cy\0\0"s : "\0bob\0cy`\0"s);
  }
  // Oversize: 30721 beyond the limit, 100 beyond the area, 10 beyond the 9 bytes given.
  for (freebits(&other); auto [n, len] : {std::pair{30721u, 30721u}, {100u, 10u}, {10u, 9u}}) {
    std::string field = "\0"s + char(n >> 16) + char(n >> 8) + char(n) + "`ann`";
    field.resize(30721);
    int result = 0;
    EXPECT_EQ(stderrOf([&] { result = readnetchars(field.data(), len, &other); }),
              "readnetchars: nbytes too large " + std::to_string(n) + "\n");
    EXPECT_TRUE(result == 4 && other == nullptr) << n;
  }
}

TEST_F(CalSetTest, BitsEncodingRoundTripsUpTo2032BitsRefusesMoreAndSendsEmptySetsAsZero) {
  for (int n : {1, 15, 17, 33, 2032}) {
    set = makeSet(n, {0, n / 2, n - 1});
    std::vector<char> out(NETBITS_MAX);
    int bytes = writenetbits(out.data(), out.size(), set);
    EXPECT_EQ(bytes, ((n + 15) / 16) * 2 + 2) << n;
    EXPECT_EQ(uint8_t(out[0]) << 8 | uint8_t(out[1]), n);
    EXPECT_EQ(readnetset(out.data(), size_t(bytes), &other, 0), bytes) << n;
    EXPECT_TRUE(setBitCount(other) == n && members(other) == members(set)) << n;
    freebits(&set);
  }
  set = makeSet(10, {0, 9});  // bits 0 and 9 of word 1 give 0x0201
  char word[8];  // in network order
  EXPECT_EQ(writenetbits(word, sizeof word, set), 4);
  EXPECT_EQ(std::string(word, 4), "\0\x0a\2\1"s);
  // readnetbits replaces the set and copies the words whole: bits beyond the count go
  // out again as they came, but are no members, and growing the set brings in clear bits.
  for (int n : {1, 5}) {
    const std::string field = std::string("\0", 1) + char(n) + "\xFF\xFF";
    EXPECT_EQ(readnetbits(field.data(), 4, &other), 4);
    EXPECT_TRUE(setBitCount(other) == n && other[1] == 0xFFFF && setMembers(other) == n) << n;
    EXPECT_TRUE((writenetbits(word, sizeof word, other), std::string(word, 4)) == field);
    EXPECT_TRUE(setsEqual(other, set = makeSet(n, n == 1 ? Members{0} : Members{0, 1, 2, 3, 4})));
    setbit(&other, 8, 1), freebits(&set);
    EXPECT_EQ(members(other), (n == 1 ? Members{0, 8} : Members{0, 1, 2, 3, 4, 8})) << n;
  }
  EXPECT_EQ(readnetbits("\0\1\xFF\xFE", 4, &other), 4);  // bit 0 clear: no members, sent empty
  EXPECT_TRUE(setIsEmpty(other) && writenetbits(word, sizeof word, other) == 4 && !word[1]);
  freebits(&set), freebits(&other);  // refused: oversize; sent as zero: empty sets
  std::vector<char> out(512, 'k'), in(512, 0);
  set = makeSet(2033, {2032});  // 258 bytes
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(writenetbits(out.data(), out.size(), set), 4); }),
            "writenetbits: nbytes too large 258\n");
  EXPECT_EQ(std::string(out.data(), 4), std::string(4, '\0'));
  in[0] = char(2033 >> 8), in[1] = char(2033 & 0xFF);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(readnetbits(in.data(), in.size(), &other), 4); }),
            "readnetbits: nbytes too large 258\n");
  // 32 bits need 6 bytes
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(readnetbits("\0\x20\0\1", 4, &other), 4); }),
            "readnetbits: nbytes too large 6\n");
  EXPECT_EQ(other, nullptr);
  freebits(&set);
  for (CalSet s : {CalSet(nullptr), makeSet(40, {})}) {
    out.assign(out.size(), 'k');
    EXPECT_EQ(writenetbits(out.data(), out.size(), s), 4);
    EXPECT_EQ(std::string(out.data(), 4), std::string(4, '\0'));
    freebits(&s);
  }
  EXPECT_EQ(readnetbits(out.data(), 4, &other), 4);  // a zero count
  EXPECT_EQ(other, nullptr);
}

TEST(CalSetDeath, AllocbitsReportsOutOfMemory) {
  if (!memLimitWorks()) GTEST_SKIP() << "address-space cap breaks the sanitizer";
  CalSet s = nullptr;
  EXPECT_EXIT((exhaustMemory(), allocbits(&s, 60000), exitProcess(0)), testing::ExitedWithCode(1),
              "^OutOfMem: called from allocbits\\(\\)\n$");
}
}  // namespace
}  // namespace quorvel
