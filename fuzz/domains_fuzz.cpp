// domains_fuzz.cpp -- feeds arbitrary bytes to the domains file's line splitter, line by
// line as the reader takes them (at most 1024 characters each, comments and empty lines
// skipped). Host lookups are left out: they would reach the resolver, not our code.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/date/domains.h"

using namespace quorvel;

static void checkField(const std::string &f) {
  if (f.find('"') != std::string::npos || f.find('\n') != std::string::npos) abort();
  if (!f.empty() && (strchr(" \t\r\f\v", f.front()) || strchr(" \t\r\f\v", f.back()))) abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > 16384) return 0;  // a few hundred lines show every path
  FILE *fp = fmemopen(const_cast<uint8_t *>(data), size, "r");
  if (fp == nullptr) return 0;
  char line[1025];
  std::string f[3];
  while (fgets(line, sizeof line, fp) != nullptr) {
    if (line[0] == '#' || line[0] == '\n') continue;
    int n = SplitDomainLine(line, f);
    if (n < 1 || n > 3) abort();
    for (int i = 0; i < 3; i++) {
      checkField(f[i]);
      if (i >= n && !f[i].empty()) abort();
    }
    (void)IsThisHost(f[1].empty() || (f[1][0] >= '0' && f[1][0] <= '9') ? f[1].c_str() : "localhost",
                     0x0100007f);
  }
  fclose(fp);
  return 0;
}
