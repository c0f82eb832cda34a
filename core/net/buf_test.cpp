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

struct BufFree {
  void operator()(Buf *b) const { freeBuf(b); }
};
using BufPtr = std::unique_ptr<Buf, BufFree>;

// A buffer of exactly bytes.size() bytes holding bytes, cursor at start.
BufPtr bufOf(const std::vector<uint8_t> &bytes, size_t start = 0) {
  BufPtr b(NewBuf());
  growBuf(b.get(), bytes.size());
  if (!bytes.empty()) memcpy(bufData(b.get()), bytes.data(), bytes.size());
  seekBuf(b.get(), start);
  return b;
}

// Bytes [from, to) as hex, a blank after every 4 bytes.
std::string hex(const Buf *b, size_t from, size_t to) {
  std::string out;
  char two[3];
  for (size_t i = from; i < to; i++) {
    snprintf(two, sizeof two, "%02x", *bufAt(b, i));
    out += two;
    if ((i - from) % 4 == 3 && i + 1 < to) out += ' ';
  }
  return out;
}

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

TEST(NewBuf, StartsEmptyWithMarksAndLimits) {
  BufPtr b(NewBuf());
  EXPECT_EQ(b->data, nullptr);
  EXPECT_EQ(bufPosition(b.get()), nullptr);
  EXPECT_EQ(bufSize(b.get()) + bufUsed(b.get()), 0u);
  EXPECT_EQ(bufMarkA(b.get()), INT32_MIN);
  EXPECT_EQ(bufMarkB(b.get()), INT32_MIN);
  EXPECT_EQ(b->limitA, 3000);
  EXPECT_EQ(b->limitB, 1024);
  EXPECT_EQ(b->count | b->status | b->owner | b->guard | b->statusRepeats, 0);
  EXPECT_EQ(b->peerMajor | b->peerMinor | b->extended, 0);
}

TEST(StuffBuf, PadsFieldsToFourBytesAndReadBufTakesThemBack) {
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
    BufPtr b(NewBuf());
    StuffBuf(b.get(), "xyz", 3, 1, bufTag('A'));  // the field goes after what is there
    StuffBuf(b.get(), r.payload.data(), r.payload.size(), r.granularity, r.tag);
    EXPECT_EQ(hex(b.get(), 8, bufUsed(b.get())), r.bytes) << r.bytes;
    EXPECT_EQ(hex(b.get(), 0, 8), "41000003 78797a00");
    if (r.granularity == 3) continue;
    size_t end = bufUsed(b.get());
    seekBuf(b.get(), 8);
    std::vector<uint8_t> back(r.payload.size() + 3, 0);
    bool tagged = r.tag != BUF_UNTAGGED;
    EXPECT_EQ(ReadBuf(b.get(), back.data(), r.payload.size(), r.granularity, tagged),
              tagged ? int32_t(r.tag) : 0);
    back.resize(r.payload.size());
    EXPECT_EQ(back, r.payload) << r.bytes;
    EXPECT_EQ(bufUsed(b.get()), end);
  }
}

TEST(StuffBuf, BadSizeReportsAndWritesNothing) {
  BufPtr b(NewBuf());
  StuffBuf(b.get(), "x", 1, 1, bufTag('A'));
  std::string before = hex(b.get(), 0, bufSize(b.get()));
  EXPECT_EQ(stderrOf([&] { StuffBuf(b.get(), "abc", 3, 2, bufTag('B')); }),
            "StuffBuf: bad size: 3, granularity: 2\n");
  EXPECT_EQ(stderrOf([&] {
              StuffBuf(b.get(), "", 0, 1, bufTag('T'));  // empty payloads: nothing at all
              StuffBuf(b.get(), "", 0, 1, BUF_UNTAGGED);
            }),
            "");
  EXPECT_EQ(bufUsed(b.get()), 4u + 4);
  EXPECT_EQ(hex(b.get(), 0, bufSize(b.get())), before);
}

