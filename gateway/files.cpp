// files.cpp -- placing the agent's reply files below the web server's document tree
// ("../htdocs/", the CGI directory's sibling) and emptying its "tmp/" directory.
#include "gateway/gateway.h"
#include "gateway/hardening.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <string>
#include <unistd.h>

namespace quorvel::gateway {

static const char HTDOCS[] = "../htdocs/";

// Writes all of text to fd; false on a write error.
static bool writeAll(int fd, const char *text, size_t len) {
  while (len > 0) {
    ssize_t n = write(fd, text, len);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    text += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

static void reportOpenFailure(const std::string &path) {
  std::string msg(localMsg(8, "failed to open %s successfully"));
  size_t at = msg.find("%s");
  if (at != std::string::npos) msg.replace(at, 2, path);
  writeStdout(msg.c_str());
}

void writeHtdocsFile(const char *name, const char *contents) {
  // By default the name is taken exactly as the agent sent it: no check for "..", "/"
  // or absolute names, and missing sub-directories are not created. Hardened mode
  // confines it (hardening.h).
  std::string path = HTDOCS;
  path += name;
  bool hardened = hardening().on;
  // Created like fopen "w" would (mode 0666 less the umask), but an existing file is
  // not truncated on open: it is overwritten and then cut to the new length. Truncating
  // a just-written file to zero makes the file system flush it on close, which made
  // rewriting the same reply files far slower than writing fresh ones. Same inode, same
  // final contents: the text up to its first NUL.
  int fd = hardened ? openReplyFileHardened(name)
                    : open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) {
    reportOpenFailure(hardened ? htmlEscape(path.c_str()) : path);
    return;
  }
  size_t len = strlen(contents);
  if (writeAll(fd, contents, len)) {
    if (ftruncate(fd, static_cast<off_t>(len)) != 0) perror("writeHtdocsFile: ftruncate");
  } else {
    perror("writeHtdocsFile: write");
  }
  close(fd);
}

void clearTmpDir() {
  // Hardened mode: a tmp/ that is not a real directory (a planted link would take the
  // removal elsewhere) is left alone.
  struct stat st;
  if (hardening().on && (lstat("../htdocs/tmp", &st) != 0 || !S_ISDIR(st.st_mode))) return;
  // Another request's files in tmp/ may go too; the product has never locked here.
  int status = system("/bin/rm -rf ../htdocs/tmp/*");
  (void)status;
}

}  // namespace quorvel::gateway
