// Date-times inside message buffers: untagged 8- and 16-byte groups in network order.
#include "core/net/netdate.h"
#include <gtest/gtest.h>
#include <string>

namespace quorvel {
namespace {

TEST(NetDate, GroupsAreUntaggedAndReadBack) {
  Buf *b = NewBuf();
  const TimeRange tr{{0x01020304, 0xA0B0, 2}, {2000, 3, 4}};
  const DateTime dt{NO_TIME, 0xffff, 5};
  stuffTimeRange(b, tr), stuffDateTime(b, dt);
  EXPECT_EQ(std::string((char *)bufData(b), bufUsed(b)),
            std::string("\1\2\3\4\xA0\xB0\0\2\0\0\7\xD0\0\3\0\4\x80\0\0\0\xFF\xFF\0\5", 24));
  TimeRange r{};
  DateTime d{};
  ASSERT_EQ((rewindBuf(b), readTimeRange(b, &r)), 0);
  EXPECT_TRUE(sameDateTime(r.start, tr.start) && sameDateTime(r.end, tr.end));
  EXPECT_TRUE(readDateTime(b, &d) == 0 && sameDateTime(d, dt));
  freeBuf(b);
}
}  // namespace
}  // namespace quorvel
