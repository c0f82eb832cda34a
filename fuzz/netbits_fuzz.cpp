// Fuzz target: arbitrary bytes as a calendar-bits field, read with readnetbits; the set
// must have the count the field gave and go out through writenetbits as it came in,
// bits beyond the count included, and survive a second read (a set without members is
// sent as the empty field).
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/net/calset.h"

using namespace quorvel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::vector<char> in(data, data + size);
  CalSet set = nullptr;
  int bytes = readnetbits(in.data(), in.size(), &set);
  if (set != nullptr) {
    if (bytes != setByteSize(set) || bytes > NETBITS_MAX) abort();
    std::vector<char> out(NETBITS_MAX);
    int written = writenetbits(out.data(), out.size(), set);
    if (setIsEmpty(set)) {  // a set without members goes out as the empty field
      if (written != 4 || out[0] != 0 || out[1] != 0) abort();
      freebits(&set);
      return 0;
    }
    if (written != bytes || memcmp(out.data(), in.data(), size_t(bytes)) != 0) abort();  // words copied whole
    CalSet back = nullptr;
    if (readnetbits(out.data(), size_t(bytes), &back) != bytes) abort();
    if (!setsEqual(set, back) || setBitCount(back) != setBitCount(set)) abort();
    freebits(&back);
  }
  freebits(&set);
  return 0;
}
