// Fuzz target: arbitrary bytes as a received message buffer, read field by field with
// ReadBuf (tagged, by the granularity the tag letter suggests, and untagged groups)
// until a read fails or the buffer is used up. Nothing may be read or written outside
// the buffer or the destination.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "core/net/buf.h"

using namespace quorvel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  uint8_t mode = data[0];  // steers untagged reads and skips
  Buf *buf = NewBuf();
  growBuf(buf, size - 1);
  if (size > 1) memcpy(bufData(buf), data + 1, size - 1);
  rewindBuf(buf);
  std::vector<uint8_t> dst(512);
  for (int round = 0; round < 4096; round++) {
    size_t before = bufUsed(buf);
    uint32_t length = 0;
    int32_t tag = peekTag(buf, &length);
    int32_t got;
    if ((mode >> (round % 8)) & 1) {
      got = ReadBuf(buf, dst.data(), 8 + (round % 3) * 4, 4, 0);  // an untagged group
    } else if (tag != -1 && (uint32_t(tag) >> 24) == 'S') {
      got = skipField(buf, length + 4);
    } else {
      int granularity = (tag != -1 && (uint32_t(tag) >> 24) == 'D') ? 2 : (tag & 0x01000000) ? 4 : 1;
      got = ReadBuf(buf, dst.data(), dst.size(), granularity, 1);
    }
    if (got == -1 || bufUsed(buf) == before) break;
  }
  freeBuf(buf);
  return 0;
}