TEST(GrowBuf, GrowsInBlocksKeepingCursorAndContents) {
  BufPtr b(NewBuf());
  StuffBuf(b.get(), "abc", 3, 1, bufTag('T'));
  EXPECT_EQ(bufSize(b.get()), 3996u);
  for (size_t i = 7; i < bufSize(b.get()); i++) ASSERT_EQ(*bufAt(b.get(), i), 0) << i;

  // Filling the block exactly does not grow; one byte more grows by one block.
  std::string fill(3996 - 8 - 4, 'x');
  StuffBuf(b.get(), fill.data(), fill.size(), 1, bufTag('X'));
  EXPECT_EQ(bufSize(b.get()), 3996u);
  StuffBuf(b.get(), "y", 1, 1, bufTag('Y'));
  EXPECT_EQ(bufSize(b.get()), 2u * 3996);
  EXPECT_EQ(bufUsed(b.get()), 4004u);
  EXPECT_EQ(hex(b.get(), 0, 8), "54000003 61626300");

  // A field beyond a block grows by itself rounded up to whole blocks (10004 -> 3).
  std::string big(10000, 'z');
  StuffBuf(b.get(), big.data(), big.size(), 1, bufTag('Z'));
  EXPECT_EQ(bufSize(b.get()), 5u * 3996);
  EXPECT_EQ(memcmp(bufAt(b.get(), 4008), big.data(), big.size()), 0);
  growBuf(b.get(), 100);
  EXPECT_EQ(bufSize(b.get()), 5u * 3996 + 100);
  EXPECT_EQ(hex(b.get(), 5 * 3996 + 96, 5 * 3996 + 100), "00000000");
  EXPECT_EQ(bufUsed(b.get()), 4008u + 10000);

  // reserveBuf grows by the request (rounded to blocks) only when it exceeds the size.
  BufPtr r(NewBuf());
  reserveBuf(r.get(), 5000);
  reserveBuf(r.get(), 7992);
  EXPECT_EQ(bufSize(r.get()), 2u * 3996);
  reserveBuf(r.get(), 7993);
  EXPECT_EQ(bufSize(r.get()), 5u * 3996);
}

TEST(GrowBuf, IgnoresGrowthBeyondTheCap) {
  BufPtr b(NewBuf());
  growBuf(b.get(), 0);
  growBuf(b.get(), 16000001);
  EXPECT_EQ(b->data, nullptr);
  growBuf(b.get(), 16000000);
  EXPECT_EQ(bufSize(b.get()), 16000000u);

  // A field whose block-rounded growth passes the cap is dropped silently; the
  // largest one a growth can hold goes through.
  BufPtr c(NewBuf());
  std::vector<char> huge(16000000, 'q');
  EXPECT_EQ(stderrOf([&] { StuffBuf(c.get(), huge.data(), huge.size(), 1, bufTag('T')); }), "");
  EXPECT_EQ(bufSize(c.get()), 0u);
  StuffBuf(c.get(), huge.data(), 4004 * 3996 - 4, 1, bufTag('T'));
  EXPECT_EQ(bufUsed(c.get()), 4004u * 3996);
}

TEST(ReadBuf, RefusesFieldsThatDoNotFitOrBreakTheGranularity) {
  const char *overflow = "ReadBuf: overflowed buffer\n";
  struct Row {
    const char *what;
    std::vector<uint8_t> bytes;  // the whole storage
    size_t start;                // cursor before the read
    size_t dst;
    int granularity, tagged;
    int32_t result;
    const char *report;
    size_t usedAfter;
  } rows[] = {
      {"last untagged word of a full buffer", {0, 0, 0, 1, 0, 0, 0, 2}, 4, 4, 4, 0, -1, overflow,
       8},
      {"untagged word with 4 bytes behind it", {0, 0, 0, 1, 0, 0, 0, 2}, 0, 4, 4, 0, 0, "", 4},
      {"tag claims more than the storage", {0x54, 0, 0, 100, 0, 0, 0, 0}, 0, 200, 1, 1, -1,
       overflow, 4},
      {"tagged length beyond the destination",
       {0x54, 0, 0, 10, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 0, 0, 0, 0, 0, 0}, 0, 8, 1, 1, -1, overflow,
       4},
      {"length breaks the granularity", {0x4e, 0, 0, 6, 1, 2, 3, 4, 5, 6, 0, 0, 0, 0, 0, 0}, 0,
       64, 4, 1, -1, "ReadBuf: bad size: 6, granularity: 4\n", 0},
      {"no room even for a tag word", {}, 0, 64, 1, 1, -1, overflow, 0},
      {"zero tag word", {0, 0, 0, 0, 0, 0, 0, 0}, 0, 64, 1, 1, 0, "", 0},
      {"untagged, nothing asked", {0, 0, 0, 0}, 0, 0, 1, 0, 0, "", 0},
  };
  for (const Row &r : rows) {
    BufPtr b = bufOf(r.bytes, r.start);
    std::vector<uint8_t> dst(r.dst + 1, 0xEE);
    int32_t result = 0;
    auto read = [&] { result = ReadBuf(b.get(), dst.data(), r.dst, r.granularity, r.tagged); };
    EXPECT_EQ(stderrOf(read), r.report) << r.what;
    EXPECT_EQ(result, r.result) << r.what;
    EXPECT_EQ(bufUsed(b.get()), r.usedAfter) << r.what;
    EXPECT_EQ(dst[r.dst], 0xEE) << r.what;  // never past the destination
  }
}

