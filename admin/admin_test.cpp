// admin_test.cpp -- quorvel-admin run as a program on a fixture database (testdata/root
// copied into a temporary directory), its output, errors, status and files compared.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

std::string readFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}
void writeFile(const std::string &path, const std::string &text) {
  std::ofstream(path, std::ios::binary) << text;
}

struct Result {
  int status;
  std::string out, err;
};

struct Admin : ::testing::Test {
  std::string dir, root;

  void SetUp() override {
    char tmpl[] = "/tmp/qvadminXXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir = tmpl, root = dir + "/root";
    fs::copy(ADMIN_TESTDATA "/root", root, fs::copy_options::recursive);
    fs::create_directories(root + "/db/database/locks");
  }
  void TearDown() override { fs::remove_all(dir); }

  std::string at(const std::string &rel) const { return root + "/" + rel; }

  // Runs the program with args (the root given by --root unless noRoot) and env added
  // to a small fixed environment: TZ=UTC, LANG=C, HOME inside the temporary directory.
  Result run(std::vector<std::string> args, std::vector<std::string> env = {}, bool noRoot = false) {
    if (!noRoot) args.insert(args.begin(), {"--root", root});
    args.insert(args.begin(), QUORVEL_ADMIN_PATH);
    env.insert(env.end(), {"TZ=UTC", "HOME=" + dir, "PATH=/usr/bin:/bin"});
    bool hasLang = false;
    for (const std::string &e : env) hasLang |= e.rfind("LANG=", 0) == 0;
    if (!hasLang) env.push_back("LANG=C");
    std::vector<char *> argv, envp;
    for (std::string &a : args) argv.push_back(a.data());
    for (std::string &e : env) envp.push_back(e.data());
    argv.push_back(nullptr), envp.push_back(nullptr);
    std::string out = dir + "/stdout", err = dir + "/stderr";
    pid_t pid = fork();
    if (pid == 0) {
      int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(o, 1), dup2(e, 2);
      execve(argv[0], argv.data(), envp.data());
      _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(out), readFile(err)};
  }
};

/* ==== The command line ==================================================================== */

TEST_F(Admin, EveryCommandHasHelpAndBadCommandLinesAreUsageErrors) {
  Result top = run({"--help"});
  EXPECT_EQ(top.status, 0);
  for (const char *cmd : {"list", "print", "perms", "check-domains", "check-holidays", "message", "users", "verify"}) {
    EXPECT_NE(top.out.find(std::string("  ") + cmd + " "), std::string::npos) << cmd;
    Result help = run({cmd, "--help"});
    EXPECT_EQ(help.status, 0) << cmd;
    EXPECT_EQ(help.out.rfind(std::string("usage: quorvel-admin ") + cmd, 0), 0u) << help.out;
    EXPECT_EQ(help.err, "") << cmd;
  }
  struct Row { std::vector<std::string> args; int status; std::string err; } rows[] = {
      {{"frobnicate"}, 2, "quorvel-admin: unknown command frobnicate\n"},
      {{"list", "ann", "--fortnight"}, 2, "list: unknown option --fortnight\n"},
      {{"list", "ann", "--date"}, 2, "list: option --date needs a value\n"},
      {{"list", "ann", "--date=2026-02-30"}, 2, "list: bad date \"2026-02-30\" (want YYYY-MM-DD)\n"},
      {{"list", "ann", "--count=0"}, 2, "list: bad count \"0\" (want 1 to 1000)\n"},
      {{"list", "ann", "--show=events,parties"}, 2, "list: bad --show \"events,parties\"\n"},
      {{"list", "ann", "--day", "--week"}, 2, "list: give only one of --day, --week, --month\n"},
      {{"list", "nobody"}, 1, "list: no calendar named \"nobody\" in the users file\n"},
      {{"message", "0", "1"}, 2, "message: give SET and NUMBER, each 1 or more\n"},
      {{"verify", "ann", "--force"}, 2, "verify: --force goes with --rewrite\n"},
  };
  for (const Row &r : rows) {
    Result got = run(r.args);
    EXPECT_EQ(got.status, r.status) << r.args[0] << " " << r.err;
    EXPECT_NE(got.err.find(r.err), std::string::npos) << got.err;
  }
  Result noValue = run({"--lang"}, {}, true);
  EXPECT_EQ(noValue.status, 2);
  EXPECT_EQ(noValue.err, "quorvel-admin: option --lang needs a value\n");
  Result none = run({"users"}, {}, true);
  EXPECT_EQ(none.status, 2);
  EXPECT_EQ(none.err, "users: no database root: give --root DIR or set QUORVELPATH\n");
  Result byEnv = run({"users"}, {"QUORVELPATH=" + root}, true);
  EXPECT_EQ(byEnv.status, 0);
  EXPECT_EQ(byEnv.out.substr(0, 6), "0\tann\t");
}

