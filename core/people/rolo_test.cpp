// Address-book tests on real book files in a temporary database, the fake calendar
// server for a server-attached context, and a real second process holding the lock.
#include "core/people/rolo_test_util.h"

#include "core/db/retry.h"
#include "core/net/link.h"
#include "core/net/remote.h"
#include "testing/calserver.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace quorvel;

TEST_F(RoloTest, BookFilesAreNamedAfterTheCalendarInFourteenSafeCharacters) {
  std::string dir = root + "/db/database/rolo";
  struct stat st;
  ASSERT_EQ(stat(dir.c_str(), &st), 0);  // made by the first path asked for
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  addCalendarName(nullptr, "ab\ncd", "", "", "");           // 3
  addCalendarName(nullptr, "x\xc3\xa9y-12345678901", "", "", "");  // 4
  EXPECT_EQ(roloPath(2), dir + "/Mary_Ann_O_Nei");
  EXPECT_EQ(roloPath(ROLO_SHARED), dir + "/__SHARED__");
  EXPECT_EQ(roloPath(3), dir + "/ab");
  EXPECT_EQ(roloPath(4), dir + "/x__y_123456789");
  EXPECT_EQ(roloPath(99), "");  // no name, no book
}

TEST_F(RoloTest, EntriesAreWrittenLineByLine) {
  const char *B = "#B\t0x64 @0x0 %0x0\n";
  const struct { RoloEntry *e; std::string want; } rows[] = {
      {card(1, -1, 100, {{1, "never"}}), "0:"},
      {card(0, 0, 100, {{1, "Ann"}}), "0:" + std::string(B) + "#1:\tAnn\n\n"},
      {card(2, 1, 100, {{1, "x"}}), "0:#P:\t2\n#O\tbob\n" + std::string(B) + "#1:\tx\n\n"},
      {card(0, 77, 100, {}), "0:#O\t(null)\n" + std::string(B) + "\n"},
      {card(0, -1, 100, {{5, "a\nb"}, {6, "c\n"}, {7, "\n\nd"}, {-2, "e"}}),
       "0:" + std::string(B) + "#5:\ta\n\tb\n#6:\tc\n#7:\t\n\t\n\td\n#-2:\te\n\n"},
      // Fields without a text write only their number; the last one shares its line
      // with the card's end.
      {card(0, -1, 100, {{1, nullptr}, {2, ""}, {3, "x"}, {4, nullptr}}),
       "0:" + std::string(B) + "#1:#2:#3:\tx\n#4:\n"},
  };
  for (auto &row : rows) EXPECT_EQ(written(row.e), row.want);
  FILE *full = fopen("/dev/full", "w");  // every line fails at once
  setvbuf(full, nullptr, _IONBF, 0);
  for (int kind : {0, 2}) {
    RoloEntry *e = card(kind, 1, 5, {{1, "x"}});
    EXPECT_EQ(writeRoloEntry(full, e, 0), -1);
    freeRoloEntry(e);
  }
  fclose(full);
}

TEST_F(RoloTest, TheReaderTakesBackWhatIsWrittenAndDropsWhatIsNotACard) {
  RoloEntry *cards = list({card(2, 1, 50, {{1, "Zed"}, {2, "a\nb"}, {3, nullptr}}),
                           card(0, 0, 60, {{1, nullptr}, {4, "x"}, {5, nullptr}}),
                           card(0, 1, 70, {{9, "last"}})});
  std::string text = formatRoloList(cards, 0);
  RoloEntry *back = parseRoloList(text.data(), text.size(), 0);
  EXPECT_EQ(show(back), show(cards));  // textless last fields do not merge cards
  EXPECT_EQ(formatRoloList(back, 0), text);
  freeRoloList(cards), freeRoloList(back);
  std::string tooLong(5000, 'L');
  std::string odd =
      "#P:\t1\n#1:\tkind one\n\n#P:\t3\n#1:\tkind three\n\n#P:\t258\n#1:\twraps\n\n"
      "#B\t0x5 @0x0 %0x0\n\n"                       // no field: dropped
      "#O\tnobody\n#-4:\tneg\n#2:\tkept\n\n"        // unknown owner, negative number
      "garbage\n#Q\tunknown\n#3:\t" + tooLong + "\n\tmore\n\n"
      "#P:\t2\n#O\tbob\n#B\t0x9 @0x1 %0x2\n#8:\tno end line";
  RoloEntry *got = parseRoloList(odd.data(), odd.size(), 7);
  EXPECT_EQ(show(got), "0 7 1700000000 2=kept\n0 7 1700000000 3=" + tooLong +
                           "\nmore\n2 1 9 8=no end line\n");
  EXPECT_EQ(got->prev->stamp.q1 + got->prev->stamp.q2, 3);
  freeRoloList(got);
  std::string many;  // the field count is a byte: the 256th field is dropped
  for (int i = 0; i < 300; i++) many += "#" + std::to_string(i) + ":\tf\n";
  got = parseRoloList(many.data(), many.size(), 0);
  EXPECT_EQ(got->next->fieldCount, 255);
  EXPECT_EQ(got->next->fieldNumbers[254], 254);
  freeRoloList(got);
}

