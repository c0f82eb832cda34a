// Tests of the rewrite's failure paths that the real file system will not produce on
// demand: rename, unlink, stat and fsync are interposed at link time (--wrap), fail
// on a path suffix with a chosen errno, and log the order of the calls.
#include <cerrno>
#include <climits>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "core/db/db_test_util.h"
#include "core/db/record_test_util.h"
#include "core/db/recordfile.h"

namespace {

struct Fault {
  std::string op;      // "rename" (matched on its source), "unlink", "stat", "fsync"
  std::string suffix;  // the path must end with this
  int err;             // errno to fail with
  bool emptyFile;      // stat: succeed but report size 0
};
std::vector<Fault> faults;
std::vector<std::string> calls;  // "op name" with the file's last path component

bool endsWith(const std::string &s, const std::string &tail) {
  return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

std::string base(const std::string &path) { return path.substr(path.rfind('/') + 1); }

const Fault *faultFor(const char *op, const std::string &path) {
  for (const Fault &f : faults)
    if (f.op == op && endsWith(path, f.suffix)) return &f;
  return nullptr;
}

std::string fdPath(int fd) {
  char link[64], target[512];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
  ssize_t n = readlink(link, target, sizeof target - 1);
  return n > 0 ? std::string(target, size_t(n)) : "?";
}

}  // namespace

extern "C" {
int __real_rename(const char *from, const char *to);
int __real_unlink(const char *path);
int __real_stat(const char *path, struct stat *st);
int __real_fsync(int fd);

int __wrap_rename(const char *from, const char *to) {
  calls.push_back("rename " + base(from) + " " + base(to));
  if (const Fault *f = faultFor("rename", from)) {
    errno = f->err;
    return -1;
  }
  return __real_rename(from, to);
}

int __wrap_unlink(const char *path) {
  calls.push_back("unlink " + base(path));
  if (const Fault *f = faultFor("unlink", path)) {
    errno = f->err;
    return -1;
  }
  return __real_unlink(path);
}

int __wrap_stat(const char *path, struct stat *st) {
  const Fault *f = faultFor("stat", path);
  if (f != nullptr && !f->emptyFile) {
    errno = f->err;
    return -1;
  }
  int rc = __real_stat(path, st);
  if (f != nullptr && rc == 0) st->st_size = 0;
  return rc;
}

int __wrap_fsync(int fd) {
  std::string path = fdPath(fd);
  calls.push_back("fsync " + base(path));
  if (const Fault *f = faultFor("fsync", path)) {
    errno = f->err;
    return -1;
  }
  return __real_fsync(fd);
}
}

namespace quorvel {
namespace {

class RecordFaults : public ::testing::Test {
 protected:
  TestNames names{{"ann", "bob"}};
  TempDir dir;
  std::string path;
  RecordFile *rf = nullptr;
  void SetUp() override {
    resetDbTestState();
    names.install();
    faults.clear();
    calls.clear();
    path = dir.at("cal");
    writeFile(path, "old contents\n");
    rf = newRecordFile(path.c_str(), nullptr);
    Item *it = evnew();
    it->calendars = makeSet({0, 1});
    it->randomId = 1;
    addRecordItem(rf, it);
  }
  void TearDown() override {
    faults.clear();
    freeRecordFile(rf);
    resetNameLookup();
  }
  std::string relink(int *rc) {
    testing::internal::CaptureStderr();
    *rc = tmprelink(rf);
    return testing::internal::GetCapturedStderr();
  }
};

TEST_F(RecordFaults, FailedRenameOfScratchPutsTheOldFileBack) {
  ASSERT_EQ(writedbfile(rf), 0);
  faults.push_back({"rename", "calTMP", EXDEV, false});
  int rc = 0;
  EXPECT_EQ(relink(&rc), "tmprelink: unable to rename " + path + "TMP to " + path + " (errno=18)!\n");
  EXPECT_EQ(rc, EXDEV);
  EXPECT_EQ(readFile(path), "old contents\n");
  EXPECT_FALSE(exists(path + "sav"));
  faults[0].err = 0;
  EXPECT_EQ(relink(&rc), "tmprelink: unable to rename " + path + "TMP to " + path + " (errno=0)!\n");
  EXPECT_EQ(rc, -E2BIG);
  EXPECT_EQ(readFile(path), "old contents\n");
}

TEST_F(RecordFaults, FailedUnlinkOfSavedCopyIsReported) {
  ASSERT_EQ(writedbfile(rf), 0);
  std::string fresh = readFile(path + "TMP");
  faults.push_back({"unlink", "calsav", EPERM, false});
  int rc = 0;
  EXPECT_EQ(relink(&rc), "tmprelink: unable to unlink saved " + path + "sav (errno=1)!\n");
  EXPECT_EQ(rc, EPERM);
  EXPECT_EQ(readFile(path), fresh);  // the new file stays in place

  writeFile(path + "TMP", fresh);
  faults.push_back({"stat", "calsav", ENOENT, false});  // skip the stale "sav" removal
  faults[0].err = 0;
  EXPECT_EQ(relink(&rc), "");
  EXPECT_EQ(rc, -EAGAIN);
}

TEST_F(RecordFaults, MovingTheOldFileAsideKeepsTheWrappersResult) {
  ASSERT_EQ(writedbfile(rf), 0);
  faults.push_back({"rename", "/cal", EACCES, false});
  int rc = 0;
  EXPECT_EQ(relink(&rc), "tmprelink: unable to rename " + path + " (errno=-1)!\n");
  EXPECT_EQ(rc, -1);
  EXPECT_TRUE(recordedPauses().empty());
  faults[0].err = EBUSY;  // transient: three more tries a second apart
  calls.clear();
  EXPECT_EQ(relink(&rc), "tmprelink: unable to rename " + path + " (errno=-1)!\n");
  EXPECT_EQ(rc, -1);
  EXPECT_EQ(recordedPauses(), (std::vector<unsigned>{1, 1, 1}));
  EXPECT_EQ(std::count(calls.begin(), calls.end(), "rename cal calsav"), 4);
  EXPECT_EQ(readFile(path), "old contents\n");
  EXPECT_TRUE(exists(path + "TMP"));
}

TEST_F(RecordFaults, ScratchFileMissingOrEmptyAfterCloseIsRefused) {
  faults.push_back({"stat", "calTMP", ENOENT, false});
  EXPECT_EQ(writedbfile(rf), ENOENT);
  faults[0].emptyFile = true;
  EXPECT_EQ(writedbfile(rf), -EINTR);
  EXPECT_EQ(readFile(path), "old contents\n");
}

TEST_F(RecordFaults, ScratchFileIsSyncedBeforeItsRenameAndTheDirectoryAfter) {
  ASSERT_EQ(writedbfile(rf), 0);
  ASSERT_EQ(tmprelink(rf), 0);
  std::string dirName = base(dir.path);
  std::vector<std::string> want = {"fsync calTMP", "rename cal calsav", "rename calTMP cal",
                                   "fsync " + dirName, "unlink calsav"};
  EXPECT_EQ(calls, want);

  faults.push_back({"fsync", "calTMP", EIO, false});
  testing::internal::CaptureStderr();
  EXPECT_EQ(writedbfile(rf), EIO);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "quorvel: database write failed--errno=5\n");
  EXPECT_FALSE(exists(path + "TMP"));
  EXPECT_FALSE(rf->loaded);
}

}  // namespace
}  // namespace quorvel
