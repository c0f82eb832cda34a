// Date-times inside message buffers: untagged 8- and 16-byte groups.
#include "core/net/netdate.h"

#include <gtest/gtest.h>

#include <cstring>

namespace quorvel {
namespace {

TEST(NetDate, GroupsAreUntaggedAndReadBack) {
  Buf *b = NewBuf();
  const TimeRange tr{{1000, 1, 2}, {2000, 3, 4}};
  const DateTime dt{NO_TIME, 0xffff, 5};
  stuffTimeRange(b, tr), stuffDateTime(b, dt);
  const uint8_t bytes[24] = {0, 0, 0x03, 0xE8, 0, 1, 0, 2, 0, 0, 0x07, 0xD0,
                             0, 3, 0, 4, 0x80, 0, 0, 0, 0xff, 0xff, 0, 5};
  ASSERT_EQ(bufUsed(b), 24u);
  EXPECT_EQ(memcmp(bufData(b), bytes, 24), 0);
  TimeRange r{};
  DateTime d{};
  ASSERT_EQ((rewindBuf(b), readTimeRange(b, &r)), 0);
  EXPECT_TRUE(sameDateTime(r.start, tr.start) && sameDateTime(r.end, tr.end));
  ASSERT_EQ(readDateTime(b, &d), 0);
  EXPECT_TRUE(sameDateTime(d, dt));
  seekBuf(b, bufSize(b) - 8);  // the storage's last group fails as an untagged field does
  testing::internal::CaptureStderr();
  EXPECT_EQ(readDateTime(b, &d), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "ReadBuf: overflowed buffer\n");
  freeBuf(b);
}

}  // namespace
}  // namespace quorvel