/* ==== list and print ======================================================================= */

TEST_F(Admin, ListShowsTheAskedPeriodAsTheViewerMayReadIt) {
  const std::string mar2 = "\n\t\t#For March 2, 2026\n\n";
  struct Row { std::vector<std::string> args; std::string out; } rows[] = {
      {{"list", "ann", "--date=2026-03-02"},
       mar2 + "03/02 (Monday):\t09:00am-10:00am\tPlanning\n\t\t12:00pm-01:00pm\tLunch with bob\n"},
      // bob may read only the item that names his own calendar.
      {{"list", "ann", "--date=2026-03-02", "--as=bob", "--24h"},
       mar2 + "03/02 (Monday):\t 09:00 - 10:00 \t(private)\n\t\t 12:00 - 13:00 \tLunch with bob\n"},
      {{"list", "ann", "--date=2026-03-03", "--count=3", "--show=todos,reminders"},
       "\n\t\t#For March 3, 2026\n\n03/03 (Tuesday):\nToDos:\t\tSend report\n"
       "\n\t\t#For March 4, 2026\n\n03/04 (Wednesday):\nToDos:\t\tSend report (done)\n"
       "\n\t\t#For March 5, 2026\n\n03/05 (Thursday):\nReminders:\tDentist\n"},
      {{"list", "ann", "--month", "--date=2026-03-20"},
       "\n\t\t#For March 2026\n\n03/02 (Monday):\t09:00am-10:00am\tPlanning\n"
       "\t\t12:00pm-01:00pm\tLunch with bob\n03/16 (Monday):\t02:00pm-03:30pm\tReview\n"},
      // carol has no record file: her day is empty, never another calendar's items.
      {{"list", "carol", "--date=2026-03-02", "--day-first"}, "\n\t\t#For 2 March, 2026\n\n"},
      {{"list", "bob", "--week", "--date=2026-03-01"},
       "\n\t\t#For the week of March 1, 2026\n\n03/02 (Monday):\t03:00pm-04:00pm\tBob's call\n"},
  };
  for (const Row &r : rows) {
    Result got = run(r.args);
    EXPECT_EQ(got.status, 0) << got.err;
    EXPECT_EQ(got.out, r.out) << r.args[1] << " " << r.args[2];
  }
  // The catalogue's language reaches the listing's own texts.
  Result de = run({"--lang", "De", "list", "ann", "--date=2026-03-02", "--as=bob"});
  EXPECT_EQ(de.out, "\n\t\t#Am March 2, 2026\n\n03/02 (Monday):\t09:00am-10:00am\t(privat)\n"
                    "\t\t12:00pm-01:00pm\tLunch with bob\n");
}

