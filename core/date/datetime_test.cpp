// Date-times in the record-file text form, with the list-defaults rule for the qualifiers.
#include "core/date/datetime.h"
#include <gtest/gtest.h>
#include <cstring>

namespace quorvel {
namespace {
const DateTime kDefaults{0, 0x3c, 0x1};

TEST(DateTimeText, DefaultsDropEqualQualifiersReadersRestoreThemAndRefuseMalformedText) {
  struct Row { DateTime dt; bool withDefaults; const char *text; DateTime back; } rows[] = {
      {{0x655f1a00, 0x3c, 1}, false, "0x655f1a00 @0x3c %0x1", {0x655f1a00, 0x3c, 1}},
      {{NO_TIME, 0, 0}, false, "0x80000000 @0x0 %0x0", {NO_TIME, 0, 0}},
      {{-1, 0xffff, 0xffff}, false, "0xffffffff @0xffff %0xffff", {-1, 0xffff, 0xffff}},
      {{16, 0x3c, 1}, true, "0x10", {16, 0x3c, 1}}, {{16, 5, 1}, true, "0x10 @0x5", {16, 5, 1}},
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
  // Parsing takes line ends and a wide NO_TIME, and refuses malformed values.
  DateTime dt{};
  EXPECT_TRUE(!parseDateTime("0x10 @0x5 \r\n", &dt, &kDefaults) && sameDateTime(dt, {16, 5, 1}));
  // No defaults: zero qualifiers. A sign-extended NO_TIME.
  EXPECT_TRUE(parseDateTime("0x10", &dt, nullptr) == 0 && sameDateTime(dt, DateTime{0x10, 0, 0}));
  EXPECT_TRUE(parseDateTime("0xffffffff80000000", &dt, nullptr) == 0 && dt.time == NO_TIME);
  dt = DateTime{7, 7, 7};
  for (const char *bad :
       {"", "10", "0x", "0xzz", "0x0x5", "0x10 @", "0x10 @0x10000", "0x10 %0x1 @0x2", "0x10 @0x1 %",
        "0x10 @-0x1", "0x10 junk", "0x100000000", "0x10000000000000000", "0x10 @0x1 %0x1 x"})
    EXPECT_EQ(parseDateTime(bad, &dt, nullptr), -1) << bad;
  EXPECT_TRUE(sameDateTime(dt, DateTime{7, 7, 7}));  // untouched on failure
}
}  // namespace
}  // namespace quorvel
