// The rewrite's failures after the old book was moved aside: link and unlink are
// interposed at link time and fail once for the name a row picks.
#include "core/people/rolo_test_util.h"

#include <cerrno>
#include <cstring>

using namespace quorvel;

// The call to fail: "link", or "unlink" of a name ending in `suffix`; errno to give.
static std::string failCall, failSuffix;
static int failErrno;

static bool failsNow(const char *call, const char *path) {
  size_t n = strlen(path), s = failSuffix.size();
  if (failCall != call || n < s || failSuffix != path + n - s) return false;
  failCall.clear();
  errno = failErrno;
  return true;
}

extern "C" {
int __real_link(const char *from, const char *to);
int __real_unlink(const char *path);
int __wrap_link(const char *from, const char *to) {
  return failsNow("link", to) ? -1 : __real_link(from, to);
}
int __wrap_unlink(const char *path) {
  return failsNow("unlink", path) ? -1 : __real_unlink(path);
}
}

TEST_F(RoloTest, FailuresAfterTheMoveAsideRestoreTheBookAndNameTheFiles) {
  book->list = list({card(0, 0, 9, {{1, "new"}})});
  const std::string A = anna, T = anna + "TMP", S = anna + "sav";
  const std::string fresh = "#B\t0x9 @0x0 %0x0\n#1:\tnew\n\n", kept = "old|" + fresh + "|-|-";
  const struct { const char *call, *suffix; int err; std::string message, files; } rows[] = {
      {"link", "", EXDEV, "unable to link " + A + " to " + T + " (errno=18)!", kept},
      {"link", "", 0, "unable to link " + A + " to " + T + " (errno=-1)!", kept},
      {"unlink", "TMP", EPERM, "unable to unlink temp " + T + " (errno=1)!", kept},
      {"unlink", "TMP", 0, "", fresh + "|" + fresh + "|-|-"},  // no error number: carries on
      {"unlink", "sav", EACCES, "unable to unlink saved " + S + " (errno=13)!", fresh + "|-|old|-"},
  };
  for (auto &row : rows) {
    unlink(S.c_str()), unlink(T.c_str());
    put(A, "old");
    failCall = row.call, failSuffix = row.suffix, failErrno = row.err;
    testing::internal::CaptureStderr();
    EXPECT_EQ(write(), row.message.empty() ? 0 : -1) << row.message;
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              row.message.empty() ? "" : "writerololist: " + row.message + "\n");
    EXPECT_EQ(files(), row.files) << row.message;
  }
  freeRoloList(book->list);
}
