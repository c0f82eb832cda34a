// datetime.h -- date-time values and their two external forms.
//
// A date-time is a 32-bit time (seconds of the system clock, NO_TIME when unset) and two
// 16-bit qualifiers that travel with it. It owns:
//  - the wire form: 8 bytes, untagged, network order: time (4), q1 (2), q2 (2). This
//    module works on plain bytes; the Buf-facing helpers live in core/net/netdate.h.
//  - the record-file text form: "0x%lx" of the time, " @0x%x" of q1, " %0x%x" of q2.
//    Given the enclosing list's defaults, q1 is written only when it differs from the
//    default q1, and q2 only when q1 was written and q2 differs from the default q2.
//    Without defaults both are written. A reader fills omitted qualifiers from the
//    defaults (zero without defaults). The time is written as its unsigned 32-bit
//    pattern (NO_TIME shows as 0x80000000).
// A time range is two date-times, start and end: the item's time value and the holiday
// interval. Results: 0 success, -1 malformed text.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/base/base.h"

namespace quorvel {

struct DateTime {
  int32_t time;  // seconds of the system clock, NO_TIME when not set
  uint16_t q1;   // first qualifier
  uint16_t q2;   // second qualifier
};
static_assert(sizeof(DateTime) == 8);

struct TimeRange {
  DateTime start;  // record-file tag B
  DateTime end;    // record-file tag F
};
static_assert(sizeof(TimeRange) == 16);

inline constexpr size_t DATETIME_WIRE = 8;    // bytes of one date-time on the wire
inline constexpr size_t TIMERANGE_WIRE = 16;  // start then end
inline constexpr size_t DATETIME_TEXT = 40;   // room for the longest text form + NUL

/* ---- Values ------------------------------------------------------------------- */

// The initial value of every date-time field: NO_TIME with both qualifiers 0.
DateTime initDateTime();
TimeRange initTimeRange();
bool sameDateTime(const DateTime &a, const DateTime &b);

/* ---- Wire form (8 bytes, network order) --------------------------------------- */

void putDateTime(uint8_t *out, const DateTime &dt);  // writes exactly 8 bytes
DateTime getDateTime(const uint8_t *in);             // reads exactly 8 bytes
void putTimeRange(uint8_t *out, const TimeRange &tr);  // 16 bytes: start, end
TimeRange getTimeRange(const uint8_t *in);

/* ---- Record-file text form ---------------------------------------------------- */

// Writes the value (no line end) into out, NUL-terminated, never more than cap bytes;
// defaults may be null. Returns the length of the text, or -1 when cap is too small.
int formatDateTime(char *out, size_t cap, const DateTime &dt, const DateTime *defaults);

// Parses a value written by formatDateTime (trailing blanks and a line end allowed).
// Omitted qualifiers come from defaults (0 when defaults is null). 0 or -1.
int parseDateTime(const char *text, DateTime *out, const DateTime *defaults);

}  // namespace quorvel
