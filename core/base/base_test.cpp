// Tests of the base layer: rounding, allocation, the pause seam and the exit path.
#include "core/base/base.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

using namespace quorvel;

TEST(RoundUp, LeavesExactMultiplesAndPadsTheRest) {
  EXPECT_EQ(roundUp(0, 4), 0);
  EXPECT_EQ(roundUp(1, 4), 4);
  EXPECT_EQ(roundUp(4, 4), 4);
  EXPECT_EQ(roundUp(5, 4), 8);
  EXPECT_EQ(roundUp(3997, 3996), 7992);
  EXPECT_EQ(static_cast<uint32_t>(NO_TIME), 0x80000000u);
}

TEST(AllocMem, ReallocatesAGivenBlockAndKeepsItsBytes) {
  char *p = static_cast<char *>(allocMem(nullptr, 8));
  ASSERT_NE(p, nullptr);
  memcpy(p, "abcdefg", 8);
  p = static_cast<char *>(allocMem(p, 1 << 20));
  ASSERT_NE(p, nullptr);
  EXPECT_STREQ(p, "abcdefg");
  freeMem(p);
}

static std::vector<unsigned> pauses;
static void recordPause(unsigned s) { pauses.push_back(s); }
static time_t fixedClock() { return 1234; }

TEST(PauseSeconds, GoesThroughTheInstalledHookAndTheRealSleepOtherwise) {
  resetBase();
  pauses.clear();
  setPauseHook(recordPause);
  pauseSeconds(1);
  pauseSeconds(5);
  EXPECT_EQ(pauses, (std::vector<unsigned>{1, 5}));
  EXPECT_EQ(setPauseHook(nullptr), recordPause);
  pauseSeconds(0);  // real path, returns at once
  EXPECT_EQ(pauses.size(), 2u);
  setClockHook(fixedClock);
  EXPECT_EQ(currentTime(), 1234);
  resetBase();
  EXPECT_GT(currentTime(), 1600000000);
}

static void cleanA() { fputs("A", stderr); }
static void cleanB() { fputs("B", stderr); }

TEST(ExitPath, RunsCleanupsOnceInReverseOrderOnFatalAndOutOfMemory) {
  EXPECT_EXIT(
      {
        resetBase();
        registerCleanup(cleanA);
        registerCleanup(cleanB);
        registerCleanup(cleanA);  // a second registration is ignored
        fatal("setLock(\"%s\"): already locked", "x");
      },
      ::testing::ExitedWithCode(1), "^setLock\\(\"x\"\\): already locked\nBA$");
  EXPECT_EXIT(
      {
        resetBase();
        registerCleanup(cleanA);
        outOfMem("NewBuf");
      },
      ::testing::ExitedWithCode(1), "^OutOfMem: called from NewBuf\\(\\)\nA$");
}

static void onTerm(int sig) { exitOnSignal(128 + sig); }

// The signal road unlinks the recorded names and ends the process without running the
// clean-ups (which may allocate or print, unsafe inside a handler) or flushing stdio.
TEST(ExitPath, SignalRoadUnlinksHeldNamesOnlyAndSkipsCleanups) {
  char dir[] = "/tmp/qvbaseXXXXXX";
  ASSERT_NE(mkdtemp(dir), nullptr);
  std::string held = std::string(dir) + "/held", freed = std::string(dir) + "/freed";
  EXPECT_EXIT(
      {
        resetBase();
        for (const std::string &f : {held, freed}) fclose(fopen(f.c_str(), "w"));
        registerCleanup(cleanA);
        int kept = holdNameForSignal(held.c_str());
        releaseNameForSignal(holdNameForSignal(freed.c_str()));
        printf("unflushed");
        signal(SIGTERM, onTerm);
        if (kept >= 0) raise(SIGTERM);
        _exit(99);
      },
      ::testing::ExitedWithCode(128 + SIGTERM), "^$");  // no "A" from the clean-up
  EXPECT_EQ(access(freed.c_str(), F_OK), 0);  // a released name stays
  EXPECT_NE(access(held.c_str(), F_OK), 0);
  unlink(freed.c_str());
  rmdir(dir);

  // Bounded: a name that does not fit and a fifth name are refused, not truncated.
  resetBase();
  EXPECT_EQ(holdNameForSignal(std::string(SIGNAL_NAME_MAX, 'x').c_str()), -1);
  EXPECT_EQ(holdNameForSignal(std::string(SIGNAL_NAME_MAX - 1, 'x').c_str()), 0);
  for (int i = 1; i < SIGNAL_NAME_SLOTS; i++) EXPECT_EQ(holdNameForSignal("/tmp/n"), i);
  EXPECT_EQ(holdNameForSignal("/tmp/n"), -1);
  releaseNameForSignal(2);
  EXPECT_EQ(holdNameForSignal("/tmp/n"), 2);  // a released slot is reused
  resetBase();
}

TEST(Reports, WarningAddsOneLineEndAndCounts) {
  resetBase();
  ::testing::internal::CaptureStderr();
  warning("Not MY lockfile! %s\n", "/x");
  warning("touchfile: cannot chmod %s (errno=%d)", "/y", 13);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "Not MY lockfile! /x\ntouchfile: cannot chmod /y (errno=13)\n");
  EXPECT_EQ(reportCount(), 2);
}

TEST(InstallRoot, ReadsQuorvelPathOnceUntilReset) {
  setenv("QUORVELPATH", "/opt/qv", 1);
  resetBase();
  EXPECT_STREQ(installRoot(), "/opt/qv");
  setenv("QUORVELPATH", "", 1);
  EXPECT_STREQ(installRoot(), "/opt/qv");  // kept for the life of the process
  resetBase();
  EXPECT_EQ(installRoot(), nullptr);       // empty counts as unset
  unsetenv("QUORVELPATH");
}
