// Fuzz target: arbitrary bytes as a calendar-names field, read with readnetchars against
// a small calendar table; whatever set comes out must survive writenetchars and a
// second readnetchars unchanged.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/net/calset.h"
#include "core/net/namelookup.h"

using namespace quorvel;

namespace {

const char *const kNames[] = {"ann", "bob", "cy", nullptr, "dee-long-name", "eve", "x"};
constexpr int kCount = sizeof kNames / sizeof kNames[0];

int count(void *) { return kCount; }
const char *nameOf(void *, int i) { return kNames[i]; }
int indexOf(void *, const char *name) {
  for (int i = 0; i < kCount; i++)
    if (kNames[i] != nullptr && strcmp(kNames[i], name) == 0) return i;
  return -1;
}
const NameLookup kLookup{nullptr, count, nameOf, indexOf};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  setNameLookup(&kLookup);
  std::vector<char> in(data, data + size);
  CalSet set = nullptr;
  readnetchars(in.data(), in.size(), &set);
  if (set != nullptr) {
    std::vector<char> out(size_t(netcharsSize(set)));
    int total = writenetchars(out.data(), out.size(), set);
    if (total != int(out.size())) abort();
    CalSet back = nullptr;
    if (readnetchars(out.data(), out.size(), &back) != total) abort();
    if (!setsEqual(set, back)) abort();
    freebits(&back);
  }
  freebits(&set);
  resetNameLookup();
  return 0;
}
