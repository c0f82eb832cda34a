// Tests of the message buffer: creation, growth in 3996-byte blocks and its cap, the
// tagged-field layout StuffBuf writes and ReadBuf reads back, and the reports.
#include "core/net/buf.h"

#include <arpa/inet.h>
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

BufPtr newBuf() { return BufPtr(NewBuf()); }

uint32_t wordAt(const Buf *b, size_t off) {
  uint32_t w;
  memcpy(&w, bufAt(b, off), 4);
  return ntohl(w);
}

TEST(NewBuf, StartsEmptyWithMarksAndLimits) {
  BufPtr b = newBuf();
  EXPECT_EQ(b->data, nullptr);
  EXPECT_EQ(b->cursor, nullptr);
  EXPECT_EQ(b->size, 0u);
  EXPECT_EQ(bufMarkA(b.get()), INT32_MIN);
  EXPECT_EQ(bufMarkB(b.get()), INT32_MIN);
  EXPECT_EQ(b->limitA, 3000);
  EXPECT_EQ(b->limitB, 1024);
  EXPECT_EQ(bufCount(b.get()), 0);
  EXPECT_EQ(bufStatus(b.get()), 0);
  EXPECT_EQ(b->peerMajor, 0);
  EXPECT_EQ(b->extended, 0);
  EXPECT_EQ(bufUsed(b.get()), 0u);
  EXPECT_EQ(bufPosition(b.get()), nullptr);
}

TEST(StuffBuf, PadsTaggedFieldsToFourBytes) {
  BufPtr b = newBuf();
  StuffBuf(b.get(), "hello", 5, 1, bufTag('T'));
  EXPECT_EQ(bufUsed(b.get()), 12u);
  EXPECT_EQ(wordAt(b.get(), 0), 0x54000005u);
  EXPECT_EQ(memcmp(bufAt(b.get(), 4), "hello\0\0\0", 8), 0);

  StuffBuf(b.get(), "hello", 5, 1, BUF_UNTAGGED);
  EXPECT_EQ(bufUsed(b.get()), 20u);
  EXPECT_EQ(memcmp(bufAt(b.get(), 12), "hello\0\0\0", 8), 0);

  // An exact multiple of 4 gets no padding.
  StuffBuf(b.get(), "abcd", 4, 1, bufTag('J'));
  EXPECT_EQ(bufUsed(b.get()), 28u);
  EXPECT_EQ(wordAt(b.get(), 20), 0x4A000004u);
}

TEST(StuffBuf, ConvertsIntegersToNetworkOrder) {
  BufPtr b = newBuf();
  uint16_t shorts[3] = {0x0102, 0xA0B0, 7};
  StuffBuf(b.get(), shorts, sizeof shorts, 2, bufTag('D'));
  const uint8_t *p = bufAt(b.get(), 4);
  EXPECT_EQ(std::vector<uint8_t>(p, p + 8),
            (std::vector<uint8_t>{0x01, 0x02, 0xA0, 0xB0, 0x00, 0x07, 0, 0}));
  int32_t longs[2] = {-2, 0x11223344};
  StuffBuf(b.get(), longs, sizeof longs, 4, BUF_UNTAGGED);
  p = bufAt(b.get(), 12);
  EXPECT_EQ(std::vector<uint8_t>(p, p + 8),
            (std::vector<uint8_t>{0xFF, 0xFF, 0xFF, 0xFE, 0x11, 0x22, 0x33, 0x44}));
}

TEST(StuffBuf, BadGranularityReportsAndWritesNothing) {
  BufPtr b = newBuf();
  StuffBuf(b.get(), "x", 1, 1, bufTag('A'));
  size_t used = bufUsed(b.get());
  std::vector<uint8_t> before(bufData(b.get()), bufData(b.get()) + bufSize(b.get()));
  testing::internal::CaptureStderr();
  StuffBuf(b.get(), "abc", 3, 2, bufTag('B'));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "StuffBuf: bad size: 3, granularity: 2\n");
  EXPECT_EQ(bufUsed(b.get()), used);
  EXPECT_EQ(std::vector<uint8_t>(bufData(b.get()), bufData(b.get()) + bufSize(b.get())), before);

  // A granularity the copy does not know writes the tag word and leaves zeros.
  BufPtr g = newBuf();
  StuffBuf(g.get(), "abcdef", 6, 3, bufTag('Q'));
  EXPECT_EQ(bufUsed(g.get()), 12u);
  EXPECT_EQ(wordAt(g.get(), 0), 0x51000006u);
  EXPECT_EQ(wordAt(g.get(), 4), 0u);
  EXPECT_EQ(wordAt(g.get(), 8), 0u);

  // Nothing at all for an empty payload, tagged or not.
  StuffBuf(b.get(), "", 0, 1, bufTag('T'));
  StuffBuf(b.get(), "", 0, 1, BUF_UNTAGGED);
  EXPECT_EQ(bufUsed(b.get()), used);
}

