// Tests of date-time values: the 8-byte wire form and the record-file text form with
// the list-defaults rule for the two qualifiers.
#include "core/date/datetime.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace quorvel {
namespace {

std::string format(const DateTime &dt, const DateTime *defaults) {
  char text[DATETIME_TEXT];
  int n = formatDateTime(text, sizeof text, dt, defaults);
  EXPECT_GE(n, 0);
  return std::string(text, size_t(n < 0 ? 0 : n));
}

TEST(DateTimeWire, PutsTimeAndQualifiersInNetworkOrder) {
  uint8_t out[8];
  putDateTime(out, DateTime{0x01020304, 0xA0B0, 0x0007});
  EXPECT_EQ(std::vector<uint8_t>(out, out + 8),
            (std::vector<uint8_t>{1, 2, 3, 4, 0xA0, 0xB0, 0, 7}));
  DateTime back = getDateTime(out);
  EXPECT_TRUE(sameDateTime(back, DateTime{0x01020304, 0xA0B0, 7}));

  putDateTime(out, initDateTime());
  EXPECT_EQ(std::vector<uint8_t>(out, out + 8), (std::vector<uint8_t>{0x80, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(getDateTime(out).time, NO_TIME);

  uint8_t range[16];
  TimeRange tr{{-1, 1, 2}, {1700000000, 3, 4}};
  putTimeRange(range, tr);
  TimeRange r = getTimeRange(range);
  EXPECT_TRUE(sameDateTime(r.start, tr.start));
  EXPECT_TRUE(sameDateTime(r.end, tr.end));
  EXPECT_EQ(range[8], 0x65);  // the end starts at byte 8 (1700000000 = 0x6553F100)
}

TEST(DateTimeText, WritesBothQualifiersWithoutDefaults) {
  EXPECT_EQ(format(DateTime{0x655f1a00, 0x3c, 0x1}, nullptr), "0x655f1a00 @0x3c %0x1");
  EXPECT_EQ(format(initDateTime(), nullptr), "0x80000000 @0x0 %0x0");
  EXPECT_EQ(format(DateTime{-1, 0xffff, 0xffff}, nullptr), "0xffffffff @0xffff %0xffff");
}

TEST(DateTimeText, DefaultsDropEqualQualifiers) {
  DateTime defaults{0, 0x3c, 0x1};
  // Both equal: only the time.
  EXPECT_EQ(format(DateTime{0x10, 0x3c, 0x1}, &defaults), "0x10");
  // First differs, second equal: the first only.
  EXPECT_EQ(format(DateTime{0x10, 0x5, 0x1}, &defaults), "0x10 @0x5");
  // Both differ: both.
  EXPECT_EQ(format(DateTime{0x10, 0x5, 0x9}, &defaults), "0x10 @0x5 %0x9");
  // The second is considered only when the first was written: it is lost here.
  EXPECT_EQ(format(DateTime{0x10, 0x3c, 0x9}, &defaults), "0x10");
}

TEST(DateTimeText, ParseFillsOmittedQualifiersFromDefaults) {
  DateTime defaults{0, 0x3c, 0x1};
  DateTime dt{};
  ASSERT_EQ(parseDateTime("0x10", &dt, &defaults), 0);
  EXPECT_TRUE(sameDateTime(dt, DateTime{0x10, 0x3c, 0x1}));
  ASSERT_EQ(parseDateTime("0x10 @0x5\n", &dt, &defaults), 0);
  EXPECT_TRUE(sameDateTime(dt, DateTime{0x10, 0x5, 0x1}));
  ASSERT_EQ(parseDateTime("0x10 @0x5 %0x9", &dt, &defaults), 0);
  EXPECT_TRUE(sameDateTime(dt, DateTime{0x10, 0x5, 0x9}));
  ASSERT_EQ(parseDateTime("0x10", &dt, nullptr), 0);
  EXPECT_TRUE(sameDateTime(dt, DateTime{0x10, 0, 0}));
  // NO_TIME, also as a 64-bit sign-extended pattern.
  ASSERT_EQ(parseDateTime("0x80000000 @0x0 %0x0", &dt, nullptr), 0);
  EXPECT_EQ(dt.time, NO_TIME);
  ASSERT_EQ(parseDateTime("0xffffffff80000000", &dt, nullptr), 0);
  EXPECT_EQ(dt.time, NO_TIME);
}

TEST(DateTimeText, ParseRefusesMalformedValues) {
  DateTime dt{7, 7, 7};
  for (const char *bad : {"", "10", "0x", "0xzz", "0x10 @", "0x10 @0x10000", "0x10 %0x1 @0x2",
                          "0x10 @0x1 %", "0x10 junk", "0x100000000", "0x10 @0x1 %0x1 x"}) {
    EXPECT_EQ(parseDateTime(bad, &dt, nullptr), -1) << bad;
  }
  EXPECT_TRUE(sameDateTime(dt, DateTime{7, 7, 7}));  // untouched on failure
}

TEST(DateTimeText, RoundTripsThroughFormatAndParse) {
  const DateTime defaults{0, 2, 3};
  const DateTime values[] = {{0, 0, 0}, {NO_TIME, 2, 3}, {-5, 2, 9}, {123456, 7, 3}, {INT32_MAX, 1, 1}};
  for (const DateTime &v : values) {
    for (const DateTime *d : {static_cast<const DateTime *>(nullptr), &defaults}) {
      if (d != nullptr && v.q1 == d->q1 && v.q2 != d->q2) continue;  // the lossy case
      DateTime back{};
      ASSERT_EQ(parseDateTime(format(v, d).c_str(), &back, d), 0);
      EXPECT_TRUE(sameDateTime(back, v)) << format(v, d);
    }
  }
  char tiny[6];
  EXPECT_EQ(formatDateTime(tiny, sizeof tiny, DateTime{0x1234567, 0, 0}, nullptr), -1);
}

}  // namespace
}  // namespace quorvel
