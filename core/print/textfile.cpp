// textfile.cpp -- whole-text reads and scratch-and-rename replaces through the
// database layer's retrying calls.
#include "core/print/textfile.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

#include "core/db/retry.h"

namespace quorvel {

static int errnoOr(int fallback) { return errno > 0 ? errno : fallback; }

int readTextFile(const char *path, std::string *text) {
  text->clear();
  errno = 0;
  FILE *in = Fopen(path, "r");
  if (in == nullptr) return errnoOr(-1);
  char chunk[4096];
  size_t got;
  while ((got = fread(chunk, 1, sizeof chunk, in)) > 0) text->append(chunk, got);
  int rc = ferror(in) ? errnoOr(-1) : 0;
  Fclose(in);
  return rc;
}

// Syncs the directory holding path, so that the rename itself survives a crash.
static void syncParent(const std::string &path) {
  size_t slash = path.rfind('/');
  std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY);
  if (fd < 0) return;
  fsync(fd);
  close(fd);
}

int replaceTextFile(const char *path, const std::string &text, unsigned mode) {
  std::string tmp = std::string(path) + "TMP";
  errno = 0;
  FILE *out = Fopen(tmp.c_str(), "w");
  if (out == nullptr) return errnoOr(-1);
  int rc = 0;
  if (fwrite(text.data(), 1, text.size(), out) != text.size() || fflush(out) != 0 ||
      fsync(fileno(out)) != 0)
    rc = errnoOr(-1);
  if (Fclose(out) != 0 && rc == 0) rc = errnoOr(-1);
  if (rc == 0 && retryChmod(tmp.c_str(), mode) != 0) rc = errnoOr(-1);
  if (rc == 0 && retryRename(tmp.c_str(), path) != 0) rc = errnoOr(-1);
  if (rc != 0) {
    retryUnlink(tmp.c_str());
    return rc;
  }
  syncParent(path);
  return 0;
}

}  // namespace quorvel