TEST(PeekTagAndSkipField, LookAheadAndSkipWithinTheStorage) {
  BufPtr b(NewBuf());
  StuffBuf(b.get(), "abcdefghi", 9, 1, bufTag('p'));
  rewindBuf(b.get());
  uint32_t length = 0;
  EXPECT_EQ(peekTag(b.get(), &length), int32_t(0x70000000));
  EXPECT_EQ(length, 9u);
  EXPECT_EQ(bufUsed(b.get()), 0u);
  EXPECT_EQ(skipField(b.get(), length + 4), 0);  // lands after the padding
  EXPECT_EQ(bufUsed(b.get()), 16u);
  BufPtr e(NewBuf());
  EXPECT_EQ(peekTag(e.get(), &length), -1);
  EXPECT_EQ(length, 0u);

  BufPtr s = bufOf(std::vector<uint8_t>(20));
  EXPECT_EQ(skipField(s.get(), 5), 0);
  EXPECT_EQ(bufUsed(s.get()), 8u);
  EXPECT_EQ(skipField(s.get(), 13), -1);  // 8 + 13 > 20: advances 4
  EXPECT_EQ(bufUsed(s.get()), 12u);
  EXPECT_EQ(skipField(s.get(), 8), 0);
  EXPECT_EQ(skipField(s.get(), 1), -1);
  EXPECT_EQ(bufUsed(s.get()), 20u);  // never past the end of the storage
}

TEST(BufCursor, RewindSeekClearAndStatusRepeats) {
  BufPtr b(NewBuf());
  for (int32_t status : {5, -3}) setBufStatus(b.get(), status);
  EXPECT_TRUE(bufFailed(b.get()) && bufStatusRepeats(b.get()) == 2);
  setBufStatus(b.get(), 0);
  EXPECT_FALSE(bufFailed(b.get()) || bufStatusRepeats(b.get()) != 0);

  setBufCount(b.get(), 7);
  setBufOwner(b.get(), 42);
  setBufMarkA(b.get(), 1);
  setBufMarkB(b.get(), 2);
  StuffBuf(b.get(), "abcdefgh", 8, 1, BUF_UNTAGGED);
  rewindBuf(b.get());
  EXPECT_EQ(bufPosition(b.get()), bufData(b.get()));
  EXPECT_EQ(bufCount(b.get()), 0);
  EXPECT_EQ(bufMarkA(b.get()) & bufMarkB(b.get()), INT32_MIN);
  EXPECT_EQ(bufOwner(b.get()), 42);  // rewind keeps the owner
  seekBuf(b.get(), 5);
  seekBuf(b.get(), bufSize(b.get()));  // not below the size: ignored
  EXPECT_EQ(bufUsed(b.get()), 5u);
  zeroBuf(b.get(), 4);
  EXPECT_EQ(hex(b.get(), 0, 8), "00000000 65666768");

  b->extended = 1;
  setBufStatus(b.get(), 9);
  setBufMarkA(b.get(), 3);
  clearBuf(b.get());
  EXPECT_TRUE(b->data == nullptr && b->cursor == nullptr && bufSize(b.get()) == 0);
  EXPECT_EQ(bufOwner(b.get()) | bufStatus(b.get()) | b->extended, 0);
  EXPECT_EQ(bufMarkA(b.get()), INT32_MIN);
  EXPECT_EQ(b->limitA, 3000);  // the limits stay
}

TEST(BufDeath, OutOfMemoryNamesTheRoutine) {
  if (!memLimitWorks()) GTEST_SKIP() << "address-space cap breaks the sanitizer";
  EXPECT_EXIT((exhaustMemory(), NewBuf(), exitProcess(0)), testing::ExitedWithCode(1),
              "^OutOfMem: called from NewBuf\\(\\)\n$");
  EXPECT_EXIT(
      {
        Buf *b = NewBuf();
        exhaustMemory();
        growBuf(b, 16000000);
        exitProcess(0);
      },
      testing::ExitedWithCode(1), "^OutOfMem: called from growBuf\\(\\)\n$");
}

}  // namespace
}  // namespace quorvel
