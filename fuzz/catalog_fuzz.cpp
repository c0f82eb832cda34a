// catalog_fuzz.cpp -- feeds arbitrary bytes to the catalogue loader as an English
// catalogue file, then looks up messages around the sets and numbers it may hold.
#include "core/base/base.h"
#include "core/catalog/catalog.h"

#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

using namespace quorvel;

// The catalogue file of every run: <root>/resources/En_US/fz.msg under one temp root.
static std::string catalogFile() {
  static std::string path;
  if (path.empty()) {
    char tmpl[] = "/tmp/qvcatfuzzXXXXXX";
    if (!mkdtemp(tmpl)) abort();
    std::string root = tmpl;
    mkdir((root + "/resources").c_str(), 0755);
    mkdir((root + "/resources/En_US").c_str(), 0755);
    setenv("QUORVELPATH", root.c_str(), 1);
    unsetenv("NOQUORVELCATGETS");
    resetBase();
    path = root + "/resources/En_US/fz.msg";
  }
  return path;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string path = catalogFile();
  FILE *f = fopen(path.c_str(), "wb");
  if (!f) abort();
  fwrite(data, 1, size, f);
  fclose(f);
  resetCatalog();
  catopen("fz");
  static const char def[] = "default";
  for (int set = -1; set <= 6; set++) {
    for (int num = -1; num <= 6; num++) {
      const char *t = catgets("fz", set, num, def);
      if (!t) abort();
      if (t != def) (void)strlen(t);  // every text found must be a readable string
    }
  }
  (void)catgets("fz", INT32_MAX, 1, def);
  (void)catgets("fz", INT32_MIN, INT32_MAX, def);
  return 0;
}