TEST(GrowBuf, GrowsInBlocksAndKeepsTheCursor) {
  BufPtr b = newBuf();
  StuffBuf(b.get(), "abc", 3, 1, bufTag('T'));
  EXPECT_EQ(bufSize(b.get()), 3996u);
  EXPECT_EQ(bufUsed(b.get()), 8u);
  // Everything the field did not fill is zero: its pad byte and the rest of the block.
  for (size_t i = 7; i < bufSize(b.get()); i++) ASSERT_EQ(*bufAt(b.get(), i), 0) << i;

  // Filling the first block exactly does not grow; one more field does, by one block.
  std::string fill(3996 - 8 - 4, 'x');
  StuffBuf(b.get(), fill.data(), fill.size(), 1, bufTag('X'));
  EXPECT_EQ(bufUsed(b.get()), 3996u);
  EXPECT_EQ(bufSize(b.get()), 3996u);
  StuffBuf(b.get(), "y", 1, 1, bufTag('Y'));
  EXPECT_EQ(bufSize(b.get()), 2u * 3996);
  EXPECT_EQ(bufUsed(b.get()), 4004u);
  EXPECT_EQ(memcmp(bufAt(b.get(), 4), "abc", 3), 0);

  // A field larger than a block grows by the field rounded up to whole blocks.
  std::string big(10000, 'z');
  StuffBuf(b.get(), big.data(), big.size(), 1, bufTag('Z'));
  EXPECT_EQ(bufSize(b.get()), 2u * 3996 + 3 * 3996);
  EXPECT_EQ(memcmp(bufAt(b.get(), 4008), big.data(), big.size()), 0);

  // New bytes are zero.
  growBuf(b.get(), 100);
  EXPECT_EQ(bufSize(b.get()), 5u * 3996 + 100);
  for (size_t i = 5 * 3996; i < bufSize(b.get()); i++) ASSERT_EQ(*bufAt(b.get(), i), 0) << i;
}

TEST(GrowBuf, IgnoresRequestsBeyondTheCap) {
  BufPtr b = newBuf();
  growBuf(b.get(), 0);
  EXPECT_EQ(bufSize(b.get()), 0u);
  growBuf(b.get(), 16000001);
  EXPECT_EQ(bufSize(b.get()), 0u);
  EXPECT_EQ(b->data, nullptr);
  growBuf(b.get(), 16000000);
  EXPECT_EQ(bufSize(b.get()), 16000000u);

  // A field whose block-rounded growth passes the cap is not written at all.
  BufPtr c = newBuf();
  std::vector<char> huge(16000000, 'q');
  testing::internal::CaptureStderr();
  StuffBuf(c.get(), huge.data(), huge.size(), 1, bufTag('T'));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(bufSize(c.get()), 0u);
  EXPECT_EQ(bufUsed(c.get()), 0u);

  // The largest field one growth can hold goes through.
  size_t most = 4004 * 3996 - 4;
  StuffBuf(c.get(), huge.data(), most, 1, bufTag('T'));
  EXPECT_EQ(bufSize(c.get()), 4004u * 3996);
  EXPECT_EQ(bufUsed(c.get()), most + 4);
}

TEST(ReserveBuf, GrowsOnlyWhenTheRequestExceedsTheSize) {
  BufPtr b = newBuf();
  reserveBuf(b.get(), 5000);
  EXPECT_EQ(bufSize(b.get()), 2u * 3996);
  reserveBuf(b.get(), 7992);
  EXPECT_EQ(bufSize(b.get()), 2u * 3996);
  reserveBuf(b.get(), 7993);
  EXPECT_EQ(bufSize(b.get()), 5u * 3996);  // grows by the request, not up to it
}