TEST_F(RoloTest, CardsSortByTheirFirstFieldIgnoringCaseThenByEveryOtherPart) {
  const struct { RoloEntry *a, *b; int sign; } rows[] = {
      {card(0, 0, 1, {{1, "apple"}}), card(0, 0, 1, {{1, "Banana"}}), -1},
      {card(0, 0, 1, {{1, "Ann"}}), card(0, 0, 1, {{1, "ann"}}), -1},  // then byte-wise
      {card(0, 0, 1, {{1, "ann"}, {2, "b"}}), card(0, 0, 1, {{1, "ann"}, {2, "a"}}), 1},
      {card(0, 0, 1, {}), card(0, 0, 1, {{1, nullptr}}), -1},  // no text sorts as ""
      {card(0, 1, 1, {{1, "a"}}), card(0, 0, 1, {{1, "a"}}), 1},   // owner
      {card(0, 0, 2, {{1, "a"}}), card(0, 0, 9, {{1, "a"}}), -1},  // stamp
      {card(2, 0, 1, {{1, "a"}}), card(0, 0, 1, {{1, "a"}}), 1},   // kind
      {card(0, 0, 1, {{1, "a"}}), card(0, 0, 1, {{1, "a"}}), 0},
  };
  for (auto &r : rows) {
    int c = roloCompare(r.a, r.b, 1);
    EXPECT_EQ((c > 0) - (c < 0), r.sign) << &r - rows;
    EXPECT_EQ(-roloCompare(r.b, r.a, 1) > 0, r.sign > 0);
    freeRoloEntry(r.a), freeRoloEntry(r.b);
  }
  RoloEntry *books = list({card(0, 0, 1, {{1, "carl"}}), card(0, 0, 1, {{1, "Bea"}}),
                           card(0, 0, 1, {{1, "anna"}}), card(0, 0, 1, {{1, "bea"}})});
  EXPECT_EQ(roloOutOfOrder(books), 1);
  sortrololist(books);
  EXPECT_EQ(show(books), "0 0 1 1=anna\n0 0 1 1=Bea\n0 0 1 1=bea\n0 0 1 1=carl\n");
  EXPECT_EQ(books->prev->prev->next, books->prev);  // both directions relinked
  EXPECT_EQ(roloOutOfOrder(books), 0);
  freeRoloList(books);
}

TEST_F(RoloTest, ReadingUsesTheCacheUntilTheFileChangesAndSortsABookOutOfOrder) {
  BookState *book = findBookState(main, 0);
  EXPECT_EQ(findBookState(main, 0), book);
  int32_t stamp = NO_TIME;
  RoloEntry *got = readrololist(main, book, 0, nullptr, &stamp);  // no file: empty
  EXPECT_TRUE(roloCount(got) == 0 && stamp == NO_TIME && book->list == got);
  put(anna, "#B\t0x1 @0x0 %0x0\n#1:\tann\n\n#B\t0x2 @0x0 %0x0\n#1:\tbob\n\n");
  struct timeval tv[2] = {{5000, 0}, {5000, 0}};
  utimes(anna.c_str(), tv);
  setRoloTrace(true);
  testing::internal::CaptureStderr();
  got = readrololist(main, book, 0, got, &stamp);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "reading " + anna + "\n");
  EXPECT_EQ(show(got), "0 0 1 1=ann\n0 0 2 1=bob\n");
  EXPECT_TRUE(stamp == 5000 && book->lastTime == 5000 && !book->changed);
  got->next->stamp.q1 = 7;  // unchanged: the cache, with what was done to it
  got = readrololist(main, book, 0, got, &stamp);
  EXPECT_EQ(got->next->stamp.q1, 7);
  put(anna, "#1:\tzed\n\n#1:\tAmy\n\n");  // out of order; no stamps
  tv[0].tv_sec = tv[1].tv_sec = 6000;
  utimes(anna.c_str(), tv);
  setRoloTrace(false);
  got = readrololist(main, book, 0, got, &stamp);
  EXPECT_EQ(show(got), "0 0 1700000000 1=Amy\n0 0 1700000000 1=zed\n");
  EXPECT_TRUE(book->changed && stamp == 6000 && main->firstUnsaved == now);
  put(anna, "");  // the file changes under unsaved changes: they are kept
  tv[0].tv_sec = tv[1].tv_sec = 7000;
  utimes(anna.c_str(), tv);
  got = readrololist(main, book, 0, got, &stamp);
  EXPECT_EQ(roloCount(got), 2);
  chmod(anna.c_str(), 0);  // an unreadable book reads as empty
  book->changed = false;
  got = readrololist(main, book, 0, got, &stamp);
  if (geteuid() != 0) {
    EXPECT_EQ(roloCount(got), 0);
  }
  freeRoloList(got);
}

