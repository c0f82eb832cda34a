// Tests of date-times inside message buffers: untagged 8- and 16-byte groups.
#include "core/net/netdate.h"

#include <gtest/gtest.h>

#include <cstring>

namespace quorvel {
namespace {

TEST(NetDate, GroupsAreUntaggedAndReadBack) {
  Buf *b = NewBuf();
  TimeRange tr{{1000, 1, 2}, {2000, 3, 4}};
  stuffTimeRange(b, tr);
  stuffDateTime(b, DateTime{NO_TIME, 0xffff, 5});
  EXPECT_EQ(bufUsed(b), 24u);
  const uint8_t first[4] = {0, 0, 0x03, 0xE8};  // 1000, no tag word before it
  EXPECT_EQ(memcmp(bufData(b), first, 4), 0);
  StuffBuf(b, "pad!", 4, 1, bufTag('z'));  // room for ReadBuf's extra 4 bytes
  rewindBuf(b);
  TimeRange r{};
  DateTime d{};
  ASSERT_EQ(readTimeRange(b, &r), 0);
  ASSERT_EQ(readDateTime(b, &d), 0);
  EXPECT_TRUE(sameDateTime(r.start, tr.start));
  EXPECT_TRUE(sameDateTime(r.end, tr.end));
  EXPECT_TRUE(sameDateTime(d, DateTime{NO_TIME, 0xffff, 5}));
  EXPECT_EQ(bufUsed(b), 24u);

  // At the very end of the storage the read fails as any untagged field does.
  Buf *c = NewBuf();
  growBuf(c, 8);
  stuffDateTime(c, d);
  rewindBuf(c);
  testing::internal::CaptureStderr();
  EXPECT_EQ(readDateTime(c, &d), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ReadBuf: overflowed buffer\n");
  freeBuf(b);
  freeBuf(c);
}

}  // namespace
}  // namespace quorvel
