// netdate.h -- date-times inside message buffers: the untagged 8-byte group (time,
// q1, q2 in network order) and the 16-byte time range (start, end).
// Results: 0, or -1 when the group does not fit (ReadBuf's report).
#pragma once

#include "core/date/datetime.h"
#include "core/net/buf.h"

namespace quorvel {

void stuffDateTime(Buf *buf, const DateTime &dt);
int readDateTime(Buf *buf, DateTime *dt);
void stuffTimeRange(Buf *buf, const TimeRange &tr);
int readTimeRange(Buf *buf, TimeRange *tr);

}  // namespace quorvel