TEST_F(RoloTest, WritingReplacesTheBookUnderTheLockOrOnlyMarksADeferredChange) {
  BookState *book = findBookState(main, 0);
  EXPECT_EQ(writerololist(main, book, 0, 0, nullptr), -1);  // nothing read, nothing written
  put(anna, "#1:\told\n\n");
  int32_t stamp = NO_TIME;
  RoloEntry *got = readrololist(main, book, 0, nullptr, &stamp);
  appendRoloEntry(got, card(0, 1, 9, {{1, "new"}}));
  appendRoloEntry(got, card(1, 0, 9, {{1, "gone"}}));
  EXPECT_EQ(writerololist(main, book, -1, 1, nullptr), -1);
  char *text = nullptr;  // a stream given: only the stream is written
  size_t len = 0;
  FILE *mem = open_memstream(&text, &len);
  EXPECT_EQ(writerololist(main, book, 0, 0, mem), 0);
  fclose(mem);
  EXPECT_EQ(std::string(text, len), formatRoloList(got, 0));
  free(text);
  EXPECT_EQ(slurp(anna), "#1:\told\n\n");
  setRoloTrace(true);
  testing::internal::CaptureStderr();
  EXPECT_EQ(writerololist(main, book, 0, 0, nullptr), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "writing " + anna + "\n");
  EXPECT_EQ(slurp(anna), "#B\t0x6553f100 @0x0 %0x0\n#1:\told\n\n#O\tbob\n#B\t0x9 @0x0 %0x0\n#1:\tnew\n\n");
  struct stat st;
  stat(anna.c_str(), &st);
  EXPECT_TRUE((st.st_mode & 0777) == 0600 && book->lastTime == int32_t(st.st_mtime));
  EXPECT_FALSE(exists(anna + "TMP") || exists(anna + "sav") || exists(lockFile));
  EXPECT_EQ(heldRoloLock(), nullptr);
  setRoloTrace(false);
  setRoloTimes(main, RoloTimes{true, 300, 60, NO_TIME});  // deferred: only marked
  std::string before = slurp(anna);
  got->next->fieldTexts[0][0] = 'O';
  EXPECT_EQ(writerololist(main, book, 0, 0, nullptr), 0);
  EXPECT_TRUE(slurp(anna) == before && book->changed && book->lastTime == now);
  EXPECT_EQ(writerololist(main, book, 0, 1, nullptr), 0);  // forced: written
  EXPECT_NE(slurp(anna).find("\tOld"), std::string::npos);
  freeRoloList(got);
}

