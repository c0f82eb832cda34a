// The crash test: a helper process rewriting a record file is killed with SIGKILL at
// each step of the rewrite and at random moments; after every kill the file (or the
// saved copy the reader puts back) must read as exactly the old or the new contents,
// and the next rewrite must succeed.
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "core/db/db_test_util.h"
#include "core/db/record.h"
#include "core/db/record_test_util.h"
#include "core/db/recordfile.h"

namespace quorvel {
namespace {

constexpr int ITEMS = 3000;  // about 300 KB: several writes of the output buffer

struct ChildRun {
  int status = 0;
  std::string out;  // what the child printed: the number of steps it took
};

// Runs the child for generation g. crashStep > 0 makes it kill itself before that
// step; killAfterUs >= 0 kills it from here after that many microseconds.
ChildRun runChild(const std::string &path, int g, long crashStep, long killAfterUs) {
  int fds[2];
  ChildRun run;
  if (pipe(fds) != 0) return run;
  pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], 1);
    close(fds[0]);
    close(fds[1]);
    if (crashStep > 0) setenv("QV_CRASH_STEP", std::to_string(crashStep).c_str(), 1);
    std::string gen = std::to_string(g), items = std::to_string(ITEMS);
    execl(CRASH_CHILD, CRASH_CHILD, path.c_str(), gen.c_str(), items.c_str(), (char *)nullptr);
    _exit(127);
  }
  close(fds[1]);
  if (killAfterUs >= 0) {
    usleep(useconds_t(killAfterUs));
    kill(pid, SIGKILL);
  }
  char buf[256];
  for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) run.out.append(buf, size_t(n));
  close(fds[0]);
  waitpid(pid, &run.status, 0);
  return run;
}

bool exitedOk(const ChildRun &run) { return WIFEXITED(run.status) && WEXITSTATUS(run.status) == 0; }

class RecordCrash : public ::testing::Test {
 protected:
  TestNames names{crashNames()};
  TempDir dir;
  std::string path;
  std::vector<std::string> generations;  // texts by generation, made on demand
  int current = 0;                       // the generation the file holds
  bool sawOnlySaved = false;             // a kill left the file missing and "sav" present

  void SetUp() override {
    resetDbTestState();
    names.install();
    path = dir.at("cal");
    writeFile(path, text(0));
  }
  void TearDown() override { resetNameLookup(); }

  const std::string &text(int g) {
    while (int(generations.size()) <= g) generations.push_back(crashGenerationText(int(generations.size()), ITEMS));
    return generations[size_t(g)];
  }
  // The contents as a client reads them back (a saved copy put back first).
  std::string readsBack() {
    if (!exists(path) && exists(path + "sav")) sawOnlySaved = true;
    RecordFile *rf = newRecordFile(path.c_str(), nullptr);
    readRecordFile(nullptr, rf);
    std::string back;
    writeList(&back, &rf->list);
    freeRecordFile(rf);
    return back;
  }
  // After a kill during the rewrite to generation g: old or new, nothing else.
  void expectOldOrNew(int g, const std::string &what) {
    std::string back = readsBack();
    if (back == text(g)) {
      current = g;
    } else {
      EXPECT_EQ(back, text(g - 1)) << what << ": neither the old nor the new contents";
    }
    EXPECT_FALSE(exists(path + "BAD")) << what;
  }
  void rewriteToCompletion() {
    ChildRun run = runChild(path, current + 1, 0, -1);
    ASSERT_TRUE(exitedOk(run)) << run.status;
    current++;
    ASSERT_EQ(readFile(path), text(current));
  }
};

TEST_F(RecordCrash, KillAtEveryStepLeavesOldOrNewContents) {
  rewriteToCompletion();
  int killed = 0;
  for (long k = 1; k < 200; k++) {
    rewriteToCompletion();  // from a clean file, so that step k is the same step each time
    ChildRun run = runChild(path, current + 1, k, -1);
    if (WIFEXITED(run.status)) {
      EXPECT_EQ(WEXITSTATUS(run.status), 0);
      EXPECT_EQ(std::to_string(k - 1) + "\n", run.out);  // every step was visited
      break;
    }
    ASSERT_TRUE(WIFSIGNALED(run.status) && WTERMSIG(run.status) == SIGKILL) << run.status;
    killed++;
    expectOldOrNew(current + 1, "killed at step " + std::to_string(k));
    EXPECT_TRUE(exitedOk(runChild(path, current + 1, 0, -1))) << "next rewrite after step " << k;
    current++;
    EXPECT_EQ(readsBack(), text(current));
  }
  EXPECT_GE(killed, 10);
  EXPECT_TRUE(sawOnlySaved);  // the kill between the two renames was among them
}

TEST_F(RecordCrash, KillAtRandomMomentsLeavesOldOrNewContents) {
  auto start = std::chrono::steady_clock::now();
  rewriteToCompletion();
  long span = long(std::chrono::duration_cast<std::chrono::microseconds>(
                       std::chrono::steady_clock::now() - start).count());
  std::mt19937 rng(20261121);
  std::uniform_int_distribution<long> delay(0, span + span / 2);
  for (int i = 0; i < 40; i++) {
    long us = delay(rng);
    ChildRun run = runChild(path, current + 1, 0, us);
    if (WIFEXITED(run.status)) {
      ASSERT_TRUE(exitedOk(run));
      ASSERT_EQ(readFile(path), text(current + 1));
      current++;
      continue;
    }
    expectOldOrNew(current + 1, "killed after " + std::to_string(us) + " us");
  }
  rewriteToCompletion();
}

}  // namespace
}  // namespace quorvel
