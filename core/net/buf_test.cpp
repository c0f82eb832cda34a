// The message buffer: field layout, growth in 3996-byte blocks to a cap, fit checks, cursor.
#include "core/net/buf.h"
#include <gtest/gtest.h>
#include <array>
#include <cstring>
#include <string>
#include <vector>
#include "core/base/base.h"
#include "core/net/memlimit.h"

namespace quorvel {
namespace {
using namespace std::string_literals;
class BufTest : public testing::Test {
 protected:
  void TearDown() override { freeBuf(b); }
  void load(const std::string &bytes, size_t start = 0) {  // a buffer of exactly these bytes
    freeBuf(b), b = NewBuf(), growBuf(b, bytes.size());
    if (!bytes.empty()) memcpy(bufData(b), bytes.data(), bytes.size());
    seekBuf(b, start);
  }
  std::string bytes(size_t from, size_t to) const { return {(char *)bufAt(b, from), to - from}; }
  Buf *b = NewBuf();
};
template <class F>
std::string stderrOf(F f) {
  testing::internal::CaptureStderr();
  f();
  return testing::internal::GetCapturedStderr();
}
template <class T>
std::string native(std::initializer_list<T> v) {
  return std::string(reinterpret_cast<const char *>(v.begin()), v.size() * sizeof(T));
}

TEST_F(BufTest, StuffBufPadsFieldsToFourBytesAndReadBufTakesThemBack) {
  struct Row { std::string payload; int granularity; uint32_t tag; std::string bytes; } rows[] = {
      {"hello", 1, bufTag('T'), "T\0\0\5hello\0\0\0"s},
      {"hello", 1, BUF_UNTAGGED, "hello\0\0\0"s},
      {"abcd", 1, bufTag('J'), "J\0\0\4abcd"s},
      {native<uint16_t>({0x0102, 0xA0B0, 7}), 2, bufTag('D'), "D\0\0\6\1\2\xA0\xB0\0\7\0\0"s},
      {native<int32_t>({-2, INT32_MIN}), 4, BUF_UNTAGGED, "\xFF\xFF\xFF\xFE\x80\0\0\0"s},
      // A granularity the copy does not know: the tag word, then zeros.
      {"abcdef", 3, bufTag('Q'), "Q\0\0\6\0\0\0\0\0\0\0\0"s}};
  for (const Row &r : rows) {
    load("");
    StuffBuf(b, "xyz", 3, 1, bufTag('A'));  // the field goes after what is there
    StuffBuf(b, r.payload.data(), r.payload.size(), r.granularity, r.tag);
    size_t end = bufUsed(b);
    EXPECT_EQ(bytes(0, end), "A\0\0\3xyz\0"s + r.bytes);
    if (r.granularity == 3) continue;
    std::string back(r.payload.size(), '?');
    bool tagged = r.tag != BUF_UNTAGGED;
    EXPECT_EQ((seekBuf(b, 8), ReadBuf(b, back.data(), back.size(), r.granularity, tagged)),
              tagged ? int32_t(r.tag) : 0);
    EXPECT_TRUE(back == r.payload && bufUsed(b) == end) << r.granularity << r.payload;
  }
  // Bad sizes are reported and write nothing; nor do empty payloads.
  std::string before = bytes(0, bufSize(b));
  EXPECT_EQ(stderrOf([&] { StuffBuf(b, "abc", 3, 2, bufTag('B')); }),
            "StuffBuf: bad size: 3, granularity: 2\n");
  StuffBuf(b, "", 0, 1, bufTag('T')), StuffBuf(b, "", 0, 1, BUF_UNTAGGED);
  EXPECT_TRUE(bufUsed(b) == 20u && bytes(0, bufSize(b)) == before);
}

TEST_F(BufTest, GrowsInBlocksKeepingCursorAndContentsUpToTheCap) {
  StuffBuf(b, "abc", 3, 1, bufTag('T'));
  EXPECT_EQ(bytes(0, bufSize(b)), "T\0\0\3abc"s + std::string(3996 - 7, '\0'));
  std::string fill(3996 - 8 - 4, 'x');  // fills the block exactly: no growth
  StuffBuf(b, fill.data(), fill.size(), 1, bufTag('X'));
  EXPECT_EQ(bufSize(b), 3996u);
  StuffBuf(b, "y", 1, 1, bufTag('Y'));  // one byte more: one block more, contents kept
  EXPECT_TRUE(bufSize(b) == 2u * 3996 && bytes(0, 8) == "T\0\0\3abc\0"s);
  std::string big(10000, 'z');  // beyond a block: grows by itself rounded up (10004 -> 3)
  StuffBuf(b, big.data(), big.size(), 1, bufTag('Z'));
  EXPECT_EQ(bufSize(b), 5u * 3996);
  EXPECT_EQ(bytes(4008, 14008), big);
  growBuf(b, 100);
  EXPECT_TRUE(bytes(5 * 3996 + 96, bufSize(b)) == "\0\0\0\0"s && bufUsed(b) == 14008u);
  EXPECT_EQ((load(""), growBuf(b, 0), growBuf(b, 16000001), b->data), nullptr);
  // A field whose rounded growth passes the cap is dropped silently; the largest one fits.
  std::vector<char> huge(16000000, 'q');
  EXPECT_EQ(stderrOf([&] { StuffBuf(b, huge.data(), huge.size(), 1, bufTag('T')); }), "");
  EXPECT_EQ(bufSize(b), 0u);
  StuffBuf(b, huge.data(), 4004 * 3996 - 4, 1, bufTag('T'));
  EXPECT_EQ(bufUsed(b), 4004u * 3996);
  EXPECT_EQ((load(""), growBuf(b, 16000000), bufSize(b)), 16000000u);
}

TEST_F(BufTest, ReadBufPeekTagAndSkipFieldRefuseFieldsThatDoNotFitOrBreakTheGranularity) {
  const std::string over = "ReadBuf: overflowed buffer\n", two = "\0\0\0\1\0\0\0\2"s;
  struct Row {  // the whole storage and the cursor, the destination's size, what happens
    std::string bytes; size_t start, dst; int granularity, tagged, result; std::string report;
    size_t usedAfter;
  } rows[] = {
      {two, 4, 4, 4, 0, -1, over, 8},                  // the last untagged word
      {two + "\0\0"s, 4, 4, 4, 0, -1, over, 8},        // 2 bytes behind it
      {two, 0, 4, 4, 0, 0, "", 4},                     // 4 bytes behind it
      {"T\0\0\x64\0\0\0\0"s, 0, 200, 1, 1, -1, over, 4},  // beyond the storage
      {"T\0\0\x0a"s + std::string(16, '\1'), 0, 8, 1, 1, -1, over, 4},  // beyond the destination
      {"N\0\0\6"s + std::string(12, '\1'), 0, 64, 4, 1, -1,
       "ReadBuf: bad size: 6, granularity: 4\n", 0},
      {"", 0, 64, 1, 1, -1, over, 0},                  // no room even for a tag word
      {std::string(8, '\0'), 0, 64, 1, 1, 0, "", 0}};  // a zero tag word
  for (const Row &r : rows) {
    load(r.bytes, r.start);
    std::vector<uint8_t> dst(r.dst + 1, 0xEE);
    int32_t result = 0;
    auto read = [&] { result = ReadBuf(b, dst.data(), r.dst, r.granularity, r.tagged); };
    EXPECT_EQ(stderrOf(read), r.report) << r.bytes.size();
    EXPECT_TRUE(result == r.result && bufUsed(b) == r.usedAfter) << r.bytes.size() << r.start;
    EXPECT_EQ(dst[r.dst], 0xEE);  // never past the destination
  }
  uint32_t length = 0;  // peekTag and skipField stay within the storage too
  load("");
  EXPECT_EQ(peekTag(b, &length), -1);
  StuffBuf(b, "abcdefghi", 9, 1, bufTag('p'));
  EXPECT_EQ((rewindBuf(b), peekTag(b, &length)), int32_t(0x70000000));
  EXPECT_TRUE(length == 9u && bufUsed(b) == 0u);
  EXPECT_EQ(skipField(b, length + 4), 0);  // lands after the padding
  EXPECT_EQ(bufUsed(b), 16u);
  load(std::string(20, '\0'));  // 8 + 13 > 20: advances 4; never past the storage's end
  for (auto [n, result, used] : {std::array{5, 0, 8}, {13, -1, 12}, {8, 0, 20}, {1, -1, 20}})
    EXPECT_TRUE(skipField(b, n) == result && bufUsed(b) == size_t(used)) << n;
  b->size = 8;  // a caller cut the storage below the cursor: nothing fits
  uint8_t word[4];
  EXPECT_TRUE(skipField(b, 4) == -1 && peekTag(b, &length) == -1);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(ReadBuf(b, word, 4, 1, 0), -1); }),
            "ReadBuf: overflowed buffer\n");
}

