// options_fuzz.cpp -- feeds arbitrary bytes to the option-line reader, once outside and
// once in whole-file mode, over a table with the client options' keys. Checks what the
// reader promises: a stored value never holds a line end or an unescaped "#", only rows
// counted as set are marked changed, and a block read (which stops at its first closing
// blank line) never sets more than the whole-file read of the same bytes.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/notice/notice.h"

namespace {

struct Table {
  quorvel::ClientOption rows[3] = {
      {"checkTime", const_cast<char *>(""), nullptr, 1, 0, 0},
      {"limitRecurring", const_cast<char *>("False"), nullptr, 3, 0, 0},
      {"requirePassword", nullptr, nullptr, 3, 0, 0}};
  Table() { quorvel::initOptionTable(rows, 3); }
  ~Table() { quorvel::releaseOptionTable(rows, 3); }

  int read(const uint8_t *data, size_t size, int wholeFile) {
    FILE *f = fmemopen(const_cast<uint8_t *>(data), size, "r");
    if (!f) abort();
    int n = quorvel::readOptionStream(f, rows, 3, wholeFile);
    fclose(f);
    int changed = 0;
    for (const auto &r : rows) {
      changed += r.changed;
      if (!r.value) continue;
      if (strchr(r.value, '\n')) abort();
      for (const char *h = strchr(r.value, '#'); h; h = strchr(h + 1, '#'))
        if (h == r.value || h[-1] != '\\') abort();
    }
    if (n < 0 || changed > n) abort();
    return n;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0 || size > 64 * 1024) return 0;  // fmemopen wants at least one byte
  Table block, whole;
  int inBlock = block.read(data, size, 0);
  int inWhole = whole.read(data, size, 1);
  if (inBlock > inWhole) abort();
  if (quorvel::findOption(whole.rows, "CHECKTIME", 3) != &whole.rows[0]) abort();
  return 0;
}