TEST(ReadBuf, ReadsBackWhatStuffBufWrote) {
  BufPtr b = newBuf();
  uint16_t shorts[2] = {0xBEEF, 3};
  int32_t longs[3] = {-1, INT32_MIN, 12345678};
  StuffBuf(b.get(), "title", 6, 1, bufTag('T'));
  StuffBuf(b.get(), shorts, sizeof shorts, 2, bufTag('D'));
  StuffBuf(b.get(), longs, sizeof longs, 4, BUF_UNTAGGED);
  StuffBuf(b.get(), "end!", 4, 1, bufTag('z'));
  rewindBuf(b.get());

  char text[16] = {};
  EXPECT_EQ(ReadBuf(b.get(), text, sizeof text, 1, 1), int32_t(bufTag('T')));
  EXPECT_STREQ(text, "title");
  EXPECT_EQ(bufUsed(b.get()), 12u);
  uint16_t s[2] = {};
  EXPECT_EQ(ReadBuf(b.get(), s, sizeof s, 2, 1), int32_t(bufTag('D')));
  EXPECT_EQ(s[0], 0xBEEF);
  EXPECT_EQ(s[1], 3);
  int32_t l[3] = {};
  EXPECT_EQ(ReadBuf(b.get(), l, sizeof l, 4, 0), 0);
  EXPECT_EQ(l[0], -1);
  EXPECT_EQ(l[1], INT32_MIN);
  EXPECT_EQ(l[2], 12345678);
  char end[4];
  EXPECT_EQ(ReadBuf(b.get(), end, sizeof end, 1, 1), int32_t(bufTag('z')));
  EXPECT_EQ(memcmp(end, "end!", 4), 0);
}