TEST_F(Admin, PrintHandsTheListingToTheFormatterAndReportsItsFailure) {
  std::string log = dir + "/pcal.log";
  Result ok = run({"print", "ann", "--month", "--date=2026-03-09", "--metric"}, {"QV_PCAL_LOG=" + log});
  EXPECT_EQ(ok.status, 0) << ok.err;
  std::string rec = readFile(log);
  EXPECT_EQ(rec.rfind("-Xm\n3\n2026\n-XE\n-l\n-C\n", 0), 0u) << rec;
  EXPECT_NE(rec.find("\n-N\nann\n-Xi\n2.95\n-Xh\n3.94\n"), std::string::npos) << rec;
  EXPECT_NE(rec.find("--data\n\n\t\t#For March 2026\n\nyear 2026\n\n03/02 (Monday):\t09:00am-10:00am\tPlanning\n"),
            std::string::npos) << rec;
  size_t f = rec.find("\n-f\n");
  ASSERT_NE(f, std::string::npos);
  std::string data = rec.substr(f + 4, rec.find('\n', f + 4) - f - 4);
  EXPECT_FALSE(fs::exists(data)) << "the data file is removed after the run";

  Result failed = run({"print", "ann"}, {"QV_PCAL_LOG=" + log, "QV_PCAL_EXIT=3"});
  EXPECT_EQ(failed.status, 1);
  EXPECT_EQ(failed.err, "Unable to output the postscript file at this time.\nprint: the formatter failed\n");
  fs::remove(at("linux/bin/pcal"));
  Result missing = run({"print", "ann"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err, "print: no formatter at " + at("linux/bin/pcal") + "\n");
}

/* ==== perms ================================================================================= */

TEST_F(Admin, PermsShowsTheRecordsAndSetsOneRightAtATime) {
  Result show = run({"perms", "show"});
  EXPECT_EQ(show.status, 0);
  EXPECT_EQ(show.out, "For ann\nReaders are carol\nWriters are \nAgents are \nSchedulers are \n"
                      "For bob\nReaders are ann\nWriters are carol\nAgents are \nSchedulers are \n");
  const std::string perm = at("db/database/dat.perm");
  struct Row { std::vector<std::string> args; int status; std::string out, file; } rows[] = {
      {{"bob", "reader", "ann", "on"}, 0, "unchanged: ann is already reader of bob\n",
       "\n#O\tann\n#R\tcarol\n\n#O\tbob\n#R\tann\n#C\tcarol\n"},
      {{"ann", "reader", "bob", "on"}, 0, "bob is now reader of ann\n",
       "\n#O\tann\n#R\tbob,carol\n\n#O\tbob\n#R\tann\n#C\tcarol\n"},
      // A record is added for an owner that has none.
      {{"__ALL__", "agent", "carol", "on"}, 0, "carol is now agent of __ALL__\n",
       "\n#O\tann\n#R\tbob,carol\n\n#O\tbob\n#R\tann\n#C\tcarol\n\n#O\t__ALL__\n#Y\tcarol\n"},
      {{"bob", "writer", "carol", "off"}, 0, "carol is no longer writer of bob\n",
       "\n#O\tann\n#R\tbob,carol\n\n#O\tbob\n#R\tann\n\n#O\t__ALL__\n#Y\tcarol\n"},
  };
  for (const Row &r : rows) {
    std::vector<std::string> args = {"perms", "set"};
    args.insert(args.end(), r.args.begin(), r.args.end());
    Result got = run(args);
    EXPECT_EQ(got.status, r.status) << got.err;
    EXPECT_EQ(got.out, r.out);
    EXPECT_EQ(readFile(perm), r.file) << r.args[0] << " " << r.args[1];
  }
  std::string before = readFile(perm);
  Result noRecord = run({"perms", "set", "carol", "reader", "ann", "off"});
  EXPECT_EQ(noRecord.status, 1);
  EXPECT_EQ(noRecord.err, "SetDatPerm: could not find dat entry\nperms: permissions not changed\n");
  EXPECT_EQ(run({"perms", "set", "ann", "boss", "bob", "on"}).status, 2);
  EXPECT_EQ(readFile(perm), before);
}

TEST_F(Admin, PermsSetNeverDropsWhatItCannotKeepUnlessForced) {
  const std::string perm = at("db/database/dat.perm");
  // A name the users file does not know would vanish in the rewrite.
  const std::string withStranger = "\n#O\tann\n#R\tcarol,zed\n";
  writeFile(perm, withStranger);
  Result refused = run({"perms", "set", "ann", "writer", "bob", "on"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("names \"zed\", unknown to the users file"), std::string::npos) << refused.err;
  EXPECT_EQ(readFile(perm), withStranger);
  Result forced = run({"perms", "set", "ann", "writer", "bob", "on", "--force"});
  EXPECT_EQ(forced.status, 0) << forced.err;
  EXPECT_EQ(readFile(perm), "\n#O\tann\n#R\tcarol\n#C\tbob\n");
  // A write-protected file stays as it is.
  chmod(perm.c_str(), 0400);
  Result locked = run({"perms", "set", "ann", "agent", "bob", "on"});
  EXPECT_EQ(locked.status, 1);
  EXPECT_EQ(locked.err, "putDats: dat.perm not writeable\nperms: permissions not changed\n");
  EXPECT_EQ(readFile(perm), "\n#O\tann\n#R\tcarol\n#C\tbob\n");
}

/* ==== check-domains and check-holidays ======================================================= */

TEST_F(Admin, CheckDomainsReportsEveryProblemWithItsLine) {
  const std::string file = at("db/domains");
  struct Row { std::string text; int status; std::string out; } rows[] = {
      {"# two domains\nmain,localhost\n\"b,r\",10.9.8.7,Branch\n", 0, file + ": 2 domains, no problems\n"},
      {"main,localhost\nbranch\n,10.1.1.1\nmain,10.1.1.2\n", 1,
       file + ":2: domain \"branch\" has no host: the line is ignored\n" +
       file + ":3: no domain name: the line is ignored\n" +
       file + ":4: domain \"main\" is also on line 1\n" + file + ": 3 problem(s)\n"},
      // The machine's own address counts as this machine, like "localhost".
      {"a,localhost\nb,10.0.0.1\nc,10.1.1.1\n", 1,
       file + ":2: another entry for this machine (the first is on line 1)\n" +
       file + " file has multiple entries for localhost\n" + file + ": 2 problem(s)\n"},
      {"a,10.1.1.1\nb,10.1.1.2\n", 1, file + " file has no entry for localhost\n" + file + ": 1 problem(s)\n"},
      {"a,localhost\n", 1, file + " file has only entry of localhost\n" + file + ": 1 problem(s)\n"},
      {"a,10.1.1.1\n", 1,
       file + " file is not valid: it names 1 domain(s), at least two are needed\n" + file + ": 1 problem(s)\n"},
  };
  for (const Row &r : rows) {
    writeFile(file, r.text);
    Result got = run({"check-domains", "--address=10.0.0.1"});
    EXPECT_EQ(got.status, r.status) << r.text;
    EXPECT_EQ(got.out, r.out) << r.text;
  }
  Result missing = run({"check-domains", dir + "/none"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err, "check-domains: cannot read " + dir + "/none: No such file or directory\n");
}

TEST_F(Admin, CheckHolidaysReportsEveryProblemWithItsLine) {
  const std::string file = dir + "/holidays";
  struct Row { std::string text; int status; std::string out; } rows[] = {
      {"New Year*nonworkday:\t1/1/2026 - 1/1/2026\n\nCarnival*workday:\t2/16/2026 - 2/17/2026", 0,
       file + ": 2 holidays, no problems\n"},
      {"A*Workday:\t1/2/2026 - 1/2/2026\n*nonworkday:\t1/3/2026 - 1/3/2026\nB*workday:\t1/9/2026 - 1/5/2026\n", 1,
       file + ":1: kind \"Workday\" is neither workday nor nonworkday: it is read as a day off\n" +
       file + ":2: the holiday has no name: it is not written back\n" +
       file + ":3: the period ends before it starts\n" +
       file + ": 3 problem(s); the calendar reads 3 holiday(s)\n"},
      // The calendar stops at the first line it cannot read; the check goes on.
      {"A*workday:\t1/2/2026 - 1/2/2026\nB workday 1/3/2026\nC*workday 1/4/2026\nD*workday:\t2/30/2026 - 3/1/2026\n"
       "E*workday:\t1/5/2026 - 1/5/2026\n", 1,
       file + ":2: no \"*\" after the holiday's name\n" +
       file + ":2: the calendar reads no holiday from this line on\n" +
       file + ":3: no \":\" after the kind\n" +
       file + ":4: the period is not M/D/YYYY - M/D/YYYY of real days\n" +
       file + ": 4 problem(s); the calendar reads 1 holiday(s)\n"},
  };
  for (const Row &r : rows) {
    writeFile(file, r.text);
    Result got = run({"check-holidays", file});
    EXPECT_EQ(got.status, r.status) << r.text;
    EXPECT_EQ(got.out, r.out) << r.text;
  }
  Result shared = run({"check-holidays"});
  EXPECT_EQ(shared.out, at("db/database/holidays") + ": 2 holidays, no problems\n");
}

/* ==== message and users ======================================================================= */

TEST_F(Admin, MessageLooksUpTheCatalogueInTheChosenLanguage) {
  struct Row { std::vector<std::string> args; std::vector<std::string> env; int status; std::string out; } rows[] = {
      {{"message", "2", "1"}, {}, 0, "Hello\n"},
      {{"message", "1", "2"}, {}, 0, "Two lines\nsecond line\n"},
      {{"--lang", "De", "message", "2", "1"}, {}, 0, "Hallo\n"},
      {{"message", "1", "1"}, {"LANG=de_DE.UTF-8"}, 0, "Erste Meldung\n"},
      // No French catalogue: the default, never the English text.
      {{"--lang", "Fr", "message", "2", "1", "--default=Bonjour"}, {}, 0, "Bonjour\n"},
      {{"message", "2", "1", "--default=off"}, {"NOQUORVELCATGETS=TRUE"}, 0, "off\n"},
      {{"message", "2", "2"}, {}, 1, ""},
  };
  for (const Row &r : rows) {
    Result got = run(r.args, r.env);
    EXPECT_EQ(got.status, r.status) << got.err;
    EXPECT_EQ(got.out, r.out);
  }
  EXPECT_EQ(run({"message", "9", "1"}).err, "message: no message 1 of set 9 in the catalogue (language En_US)\n");
}

TEST_F(Admin, UsersListsTheCalendarsAndFailsWithoutAUsersFile) {
  Result got = run({"users"});
  EXPECT_EQ(got.status, 0);
  EXPECT_EQ(got.out, "0\tann\tann\tann@example.org\tAnn Archer\n1\t+bob\tbob\t\tBob Baker\n"
                     "2\tcarol\tcarol\tcarol@example.org\tCarol, C.\n");
  fs::remove(at("db/users"));
  Result none = run({"users"});
  EXPECT_EQ(none.status, 1);
  EXPECT_NE(none.err.find("users: cannot read the users file " + at("db/users")), std::string::npos) << none.err;
}

/* ==== verify ================================================================================== */

TEST_F(Admin, VerifyReportsLinesTheCalendarWouldNotKeep) {
  const std::string good = readFile(at("db/database/events/ann"));
  Result clean = run({"verify", "ann"});
  EXPECT_EQ(clean.status, 0);
  EXPECT_EQ(clean.out, at("db/database/events/ann") + ": 5 items, 0 problem(s)\n");
  const std::string file = dir + "/cal";
  writeFile(file, "\n#O\tann\n#T\tGood\n#B\t0x69a55190\n#F\t0x69a55fa0\n#W\tann,\\\n\tbob\n#I\t1\n\n"
                  "#T\tBad\n#B\tjunk\n#W\tzed\n#G\tglobal\n#x\tunknown\nnot a line\n#I\t12z\n#A\t5\n\n"
                  "#W\tann\n#I\t7\n\n");
  Result bad = run({"verify", file});
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.out, file + ":11: bad date-time \"junk\"\n" +
                     file + ":12: unknown calendar \"zed\": the calendar forgets it\n" +
                     file + ":13: the calendar does not keep #G lines\n" +
                     file + ":14: unknown tag \"x\": the calendar does not keep it\n" +
                     file + ":15: not a record line (no \"#\"): the calendar skips it\n" +
                     file + ":16: bad number \"12z\" after #I\n" +
                     file + ":17: bad alarm \"5\" (want two numbers)\n" +
                     file + ":10: item \"Bad\" names no calendar (#W): the calendar drops it\n" +
                     file + ":19: item without a kind line (#T, #D, #M or #?)\n" +
                     file + ": 3 items, 9 problem(s)\n");
  EXPECT_EQ(readFile(at("db/database/events/ann")), good) << "verifying writes nothing";
}

TEST_F(Admin, VerifyRewritesOnlyWhatItReadWholeAndOnlyWhenAsked) {
  const std::string file = dir + "/cal";
  const std::string messy = "\n#O\tann\n#T\tOne\n#B\t0x69a55190\n#F\t0x69a55fa0\n#W\tann,\\\n\tbob\n#I\t1\n\n"
                            "#T\tTwo\n#W\tann\n#G\tlost\n#I\t2\n\n";
  writeFile(file, messy);
  Result refused = run({"verify", file, "--rewrite"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("not rewritten: it would lose the lines above"), std::string::npos);
  EXPECT_EQ(readFile(file), messy);
  EXPECT_FALSE(fs::exists(file + ".orig"));

  Result forced = run({"verify", file, "--rewrite", "--force"});
  EXPECT_EQ(forced.status, 0) << forced.err;
  EXPECT_EQ(readFile(file + ".orig"), messy) << "the original is kept whole";
  const std::string tidy = "\n#O\tann\n#T\tOne\n#B\t0x69a55190 @0x0 %0x0\n#F\t0x69a55fa0 @0x0 %0x0\n"
                           "#W\tann,bob\n#I\t1\n\n#T\tTwo\n#B\t0x80000000 @0x0 %0x0\n#F\t0x80000000 @0x0 %0x0\n"
                           "#W\tann\n#I\t2\n\n";
  EXPECT_EQ(readFile(file), tidy);
  // A clean file rewrites without --force and comes out the same.
  EXPECT_EQ(run({"verify", file, "--rewrite"}).status, 0);
  EXPECT_EQ(readFile(file), tidy);

  // Files that cannot be read whole are never written: a missing one (the calendar's
  // reader would take it as empty) and a directory.
  Result missing = run({"verify", dir + "/none", "--rewrite", "--force"});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.err, "verify: cannot read " + dir + "/none whole: No such file or directory\n");
  EXPECT_FALSE(fs::exists(dir + "/none"));
  fs::create_directories(dir + "/adir");
  Result directory = run({"verify", dir + "/adir", "--rewrite"});
  EXPECT_EQ(directory.status, 1);
  EXPECT_EQ(directory.err, "verify: cannot read " + dir + "/adir whole: Is a directory\n");
}

}  // namespace
