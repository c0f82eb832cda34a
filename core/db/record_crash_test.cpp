// The crash test: a helper rewriting a record file is killed with SIGKILL at each step
// and at random moments; after every kill the file (or the saved copy the reader puts
// back) must read as exactly the old or the new contents, and the next rewrite succeed.
#include <chrono>
#include <csignal>
#include <random>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/db/record.h"
#include "core/db/record_test_util.h"

namespace quorvel {
namespace {

constexpr int ITEMS = 3000;  // about 300 KB: several writes of the output buffer

struct RecordCrash : RecordTest {
  std::vector<std::string> generations;  // texts by generation, made on demand
  int current = 0;                       // the generation the file holds
  bool sawOnlySaved = false;             // a kill left the file missing and "sav" present
  std::string out;                       // what the last child printed: its number of steps
  void SetUp() override { RecordTest::SetUp(), writeFile(path, text(0)); }
  const std::string &text(int g) {
    while (int(generations.size()) <= g) generations.push_back(crashGenerationText(int(generations.size()), ITEMS));
    return generations[size_t(g)];
  }
  // Runs the child towards the next generation; its wait status. crashStep > 0 makes it
  // kill itself before that step, crashBefore before renaming a file with that suffix;
  // killAfterUs >= 0 kills it from here after that long.
  int runChild(long crashStep, long killAfterUs, const char *crashBefore = nullptr) {
    int fds[2], status = 0; ssize_t n;
    if (pipe(fds) != 0) return -1;
    pid_t pid = fork();
    if (pid == 0) {
      dup2(fds[1], 1), close(fds[0]), close(fds[1]);
      if (crashStep > 0) setenv("QV_CRASH_STEP", std::to_string(crashStep).c_str(), 1);
      if (crashBefore != nullptr) setenv("QV_CRASH_BEFORE", crashBefore, 1);
      std::string gen = std::to_string(current + 1), items = std::to_string(ITEMS);
      execl(CRASH_CHILD, CRASH_CHILD, path.c_str(), gen.c_str(), items.c_str(), (char *)nullptr); _exit(127);
    }
    close(fds[1]);
    if (killAfterUs >= 0) usleep(useconds_t(killAfterUs)), kill(pid, SIGKILL);
    char buf[256];
    for (out.clear(); (n = read(fds[0], buf, sizeof buf)) > 0;) out.append(buf, size_t(n));
    close(fds[0]), waitpid(pid, &status, 0);
    return status;
  }
  void expectOldOrNew(const std::string &what) {  // read as a client does: old or new, nothing else
    sawOnlySaved |= !exists(path) && exists(path + "sav"); std::string back;
    writeList(&back, &reread(path)->list);
    if (back == text(current + 1)) current++;
    else EXPECT_EQ(back, text(current)) << what << ": neither the old nor the new contents";
    EXPECT_FALSE(exists(path + "BAD")) << what;
  }
  void rewriteToCompletion() {
    int status = runChild(0, -1);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status; ASSERT_EQ(readFile(path), text(++current));
  }
};

TEST_F(RecordCrash, KillAtEveryStepLeavesOldOrNewContents) {
  rewriteToCompletion(); int killed = 0;
  for (long k = 1; k < 200; k++) {
    rewriteToCompletion();  // from a clean file, so that step k is the same step each time
    int status = runChild(k, -1);
    if (WIFEXITED(status)) {
      EXPECT_EQ(WEXITSTATUS(status), 0);
      EXPECT_EQ(std::to_string(k - 1) + "\n", out);  // every step was visited
      break;
    }
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status; killed++;
    expectOldOrNew("killed at step " + std::to_string(k));
    rewriteToCompletion();  // the next rewrite works
  }
  EXPECT_GE(killed, 10);
  EXPECT_TRUE(sawOnlySaved);  // the kill between the two renames was among them
}

// Killed between its two renames, a writer leaves the file only as "sav" (and its new
// contents in "TMP"). Another process that had read the file before keeps it cached and
// writes it next, without reading it again: the old items must survive that write.
TEST_F(RecordCrash, KillBetweenTheRenamesLeavesOnlySavAndACachedWriterKeepsItsItems) {
  ASSERT_EQ(mkdir(dir.at("locks").c_str(), 0700), 0);
  DbHandle *db = newDbHandle(dir.path.c_str(), "home", DB_KIND_LOCAL);
  db->standalone = true, setMainDb(db), setCurrentDb(db);
  RecordFile *cached = openRecordFile(db, path.c_str()); ASSERT_NE(cached, nullptr);
  ASSERT_EQ(cached->count, ITEMS);
  int status = runChild(0, -1, "TMP");
  ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
  ASSERT_FALSE(exists(path)); EXPECT_EQ(readFile(path + "sav"), text(0)); EXPECT_EQ(readFile(path + "TMP"), text(1));
  setCrashGeneration(cached, 2, ITEMS);
  ASSERT_EQ(writeDirtyFiles(db), 0); EXPECT_EQ(readFile(path), text(2));
  EXPECT_FALSE(exists(path + "sav") || exists(path + "TMP"));
  current = 2, expectOldOrNew("after the cached write");  // and it reads back whole
}

TEST_F(RecordCrash, KillAtRandomMomentsLeavesOldOrNewContents) {
  auto start = std::chrono::steady_clock::now(); rewriteToCompletion();
  long span = long(std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start).count());
  std::mt19937 rng(20261121); std::uniform_int_distribution<long> delay(0, span + span / 2);
  for (int i = 0; i < 40; i++) {
    long us = delay(rng); int status = runChild(0, us);
    if (!WIFEXITED(status)) expectOldOrNew("killed after " + std::to_string(us) + " us");
    else { ASSERT_EQ(WEXITSTATUS(status), 0); ASSERT_EQ(readFile(path), text(++current)); }
  }
  rewriteToCompletion();
}

}  // namespace
}  // namespace quorvel