TEST_F(BufTest, NewRewindSeekClearAndStatusRepeats) {
  EXPECT_TRUE(b->limitA == 3000 && b->limitB == 1024 && (bufMarkA(b) & bufMarkB(b)) == INT32_MIN);
  setBufStatus(b, 5), setBufStatus(b, -3);
  EXPECT_TRUE(bufFailed(b) && bufStatusRepeats(b) == 2);
  setBufStatus(b, 0);
  EXPECT_FALSE(bufFailed(b) || bufStatusRepeats(b) != 0);
  setBufCount(b, 7), setBufOwner(b, 42), setBufMarkA(b, 1), setBufMarkB(b, 2);
  StuffBuf(b, "abcdefgh", 8, 1, BUF_UNTAGGED);
  rewindBuf(b);  // keeps the owner
  EXPECT_TRUE(bufPosition(b) == bufData(b) && bufCount(b) == 0 && bufOwner(b) == 42);
  EXPECT_EQ(bufMarkA(b) & bufMarkB(b), INT32_MIN);
  seekBuf(b, 5), seekBuf(b, bufSize(b));  // not below the size: ignored
  EXPECT_EQ((zeroBuf(b, 4), bufUsed(b)), 5u);
  EXPECT_EQ(bytes(0, 8), "\0\0\0\0efgh"s);
  b->extended = 1, setBufStatus(b, 9), clearBuf(b);  // back to a new buffer's state
  EXPECT_TRUE(b->data == nullptr && bufPosition(b) == nullptr && bufSize(b) == 0);
  EXPECT_EQ(b->status | b->owner | b->extended, 0);
}

TEST(BufDeath, OutOfMemoryNamesTheRoutine) {
  if (!memLimitWorks()) GTEST_SKIP() << "address-space cap breaks the sanitizer";
  EXPECT_EXIT((exhaustMemory(), NewBuf(), exitProcess(0)), testing::ExitedWithCode(1),
              "^OutOfMem: called from NewBuf\\(\\)\n$");
  Buf *b = NewBuf();
  EXPECT_EXIT((exhaustMemory(), growBuf(b, 16000000), exitProcess(0)), testing::ExitedWithCode(1),
              "^OutOfMem: called from growBuf\\(\\)\n$");
  freeBuf(b);
}
}  // namespace
}  // namespace quorvel