TEST(ReadBuf, AsksForFourBytesBeyondUntaggedPayloads) {
  // A buffer whose size is exactly what was written: the last untagged word fails.
  BufPtr b = newBuf();
  growBuf(b.get(), 8);
  int32_t in[2] = {1, 2};
  StuffBuf(b.get(), in, sizeof in, 4, BUF_UNTAGGED);
  EXPECT_EQ(bufUsed(b.get()), 8u);
  rewindBuf(b.get());
  int32_t out = 0;
  EXPECT_EQ(ReadBuf(b.get(), &out, 4, 4, 0), 0);
  EXPECT_EQ(out, 1);
  testing::internal::CaptureStderr();
  EXPECT_EQ(ReadBuf(b.get(), &out, 4, 4, 0), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ReadBuf: overflowed buffer\n");
  EXPECT_EQ(out, 1);
  // The failure still advances by 4 (here onto the end of the storage).
  EXPECT_EQ(bufUsed(b.get()), 8u);

  // With four spare bytes the same read succeeds.
  BufPtr c = newBuf();
  growBuf(c.get(), 12);
  StuffBuf(c.get(), in, sizeof in, 4, BUF_UNTAGGED);
  rewindBuf(c.get());
  EXPECT_EQ(ReadBuf(c.get(), &out, 4, 4, 0), 0);
  EXPECT_EQ(ReadBuf(c.get(), &out, 4, 4, 0), 0);
  EXPECT_EQ(out, 2);
}

TEST(ReadBuf, RefusesTruncatedOversizeAndBadGranularityFields) {
  BufPtr b = newBuf();
  growBuf(b.get(), 16);
  uint32_t word = htonl(bufTag('T') | 100);  // claims 100 bytes in a 16-byte buffer
  memcpy(bufData(b.get()), &word, 4);
  rewindBuf(b.get());
  char dst[200];
  testing::internal::CaptureStderr();
  EXPECT_EQ(ReadBuf(b.get(), dst, sizeof dst, 1, 1), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ReadBuf: overflowed buffer\n");
  EXPECT_EQ(bufUsed(b.get()), 4u);

  // A tagged length beyond the destination is refused the same way.
  BufPtr c = newBuf();
  StuffBuf(c.get(), "0123456789", 10, 1, bufTag('T'));
  rewindBuf(c.get());
  char small[8];
  testing::internal::CaptureStderr();
  EXPECT_EQ(ReadBuf(c.get(), small, sizeof small, 1, 1), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ReadBuf: overflowed buffer\n");

  // Six bytes read as 4-byte words break the granularity; the cursor stays.
  BufPtr d = newBuf();
  StuffBuf(d.get(), "abcdef", 6, 1, bufTag('N'));
  rewindBuf(d.get());
  testing::internal::CaptureStderr();
  EXPECT_EQ(ReadBuf(d.get(), dst, sizeof dst, 4, 1), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ReadBuf: bad size: 6, granularity: 4\n");
  EXPECT_EQ(bufUsed(d.get()), 0u);

  // An empty new buffer cannot even hold a tag word.
  BufPtr e = newBuf();
  testing::internal::CaptureStderr();
  EXPECT_EQ(ReadBuf(e.get(), dst, sizeof dst, 1, 1), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ReadBuf: overflowed buffer\n");
  EXPECT_EQ(bufUsed(e.get()), 0u);
}

TEST(ReadBuf, ZeroLengthFieldsReturnWithoutMoving) {
  BufPtr b = newBuf();
  growBuf(b.get(), 8);  // a zero tag word: tag 0, length 0
  char dst[4];
  EXPECT_EQ(ReadBuf(b.get(), dst, sizeof dst, 1, 1), 0);
  EXPECT_EQ(ReadBuf(b.get(), dst, 0, 1, 0), 0);
  EXPECT_EQ(bufUsed(b.get()), 0u);
}

TEST(PeekTag, ShowsTagAndLengthWithoutMoving) {
  BufPtr b = newBuf();
  StuffBuf(b.get(), "abcdefghi", 9, 1, bufTag('p'));
  rewindBuf(b.get());
  uint32_t length = 0;
  EXPECT_EQ(peekTag(b.get(), &length), int32_t(0x70000000));
  EXPECT_EQ(length, 9u);
  EXPECT_EQ(bufUsed(b.get()), 0u);

  // Skipping the field by its peeked size lands after the padding.
  EXPECT_EQ(skipField(b.get(), length + 4), 0);
  EXPECT_EQ(bufUsed(b.get()), 16u);

  BufPtr e = newBuf();
  EXPECT_EQ(peekTag(e.get(), &length), -1);
  EXPECT_EQ(length, 0u);
}

TEST(SkipField, FailsPastTheEndAndAdvancesFour) {
  BufPtr b = newBuf();
  growBuf(b.get(), 20);
  EXPECT_EQ(skipField(b.get(), 5), 0);
  EXPECT_EQ(bufUsed(b.get()), 8u);
  EXPECT_EQ(skipField(b.get(), 13), -1);
  EXPECT_EQ(bufUsed(b.get()), 12u);
  EXPECT_EQ(skipField(b.get(), 8), 0);
  EXPECT_EQ(bufUsed(b.get()), 20u);
  EXPECT_EQ(skipField(b.get(), 1), -1);
  EXPECT_EQ(bufUsed(b.get()), 20u);  // never past the end of the storage
}

TEST(BufAccessors, KeepCallerWordsAndStatusRepeats) {
  BufPtr b = newBuf();
  setBufCount(b.get(), 7);
  setBufOwner(b.get(), 42);
  setBufMarkA(b.get(), 1);
  setBufMarkB(b.get(), 2);
  EXPECT_EQ(bufOwner(b.get()), 42);
  setBufStatus(b.get(), 5);
  setBufStatus(b.get(), -3);
  EXPECT_TRUE(bufFailed(b.get()));
  EXPECT_EQ(bufStatus(b.get()), -3);
  EXPECT_EQ(bufStatusRepeats(b.get()), 2);
  setBufStatus(b.get(), 0);
  EXPECT_FALSE(bufFailed(b.get()));
  EXPECT_EQ(bufStatusRepeats(b.get()), 0);

  StuffBuf(b.get(), "abcdefgh", 8, 1, BUF_UNTAGGED);
  rewindBuf(b.get());
  EXPECT_EQ(bufCount(b.get()), 0);
  EXPECT_EQ(bufMarkA(b.get()), INT32_MIN);
  EXPECT_EQ(bufMarkB(b.get()), INT32_MIN);
  EXPECT_EQ(bufOwner(b.get()), 42);  // rewind keeps the owner
  EXPECT_EQ(bufPosition(b.get()), bufData(b.get()));

  seekBuf(b.get(), 5);
  EXPECT_EQ(bufUsed(b.get()), 5u);
  seekBuf(b.get(), bufSize(b.get()));  // not below the size: ignored
  EXPECT_EQ(bufUsed(b.get()), 5u);
  zeroBuf(b.get(), 4);
  EXPECT_EQ(memcmp(bufData(b.get()), "\0\0\0\0efgh", 8), 0);

  b->extended = 1;
  setBufStatus(b.get(), 9);
  clearBuf(b.get());
  EXPECT_EQ(b->data, nullptr);
  EXPECT_EQ(b->cursor, nullptr);
  EXPECT_EQ(bufSize(b.get()), 0u);
  EXPECT_EQ(bufOwner(b.get()), 0);
  EXPECT_EQ(bufStatus(b.get()), 0);
  EXPECT_EQ(b->extended, 0);
  EXPECT_EQ(b->limitA, 3000);  // the limits stay
}

TEST(BufDeath, OutOfMemoryNamesTheRoutine) {
  if (!memLimitWorks()) GTEST_SKIP() << "address-space cap breaks the sanitizer";
  EXPECT_EXIT(
      {
        exhaustMemory();
        NewBuf();
        exitProcess(0);
      },
      testing::ExitedWithCode(1), "^OutOfMem: called from NewBuf\\(\\)\n$");
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
