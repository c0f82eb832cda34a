// Tests of the message buffer: the field layout StuffBuf writes, growth in 3996-byte
// blocks and its cap, ReadBuf's fit and size checks with their reports, the cursor.
#include "core/net/buf.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/base/base.h"
#include "core/net/memlimit.h"

namespace quorvel {
namespace {

class BufTest : public testing::Test {
 protected:
  void TearDown() override { freeBuf(b); }
  // Starts over with a buffer of exactly bytes.size() bytes holding bytes.
  void load(const std::vector<uint8_t> &bytes, size_t start = 0) {
    freeBuf(b);
    b = NewBuf();
    growBuf(b, bytes.size());
    if (!bytes.empty()) memcpy(bufData(b), bytes.data(), bytes.size());
    seekBuf(b, start);
  }
  // Bytes [from, to) as hex, a blank after every 4 bytes.
  std::string hex(size_t from, size_t to) const {
    std::string out;
    for (size_t i = from; i < to; i++) {
      out += "0123456789abcdef"[*bufAt(b, i) >> 4];
      out += "0123456789abcdef"[*bufAt(b, i) & 15];
      if ((i - from) % 4 == 3 && i + 1 < to) out += ' ';
    }
    return out;
  }
  Buf *b = NewBuf();
};

template <class F>
std::string stderrOf(F f) {
  testing::internal::CaptureStderr();
  f();
  return testing::internal::GetCapturedStderr();
}

template <class T>
std::vector<uint8_t> native(std::initializer_list<T> values) {
  std::vector<uint8_t> out(values.size() * sizeof(T));
  memcpy(out.data(), std::data(values), out.size());
  return out;
}

std::vector<uint8_t> text(const char *s) { return std::vector<uint8_t>(s, s + strlen(s)); }

TEST_F(BufTest, StuffBufPadsFieldsToFourBytesAndReadBufTakesThemBack) {
  struct Row {
    std::vector<uint8_t> payload;
    int granularity;
    uint32_t tag;
    const char *bytes;
  } rows[] = {
      {text("hello"), 1, bufTag('T'), "54000005 68656c6c 6f000000"},
      {text("hello"), 1, BUF_UNTAGGED, "68656c6c 6f000000"},
      {text("abcd"), 1, bufTag('J'), "4a000004 61626364"},
      {native<uint16_t>({0x0102, 0xA0B0, 7}), 2, bufTag('D'), "44000006 0102a0b0 00070000"},
      {native<int32_t>({-2, INT32_MIN}), 4, BUF_UNTAGGED, "fffffffe 80000000"},
      // A granularity the copy does not know: the tag word, then zeros.
      {text("abcdef"), 3, bufTag('Q'), "51000006 00000000 00000000"},
  };
  for (const Row &r : rows) {
    load({});
    StuffBuf(b, "xyz", 3, 1, bufTag('A'));  // the field goes after what is there
    StuffBuf(b, r.payload.data(), r.payload.size(), r.granularity, r.tag);
    size_t end = bufUsed(b);
    EXPECT_EQ(hex(0, 8), "41000003 78797a00");
    EXPECT_EQ(hex(8, end), r.bytes);
    if (r.granularity == 3) continue;
    seekBuf(b, 8);
    std::vector<uint8_t> back(r.payload.size());
    bool tagged = r.tag != BUF_UNTAGGED;
    EXPECT_EQ(ReadBuf(b, back.data(), back.size(), r.granularity, tagged),
              tagged ? int32_t(r.tag) : 0);
    EXPECT_EQ(back, r.payload) << r.bytes;
    EXPECT_EQ(bufUsed(b), end);
  }
}

TEST_F(BufTest, StuffBufReportsBadSizesAndWritesNothing) {
  StuffBuf(b, "x", 1, 1, bufTag('A'));
  std::string before = hex(0, bufSize(b));
  EXPECT_EQ(stderrOf([&] { StuffBuf(b, "abc", 3, 2, bufTag('B')); }),
            "StuffBuf: bad size: 3, granularity: 2\n");
  StuffBuf(b, "", 0, 1, bufTag('T'));  // empty payloads: nothing at all
  StuffBuf(b, "", 0, 1, BUF_UNTAGGED);
  EXPECT_EQ(bufUsed(b), 8u);
  EXPECT_EQ(hex(0, bufSize(b)), before);
}

TEST_F(BufTest, GrowsInBlocksKeepingCursorAndContents) {
  StuffBuf(b, "abc", 3, 1, bufTag('T'));
  EXPECT_EQ(bufSize(b), 3996u);
  for (size_t i = 7; i < bufSize(b); i++) ASSERT_EQ(*bufAt(b, i), 0) << i;
  // Filling the block exactly does not grow; one byte more grows by one block.
  std::string fill(3996 - 8 - 4, 'x');
  StuffBuf(b, fill.data(), fill.size(), 1, bufTag('X'));
  EXPECT_EQ(bufSize(b), 3996u);
  StuffBuf(b, "y", 1, 1, bufTag('Y'));
  EXPECT_EQ(bufSize(b), 2u * 3996);
  EXPECT_EQ(hex(0, 8), "54000003 61626300");
  // A field beyond a block grows by itself rounded up to whole blocks (10004 -> 3).
  std::string big(10000, 'z');
  StuffBuf(b, big.data(), big.size(), 1, bufTag('Z'));
  EXPECT_EQ(bufSize(b), 5u * 3996);
  EXPECT_EQ(memcmp(bufAt(b, 4008), big.data(), big.size()), 0);
  growBuf(b, 100);
  EXPECT_EQ(hex(5 * 3996 + 96, bufSize(b)), "00000000");
  EXPECT_EQ(bufUsed(b), 4008u + 10000);
  // reserveBuf grows by the request (rounded to blocks) only when it exceeds the size.
  load({});
  reserveBuf(b, 5000);
  reserveBuf(b, 7992);
  EXPECT_EQ(bufSize(b), 2u * 3996);
  reserveBuf(b, 7993);
  EXPECT_EQ(bufSize(b), 5u * 3996);
}

TEST_F(BufTest, IgnoresGrowthBeyondTheCap) {
  growBuf(b, 0);
  growBuf(b, 16000001);
  EXPECT_EQ(b->data, nullptr);
  // A field whose block-rounded growth passes the cap is dropped silently; the
  // largest one a growth can hold goes through.
  std::vector<char> huge(16000000, 'q');
  EXPECT_EQ(stderrOf([&] { StuffBuf(b, huge.data(), huge.size(), 1, bufTag('T')); }), "");
  EXPECT_EQ(bufSize(b), 0u);
  StuffBuf(b, huge.data(), 4004 * 3996 - 4, 1, bufTag('T'));
  EXPECT_EQ(bufUsed(b), 4004u * 3996);
  load({});
  growBuf(b, 16000000);
  EXPECT_EQ(bufSize(b), 16000000u);
}

TEST_F(BufTest, ReadBufRefusesFieldsThatDoNotFitOrBreakTheGranularity) {
  const char *overflow = "ReadBuf: overflowed buffer\n";
  struct Row {
    const char *what;
    std::vector<uint8_t> bytes;  // the whole storage
    size_t start, dst;
    int granularity, tagged, result;
    const char *report;
    size_t usedAfter;
  } rows[] = {
      {"last untagged word", {0, 0, 0, 1, 0, 0, 0, 2}, 4, 4, 4, 0, -1, overflow, 8},
      {"untagged word, 2 bytes behind it", {0, 0, 0, 1, 0, 0, 0, 2, 0, 0}, 4, 4, 4, 0, -1, overflow,
       8},
      {"untagged word, 4 bytes behind it", {0, 0, 0, 1, 0, 0, 0, 2}, 0, 4, 4, 0, 0, "", 4},
      {"tag claims more than the storage", {0x54, 0, 0, 100, 0, 0, 0, 0}, 0, 200, 1, 1, -1,
       overflow, 4},
      {"tagged length beyond the destination",
       {0x54, 0, 0, 10, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 0, 0, 0, 0, 0, 0}, 0, 8, 1, 1, -1,
       overflow, 4},
      {"length breaks the granularity", {0x4e, 0, 0, 6, 1, 2, 3, 4, 5, 6, 0, 0, 0, 0, 0, 0}, 0,
       64, 4, 1, -1, "ReadBuf: bad size: 6, granularity: 4\n", 0},
      {"no room even for a tag word", {}, 0, 64, 1, 1, -1, overflow, 0},
      {"zero tag word", {0, 0, 0, 0, 0, 0, 0, 0}, 0, 64, 1, 1, 0, "", 0},
      {"untagged, nothing asked", {0, 0, 0, 0}, 0, 0, 1, 0, 0, "", 0},
  };
  for (const Row &r : rows) {
    load(r.bytes, r.start);
    std::vector<uint8_t> dst(r.dst + 1, 0xEE);
    int32_t result = 0;
    auto read = [&] { result = ReadBuf(b, dst.data(), r.dst, r.granularity, r.tagged); };
    EXPECT_EQ(stderrOf(read), r.report) << r.what;
    EXPECT_EQ(result, r.result) << r.what;
    EXPECT_EQ(bufUsed(b), r.usedAfter) << r.what;
    EXPECT_EQ(dst[r.dst], 0xEE) << r.what;  // never past the destination
  }
}

TEST_F(BufTest, PeekTagAndSkipFieldStayWithinTheStorage) {
  uint32_t length = 0;
  EXPECT_EQ(peekTag(b, &length), -1);
  StuffBuf(b, "abcdefghi", 9, 1, bufTag('p'));
  rewindBuf(b);
  EXPECT_EQ(peekTag(b, &length), int32_t(0x70000000));
  EXPECT_EQ(length, 9u);
  EXPECT_EQ(bufUsed(b), 0u);
  EXPECT_EQ(skipField(b, length + 4), 0);  // lands after the padding
  EXPECT_EQ(bufUsed(b), 16u);

  load(std::vector<uint8_t>(20));
  EXPECT_EQ(skipField(b, 5), 0);
  EXPECT_EQ(bufUsed(b), 8u);
  EXPECT_EQ(skipField(b, 13), -1);  // 8 + 13 > 20: advances 4
  EXPECT_EQ(bufUsed(b), 12u);
  EXPECT_EQ(skipField(b, 8), 0);
  EXPECT_EQ(skipField(b, 1), -1);
  EXPECT_EQ(bufUsed(b), 20u);  // never past the end of the storage
  b->size = 8;                 // a caller cut the storage below the cursor: nothing fits
  uint8_t word[4];
  EXPECT_EQ(skipField(b, 4), -1);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(ReadBuf(b, word, 4, 1, 0), -1); }),
            "ReadBuf: overflowed buffer\n");
}

