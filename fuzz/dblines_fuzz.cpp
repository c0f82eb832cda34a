// dblines_fuzz.cpp -- feeds arbitrary bytes to the database layer's line reader (CR LF
// folding, through a real stream) with a buffer size taken from the first byte, and to
// the path normaliser; traps when a result breaks its contract.
#include "core/db/layout.h"
#include "core/db/retry.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

using namespace quorvel;

// Every line comes back NUL-terminated inside the buffer, and the lines together are
// never longer than the input. (A line "\r\r\n" folds once and still ends in CR LF.)
static void checkLines(const uint8_t *data, size_t size) {
  if (size == 0) return;
  int bufSize = 2 + data[0] % 64;
  FILE *f = fmemopen(const_cast<uint8_t *>(data + 1), size - 1, "r");
  if (f == nullptr) return;
  std::vector<char> buf(bufSize);
  size_t total = 0;
  while (readLineCrlf(buf.data(), bufSize, f) != nullptr) {
    size_t len = strnlen(buf.data(), bufSize);
    if (len >= static_cast<size_t>(bufSize)) __builtin_trap();
    total += len;
  }
  if (total > size - 1) __builtin_trap();
  fclose(f);
}

static void checkNormalise(const uint8_t *data, size_t size) {
  std::vector<char> path(data, data + size);
  path.push_back('\0');
  size_t before = strlen(path.data());
  normalisePath(path.data());
  if (strlen(path.data()) != before) __builtin_trap();
  if (strpbrk(path.data(), "\\:") != nullptr) __builtin_trap();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  checkLines(data, size);
  checkNormalise(data, size);
  return 0;
}
