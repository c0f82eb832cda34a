// Tests of the rewrite's failure paths the real file system will not produce on demand:
// rename, unlink, stat and fsync are interposed at link time (--wrap), fail on a path
// suffix with a chosen errno, and log the order of the calls.
#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "core/db/layout.h"
#include "core/db/record_test_util.h"

namespace {

// op is "rename" (matched on its source), "unlink", "stat" or "fsync"; the path ends with
// suffix; err is the errno to fail with; emptyFile: stat succeeds but reports size 0.
struct Fault { std::string op, suffix; int err; bool emptyFile; };
std::vector<Fault> faults;
std::vector<std::string> calls;  // "op name" with the file's last path component

std::string base(const std::string &path) { return path.substr(path.rfind('/') + 1); }

// Logs the call; true (errno set) when a fault is planned for it.
bool failing(const char *op, const std::string &path, const std::string &logged) {
  if (!logged.empty()) calls.push_back(std::string(op) + " " + logged);
  for (const Fault &f : faults)
    if (f.op == op && !f.emptyFile && path.ends_with(f.suffix)) return errno = f.err, true;
  return false;
}

}  // namespace

extern "C" {
int __real_rename(const char *from, const char *to);
int __real_unlink(const char *path);
int __real_stat(const char *path, struct stat *st);
int __real_fsync(int fd);
int __wrap_rename(const char *from, const char *to) {
  return failing("rename", from, base(from) + " " + base(to)) ? -1 : __real_rename(from, to);
}
int __wrap_unlink(const char *path) { return failing("unlink", path, base(path)) ? -1 : __real_unlink(path); }
int __wrap_fsync(int fd) {
  std::error_code ec;
  std::string path = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), ec).string();
  return failing("fsync", path, base(path)) ? -1 : __real_fsync(fd);
}
int __wrap_stat(const char *path, struct stat *st) {
  int rc = failing("stat", path, "") ? -1 : __real_stat(path, st);
  for (const Fault &f : faults)  // an empty file where there is data
    if (rc == 0 && f.op == "stat" && f.emptyFile && base(path) == f.suffix) st->st_size = 0;
  return rc;
}
}

namespace quorvel {
namespace {

struct RecordFaults : RecordTest {
  void SetUp() override { RecordTest::SetUp(), faults.clear(), calls.clear(), writeFile(path, "old contents\n"), fill(1); }
  void TearDown() override { faults.clear(), RecordTest::TearDown(); }
};

TEST_F(RecordFaults, RelinkFailuresReportAndLeaveOldOrNewFileInPlace) {
  const std::string &p = path, unable = "tmprelink: unable to ";
  struct Row { std::vector<Fault> plan; std::string log; int rc; bool newInPlace; std::vector<unsigned> pauses; } rows[] = {
      {{{"rename", "calTMP", EXDEV, false}}, unable + "rename " + p + "TMP to " + p + " (errno=18)!\n", EXDEV, false, {}},
      {{{"rename", "calTMP", 0, false}}, unable + "rename " + p + "TMP to " + p + " (errno=0)!\n", -E2BIG, false, {}},
      {{{"unlink", "calsav", EPERM, false}}, unable + "unlink saved " + p + "sav (errno=1)!\n", EPERM, true, {}},
      // Without errno: no report. (The stale "sav" check is skipped by a failing stat.)
      {{{"unlink", "calsav", 0, false}, {"stat", "calsav", ENOENT, false}}, "", -EAGAIN, true, {}},
      // Moving the old file aside: every failure gives the wrapper's -1, kept as it is.
      {{{"rename", "/cal", EACCES, false}}, unable + "rename " + p + " (errno=-1)!\n", -1, false, {}},
      {{{"rename", "/cal", EBUSY, false}}, unable + "rename " + p + " (errno=-1)!\n", -1, false, {1, 1, 1}},
      // The new file is empty after its rename: removed, the old one put back.
      {{{"stat", "cal", 0, true}}, "tmprelink: target file " + p + " does not exist\n", -ECHILD, false, {}},
  };
  for (const Row &r : rows) {
    SCOPED_TRACE(r.log); writeFile(path, "old contents\n"), unlink((path + "sav").c_str());
    ASSERT_EQ(writedbfile(rf), 0); std::string fresh = readFile(path + "TMP");
    faults = r.plan, calls.clear(), resetDbTestState(), rf->loaded = true, rf->mtime = 5; int rc = 0;
    EXPECT_EQ(stderrOf([&] { rc = tmprelink(rf); }), r.log);
    faults.clear(); EXPECT_EQ(rc, r.rc); EXPECT_EQ(readFile(path), r.newInPlace ? fresh : "old contents\n");
    EXPECT_EQ(recordedPauses(), r.pauses);
    EXPECT_EQ(exists(path + "sav"), r.newInPlace);  // kept only when its unlink failed
    EXPECT_EQ(rf->loaded, r.rc != -1); EXPECT_EQ(rf->mtime == NO_TIME, r.rc == -1);  // not moved aside: read again
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "rename cal calsav"), r.pauses.empty() ? 1 : 4);
  }
}

TEST_F(RecordFaults, ScratchFileMissingEmptyOrUnsyncedIsRefused) {
  faults = {{"stat", "calTMP", ENOENT, false}}; EXPECT_EQ(writedbfile(rf), ENOENT);
  faults[0].emptyFile = true; EXPECT_EQ(writedbfile(rf), -EINTR); faults = {{"fsync", "calTMP", EIO, false}};
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(writedbfile(rf), EIO); }), "quorvel: database write failed--errno=5\n");
  EXPECT_FALSE(exists(path + "TMP") || rf->loaded); EXPECT_EQ(readFile(path), "old contents\n");
}

TEST_F(RecordFaults, RewriteSyncsRenamesAndKeepsTheNewFilesFigures) {
  writeFile(path + "sav", "stale copy"), rf->shrinkOnce = true; ASSERT_EQ(writedbfile(rf), 0);
  std::string fresh = readFile(path + "TMP"); ASSERT_EQ(tmprelink(rf), 0);
  std::vector<std::string> want = {"fsync calTMP", "unlink calsav", "rename cal calsav", "rename calTMP cal",
                                   "fsync " + base(dir.path), "unlink calsav"};
  EXPECT_EQ(calls, want); EXPECT_EQ(readFile(path), fresh);
  EXPECT_FALSE(exists(path + "sav") || exists(path + "TMP")); EXPECT_EQ(rf->size, long(fresh.size()));
  EXPECT_EQ(rf->mtime, fileModTime(path.c_str(), nullptr)); EXPECT_NE(rf->mtime, NO_TIME);
  EXPECT_EQ(rf->dirTime, fileModTime(dir.path.c_str(), nullptr)); EXPECT_FALSE(rf->shrinkOnce || rf->dirty);
}

}  // namespace
}  // namespace quorvel