// What a new and a cleared buffer share: no storage, no marks, callers' words 0, limits.
void expectEmpty(const Buf *b) {
  EXPECT_TRUE(b->data == nullptr && bufPosition(b) == nullptr && bufSize(b) == 0);
  EXPECT_EQ(bufMarkA(b) & bufMarkB(b), INT32_MIN);
  EXPECT_EQ(b->status | b->owner | b->unused1 | b->unused2 | b->unused3 | b->extended, 0);
  EXPECT_TRUE(b->limitA == 3000 && b->limitB == 1024);
}

TEST_F(BufTest, NewRewindSeekClearAndStatusRepeats) {
  expectEmpty(b);
  EXPECT_EQ(b->count | b->guard | b->statusRepeats | b->peerMajor | b->peerMinor, 0);
  for (int32_t status : {5, -3}) setBufStatus(b, status);
  EXPECT_TRUE(bufFailed(b) && bufStatusRepeats(b) == 2);
  setBufStatus(b, 0);
  EXPECT_FALSE(bufFailed(b) || bufStatusRepeats(b) != 0);

  setBufCount(b, 7);
  setBufOwner(b, 42);
  setBufMarkA(b, 1);
  setBufMarkB(b, 2);
  StuffBuf(b, "abcdefgh", 8, 1, BUF_UNTAGGED);
  rewindBuf(b);
  EXPECT_EQ(bufPosition(b), bufData(b));
  EXPECT_EQ(bufCount(b), 0);
  EXPECT_EQ(bufMarkA(b) & bufMarkB(b), INT32_MIN);
  EXPECT_EQ(bufOwner(b), 42);  // rewind keeps the owner
  seekBuf(b, 5);
  seekBuf(b, bufSize(b));  // not below the size: ignored
  EXPECT_EQ(bufUsed(b), 5u);
  zeroBuf(b, 4);
  EXPECT_EQ(hex(0, 8), "00000000 65666768");
  b->extended = 1;
  setBufStatus(b, 9);
  setBufMarkA(b, 3);
  clearBuf(b);
  expectEmpty(b);
}

TEST(BufDeath, OutOfMemoryNamesTheRoutine) {
  if (!memLimitWorks()) GTEST_SKIP() << "address-space cap breaks the sanitizer";
  EXPECT_EXIT((exhaustMemory(), NewBuf(), exitProcess(0)), testing::ExitedWithCode(1),
              "^OutOfMem: called from NewBuf\\(\\)\n$");
  Buf *b = NewBuf();
  EXPECT_EXIT((exhaustMemory(), growBuf(b, 16000000), exitProcess(0)),
              testing::ExitedWithCode(1), "^OutOfMem: called from growBuf\\(\\)\n$");
  freeBuf(b);
}

}  // namespace
}  // namespace quorvel
