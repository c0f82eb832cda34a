// Date-time values: the 8-byte wire form and the record-file text form with the
// list-defaults rule for the two qualifiers.
#include "core/date/datetime.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace quorvel {
namespace {

const DateTime kDefaults{0, 0x3c, 0x1};

TEST(DateTimeWire, PutsTimeAndQualifiersInNetworkOrder) {
  uint8_t out[16];
  putTimeRange(out, TimeRange{{0x01020304, 0xA0B0, 7}, initDateTime()});
  EXPECT_EQ(std::vector<uint8_t>(out, out + 16),
            (std::vector<uint8_t>{1, 2, 3, 4, 0xA0, 0xB0, 0, 7, 0x80, 0, 0, 0, 0, 0, 0, 0}));
  TimeRange back = getTimeRange(out);
  EXPECT_TRUE(sameDateTime(back.start, DateTime{0x01020304, 0xA0B0, 7}) &&
              sameDateTime(back.end, DateTime{NO_TIME, 0, 0}));
}

TEST(DateTimeText, DefaultsDropEqualQualifiersAndReadersRestoreThem) {
  struct Row { DateTime dt; bool withDefaults; const char *text; DateTime back; } rows[] = {
      {{0x655f1a00, 0x3c, 1}, false, "0x655f1a00 @0x3c %0x1", {0x655f1a00, 0x3c, 1}},
      {{NO_TIME, 0, 0}, false, "0x80000000 @0x0 %0x0", {NO_TIME, 0, 0}},
      {{-1, 0xffff, 0xffff}, false, "0xffffffff @0xffff %0xffff", {-1, 0xffff, 0xffff}},
      {{0x10, 0x3c, 1}, true, "0x10", {0x10, 0x3c, 1}},
      {{0x10, 5, 1}, true, "0x10 @0x5", {0x10, 5, 1}},
      {{0x10, 5, 9}, true, "0x10 @0x5 %0x9", {0x10, 5, 9}},
      // The second qualifier is considered only when the first was written: lost here.
      {{0x10, 0x3c, 9}, true, "0x10", {0x10, 0x3c, 1}}};
  for (const Row &r : rows) {
    const DateTime *defaults = r.withDefaults ? &kDefaults : nullptr;
    char text[DATETIME_TEXT];
    DateTime back{};
    EXPECT_EQ(formatDateTime(text, sizeof text, r.dt, defaults), int(strlen(r.text)));
    EXPECT_STREQ(text, r.text);
    ASSERT_EQ(parseDateTime(r.text, &back, defaults), 0) << r.text;
    EXPECT_TRUE(sameDateTime(back, r.back)) << r.text;
  }
  char tiny[6];
  EXPECT_EQ(formatDateTime(tiny, sizeof tiny, DateTime{0x1234567, 0, 0}, nullptr), -1);
}

TEST(DateTimeText, ParseTakesLineEndsAndWideNoTimeButRefusesMalformedValues) {
  DateTime dt{};
  ASSERT_EQ(parseDateTime("0x10 @0x5 \r\n", &dt, &kDefaults), 0);
  EXPECT_TRUE(sameDateTime(dt, DateTime{0x10, 5, 1}));
  ASSERT_EQ(parseDateTime("0x10", &dt, nullptr), 0);  // no defaults: zero qualifiers
  EXPECT_TRUE(sameDateTime(dt, DateTime{0x10, 0, 0}));
  ASSERT_EQ(parseDateTime("0xffffffff80000000", &dt, nullptr), 0);  // sign-extended
  EXPECT_EQ(dt.time, NO_TIME);
  dt = DateTime{7, 7, 7};
  for (const char *bad :
       {"", "10", "0x", "0xzz", "0x0x5", "0x10 @", "0x10 @0x10000", "0x10 %0x1 @0x2", "0x10 @0x1 %",
        "0x10 @-0x1", "0x10 junk", "0x100000000", "0x10000000000000000", "0x10 @0x1 %0x1 x"})
    EXPECT_EQ(parseDateTime(bad, &dt, nullptr), -1) << bad;
  EXPECT_TRUE(sameDateTime(dt, DateTime{7, 7, 7}));  // untouched on failure
}

}  // namespace
}  // namespace quorvel
