// netdate.cpp -- date-times and time ranges as untagged groups inside message buffers,
// built on the byte-level wire form of core/date.
#include "core/net/netdate.h"

namespace quorvel {

void stuffDateTime(Buf *buf, const DateTime &dt) {
  uint8_t bytes[DATETIME_WIRE];
  putDateTime(bytes, dt);
  StuffBuf(buf, bytes, sizeof bytes, 1, BUF_UNTAGGED);
}

int readDateTime(Buf *buf, DateTime *dt) {
  uint8_t bytes[DATETIME_WIRE];
  if (ReadBuf(buf, bytes, sizeof bytes, 1, 0) < 0) return -1;
  *dt = getDateTime(bytes);
  return 0;
}

void stuffTimeRange(Buf *buf, const TimeRange &tr) {
  uint8_t bytes[TIMERANGE_WIRE];
  putTimeRange(bytes, tr);
  StuffBuf(buf, bytes, sizeof bytes, 1, BUF_UNTAGGED);
}

int readTimeRange(Buf *buf, TimeRange *tr) {
  uint8_t bytes[TIMERANGE_WIRE];
  if (ReadBuf(buf, bytes, sizeof bytes, 1, 0) < 0) return -1;
  *tr = getTimeRange(bytes);
  return 0;
}

}  // namespace quorvel