TEST_F(RoloTest, EveryFailedRewriteLeavesThePreviousBookAndSaysWhy) {
  BookState *book = findBookState(main, 0);
  book->list = list({card(0, 0, 9, {{1, "new"}})});
  testing::internal::CaptureStderr();  // no book file yet: the move aside fails
  EXPECT_EQ(writerololist(main, book, 0, 1, nullptr), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "writerololist: unable to rename " + anna + " (errno=-1)!\n");
  EXPECT_TRUE(exists(anna + "TMP") && !exists(anna) && !exists(lockFile));
  unlink((anna + "TMP").c_str());
  put(anna, "old\n");
  mkdir((anna + "TMP").c_str(), 0700);  // the scratch file cannot be made: quietly -1
  testing::internal::CaptureStderr();
  EXPECT_EQ(writerololist(main, book, 0, 1, nullptr), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  rmdir((anna + "TMP").c_str());
  symlink("/dev/full", (anna + "TMP").c_str());  // the lines cannot be written
  EXPECT_EQ(writerololist(main, book, 0, 1, nullptr), -1);
  EXPECT_FALSE(exists(anna + "TMP") || exists(lockFile));
  EXPECT_EQ(slurp(anna), "old\n");
  freeRoloList(book->list);
}

TEST_F(RoloTest, DeferredChangesWaitForTheWriteIntervalUnlessJustFlushed) {
  BookState *book = findBookState(main, 0), *shared = findBookState(main, ROLO_SHARED);
  put(anna, ""), put(roloPath(ROLO_SHARED), "");
  book->list = list({card(0, 0, 9, {{1, "a"}})});
  shared->list = newRoloList();
  setRoloTimes(main, RoloTimes{true, 300, 60, NO_TIME});
  time_t t0 = now;
  EXPECT_EQ(flushRoloBooks(main), 0);  // nothing unsaved
  writerololist(main, book, 0, 0, nullptr);
  now = t0 + 100;
  writerololist(main, shared, ROLO_SHARED, 0, nullptr);
  EXPECT_TRUE(main->firstUnsaved == t0 && main->lastUnsaved == t0 + 100 && shared->changed);
  now = t0 + 299;
  EXPECT_EQ(flushRoloBooks(main), 0);
  now = t0 + 300;
  EXPECT_EQ(flushRoloBooks(main), 2);
  EXPECT_TRUE(!book->changed && !shared->changed && main->firstUnsaved == NO_TIME &&
              main->lastUnsaved == NO_TIME && roloTimes(main).lastFlush == t0 + 300);
  EXPECT_EQ(slurp(anna), "#B\t0x9 @0x0 %0x0\n#1:\ta\n\n");
  now = t0 + 359;  // within the quiet interval after a flush: written at once
  writerololist(main, book, 0, 0, nullptr);
  EXPECT_EQ(flushRoloBooks(main), 1);
  now = t0 + 419;  // the quiet interval has passed: kept again
  writerololist(main, book, 0, 0, nullptr);
  EXPECT_EQ(flushRoloBooks(main), 0);
  unlink(anna.c_str());  // a failed write keeps the book changed for the next flush
  now = t0 + 719;
  testing::internal::CaptureStderr();
  EXPECT_EQ(flushRoloBooks(main), 0);
  testing::internal::GetCapturedStderr();
  EXPECT_TRUE(book->changed && main->firstUnsaved == now);
  now = t0;
  freeRoloList(book->list), freeRoloList(shared->list);
}

// A second process holds the book lock until it is told to let go.
static pid_t holdLock(const std::string &path, int *ready) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  pid_t pid = fork();
  if (pid == 0) {
    signal(SIGTERM, SIG_DFL);
    char host[64] = "";
    gethostname(host, sizeof host - 1);
    FILE *f = fopen(path.c_str(), "wx");
    if (f) fprintf(f, "%d %s\n", int(getpid()), host), fclose(f);
    (void)!write(fds[1], "x", 1);
    pause();
    _exit(0);
  }
  close(fds[1]);
  char c;
  *ready = int(read(fds[0], &c, 1));
  close(fds[0]);
  return pid;
}

static pid_t holder;  // the holding process, told to let go at the third wait
static int waits;

TEST_F(RoloTest, AWriterWaitsForALockHeldByAnotherProcessAndTakesOverAStaleOne) {
  BookState *book = findBookState(main, 0);
  put(anna, "");
  book->list = list({card(0, 0, 9, {{1, "a"}})});
  int ready = 0;
  holder = holdLock(lockFile, &ready);
  ASSERT_TRUE(holder > 0 && ready == 1 && exists(lockFile));
  waits = 0;
  setPauseHook([](unsigned) {
    if (++waits == 3) kill(holder, SIGTERM), waitpid(holder, nullptr, 0), unlink(
        (std::string(getenv("QUORVELPATH")) + "/db/database/locks/rololock").c_str());
  });
  EXPECT_EQ(writerololist(main, book, 0, 1, nullptr), 0);
  EXPECT_EQ(waits, 3);
  EXPECT_EQ(slurp(anna), "#B\t0x9 @0x0 %0x0\n#1:\ta\n\n");
  char host[64] = "";  // a holder on this host that no longer runs: no wait at all
  gethostname(host, sizeof host - 1);
  put(lockFile, std::to_string(holder) + " " + host + "\n");
  EXPECT_EQ(writerololist(main, book, 0, 1, nullptr), 0);
  EXPECT_FALSE(exists(lockFile));
  EXPECT_EQ(waits, 3);
  put(lockFile, std::to_string(holder) + " elsewhere\n");  // another host's: it waits
  EXPECT_EXIT(writerololist(main, book, 0, 1, nullptr), testing::ExitedWithCode(1),
              "Stuck lock file--try again in 5 minutes\n  \\(\"" + lockFile + "\"\\)");
  freeRoloList(book->list);
}

// A stream that ends the process in the middle of a locked write.
static ssize_t exitingWrite(void *, const char *, size_t) { exitProcess(3); }

TEST_F(RoloTest, TheExitPathRemovesAHeldBookLock) {
  BookState *book = findBookState(main, 0);
  book->list = list({card(0, 0, 9, {{1, "a"}})});
  EXPECT_EXIT(
      {
        FILE *f = fopencookie(nullptr, "w", cookie_io_functions_t{nullptr, exitingWrite, nullptr, nullptr});
        setvbuf(f, nullptr, _IONBF, 0);
        writerololist(main, book, 0, 1, f);
      },
      testing::ExitedWithCode(3), "");
  EXPECT_FALSE(exists(lockFile));
  rmdir((root + "/db/database/locks").c_str());  // no lock directory: stuck at once
  EXPECT_EXIT(writerololist(main, book, 0, 1, nullptr), testing::ExitedWithCode(1),
              "notify administrator\n.*errno=2");
  freeRoloList(book->list);
}

class RoloServerTest : public RoloTest {
 protected:
  CalServer server;
  void SetUp() override {
    RoloTest::SetUp();
    setLinkMessageHook([](const char *) {});
    ASSERT_EQ(startCalServer(&server), 0);
    main->server = newServerLink(calAddress(&server).c_str());
    main->server->waitMs = 3000;
  }
  void TearDown() override {
    freeServerLink(main->server), main->server = nullptr;
    stopCalServer(&server), resetLink();
    RoloTest::TearDown();
  }
};

TEST_F(RoloServerTest, AServerAttachedContextReadsAndChangesItsBooksThroughTheServer) {
  BookState *book = findBookState(main, 1);
  calScript(&server, {calReply({calBytes(FIELD_BOOK, "#O\tanna\n#B\t0x9 @0x0 %0x0\n#1:\tb\n\n"),
                                calNumber(77)}),
                      calReply({calBytes(FIELD_BOOK_EMPTY, "")}), calAction(CAL_CLOSE),
                      calAction(CAL_CLOSE), calAction(CAL_CLOSE)});
  int32_t stamp = 12;
  RoloEntry *got = readrololist(main, book, 1, nullptr, &stamp);
  EXPECT_TRUE(show(got) == "0 0 9 1=b\n" && stamp == 77);
  std::vector<CalRequest> req = calRequests(&server);
  ASSERT_EQ(req.size(), 1u);
  EXPECT_EQ(req[0].code, 119);
  std::vector<int32_t> numbers;
  for (const CalField &f : req[0].fields) numbers.push_back(calFieldNumber(f));
  EXPECT_EQ(numbers, (std::vector<int32_t>{1, 12, 1}));
  RoloEntry *kept = got;
  appendRoloEntry(kept, card(0, -1, 5, {{2, "x"}}));
  got = readrololist(main, book, 1, kept, &stamp);  // no entries, the cached list freed
  EXPECT_TRUE(roloCount(got) == 0 && stamp == 77 && book->list == got);
  got = readrololist(main, book, 1, got, &stamp);  // the server is lost: empty
  EXPECT_EQ(roloCount(got), 0);
  appendRoloEntry(got, card(0, 0, 9, {{1, "mine"}}));
  EXPECT_EQ(writerololist(main, book, 1, 1, nullptr), 0);
  RoloEntry *gone = list({card(0, 1, 3, {{1, "old"}})});
  EXPECT_EQ(sendRoloChange(main, 1, got, gone), 0);
  req = calRequests(&server);
  ASSERT_GE(req.size(), 5u);
  for (size_t i = req.size() - 2; i < req.size(); i++) {
    EXPECT_EQ(req[i].code, 120);
    ASSERT_EQ(req[i].fields.size(), 3u);
    EXPECT_EQ(calFieldNumber(req[i].fields[0]), 1);
    EXPECT_EQ(req[i].fields[1].kind, FIELD_BOOK);
    EXPECT_EQ(std::string(req[i].fields[1].payload.begin(), req[i].fields[1].payload.end()),
              "#O\tanna\n#B\t0x9 @0x0 %0x0\n#1:\tmine\n\n");
  }
  EXPECT_EQ(req[req.size() - 2].fields[2].kind, FIELD_BOOK_EMPTY);
  EXPECT_EQ(calFieldText(req.back().fields[2]), "#B\t0x3 @0x0 %0x0\n#1:\told\n\n");
  EXPECT_FALSE(exists(roloPath(1)));  // no file was touched
  freeRoloList(got), freeRoloList(gone);
}
