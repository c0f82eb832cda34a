// admin_test.cpp -- quorvel-admin run as a program on a fixture database (testdata/root
// copied into a temporary directory), its output, errors, status and files compared.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

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

// One run: the arguments (after --root unless noRoot) and what it must end with (or
// ended with): status, the whole standard output, and standard error up to any usage
// text that follows.
struct Call {
  std::vector<std::string> args;
  int status = 0;
  std::string out = "", err = "";
  std::vector<std::string> env = {};
  bool noRoot = false;
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

  // Runs the program in a small fixed environment -- TZ=UTC, LANG=C, HOME inside the
  // temporary directory -- with r.env added: its status, output and error output.
  Call run(const Call &r) {
    std::string cmd = "env -i TZ=UTC LANG=C HOME='" + dir + "' PATH=/usr/bin:/bin";
    for (const std::string &e : r.env) cmd += " '" + e + "'";
    cmd += " '" QUORVEL_ADMIN_PATH "'" + (r.noRoot ? "" : " --root '" + root + "'");
    for (const std::string &a : r.args) cmd += " '" + a + "'";
    int st = std::system((cmd + " >'" + dir + "/stdout' 2>'" + dir + "/stderr'").c_str());
    return {r.args, WIFEXITED(st) ? WEXITSTATUS(st) : -1, readFile(dir + "/stdout"),
            readFile(dir + "/stderr")};
  }
  void expectRun(const Call &r) {
    Call got = run(r);
    std::string what = r.args.empty() ? "" : r.args[0] + " " + r.args.back();
    EXPECT_EQ(got.status, r.status) << what << "\n" << got.err;
    EXPECT_EQ(got.out, r.out) << what;
    EXPECT_EQ(got.err.substr(0, got.err.find("usage: ")), r.err) << what;
  }
};

TEST_F(Admin, EveryCommandHasHelpAndBadCommandLinesAreUsageErrors) {
  Call top = run({{"--help"}, 0});
  EXPECT_EQ(top.status, 0);
  for (std::string cmd : {"list", "print", "perms", "check-domains", "check-holidays", "message",
                          "users", "verify"}) {
    EXPECT_NE(top.out.find("  " + cmd + " "), std::string::npos) << cmd;
    Call help = run({{cmd, "--help"}, 0});
    EXPECT_EQ(help.status, 0) << cmd;
    EXPECT_TRUE(help.out.starts_with("usage: quorvel-admin " + cmd)) << help.out;
    EXPECT_EQ(help.err, "") << cmd;
  }
  const std::string users = "0\tann\tann\tann@example.org\tAnn Archer\n1\t+bob\tbob\t\tBob Baker\n"
                            "2\tcarol\tcarol\tcarol@example.org\tCarol, C.\n";
  for (const Call &r : std::vector<Call>{
           {{"frobnicate"}, 2, "", "quorvel-admin: unknown command frobnicate\n"},
           {{"list", "ann", "--fortnight"}, 2, "", "list: unknown option --fortnight\n"},
           {{"list", "ann", "--date"}, 2, "", "list: option --date needs a value\n"},
           {{"list", "ann", "--date=2026-02-30"}, 2, "",
            "list: bad date \"2026-02-30\" (want YYYY-MM-DD)\n"},
           {{"list", "ann", "--count=0"}, 2, "", "list: bad count \"0\" (want 1 to 1000)\n"},
           {{"list", "ann", "--show=events,parties"}, 2, "",
            "list: bad --show \"events,parties\"\n"},
           {{"list", "ann", "--day", "--week"}, 2, "",
            "list: give only one of --day, --week, --month\n"},
           {{"list", "nobody"}, 1, "", "list: no calendar named \"nobody\" in the users file\n"},
           {{"message", "0", "1"}, 2, "", "message: give SET and NUMBER, each 1 or more\n"},
           {{"verify", "ann", "--force"}, 2, "", "verify: --force goes with --rewrite\n"},
           {{"--lang"}, 2, "", "quorvel-admin: option --lang needs a value\n", {}, true},
           {{"users"}, 2, "", "users: no database root: give --root DIR or set QUORVELPATH\n", {},
            true},
           {{"users"}, 0, users, "", {"QUORVELPATH=" + root}, true},
           // message: the catalogue in the chosen language.
           {{"message", "2", "1"}, 0, "Hello\n", ""},
           {{"message", "1", "2"}, 0, "Two lines\nsecond line\n", ""},
           {{"--lang", "De", "message", "2", "1"}, 0, "Hallo\n", ""},
           {{"message", "1", "1"}, 0, "Erste Meldung\n", "", {"LANG=de_DE.UTF-8"}},
           // No French catalogue: the default, never the English text.
           {{"--lang", "Fr", "message", "2", "1", "--default=Bonjour"}, 0, "Bonjour\n", ""},
           {{"message", "2", "1", "--default=off"}, 0, "off\n", "", {"NOQUORVELCATGETS=TRUE"}},
           {{"message", "2", "2"}, 1, "",
            "message: no message 2 of set 2 in the catalogue (language En_US)\n"},
           {{"message", "9", "1"}, 1, "",
            "message: no message 1 of set 9 in the catalogue (language En_US)\n"}})
    expectRun(r);
  // users: the calendars, and a failure without a users file.
  expectRun({{"users"}, 0, users, ""});
  fs::remove(at("db/users"));
  expectRun({{"users"}, 1, "", "no users file (" + at("db/users") + ") to access\n"
                               "users: cannot read the users file " + at("db/users") + "\n"});
}

TEST_F(Admin, ListShowsTheAskedPeriodAsTheViewerMayReadIt) {
  const std::string mar2 = "\n\t\t#For March 2, 2026\n\n";
  for (const Call &r : std::vector<Call>{
           {{"list", "ann", "--date=2026-03-02"}, 0,
            mar2 + "03/02 (Monday):\t09:00am-10:00am\tPlanning\n"
                   "\t\t12:00pm-01:00pm\tLunch with bob\n"},
           // bob may read only the item that names his own calendar.
           {{"list", "ann", "--date=2026-03-02", "--as=bob", "--24h"}, 0,
            mar2 + "03/02 (Monday):\t 09:00 - 10:00 \t(private)\n"
                   "\t\t 12:00 - 13:00 \tLunch with bob\n"},
           // The catalogue's language reaches the listing's own texts.
           {{"--lang", "De", "list", "ann", "--date=2026-03-02", "--as=bob"}, 0,
            "\n\t\t#Am March 2, 2026\n\n03/02 (Monday):\t09:00am-10:00am\t(privat)\n"
            "\t\t12:00pm-01:00pm\tLunch with bob\n"},
           {{"list", "ann", "--date=2026-03-03", "--count=3", "--show=todos,reminders"}, 0,
            "\n\t\t#For March 3, 2026\n\n03/03 (Tuesday):\nToDos:\t\tSend report\n"
            "\n\t\t#For March 4, 2026\n\n03/04 (Wednesday):\nToDos:\t\tSend report (done)\n"
            "\n\t\t#For March 5, 2026\n\n03/05 (Thursday):\nReminders:\tDentist\n"},
           {{"list", "ann", "--month", "--date=2026-03-20"}, 0,
            "\n\t\t#For March 2026\n\n03/02 (Monday):\t09:00am-10:00am\tPlanning\n"
            "\t\t12:00pm-01:00pm\tLunch with bob\n03/16 (Monday):\t02:00pm-03:30pm\tReview\n"},
           // carol has no record file: her day is empty, never another calendar's items.
           {{"list", "carol", "--date=2026-03-02", "--day-first"}, 0,
            "\n\t\t#For 2 March, 2026\n\n"},
           {{"list", "bob", "--week", "--date=2026-03-01"}, 0,
            "\n\t\t#For the week of March 1, 2026\n\n"
            "03/02 (Monday):\t03:00pm-04:00pm\tBob's call\n"}})
    expectRun(r);
}

TEST_F(Admin, PrintHandsTheListingToTheFormatterAndReportsItsFailure) {
  std::string log = dir + "/pcal.log";
  expectRun({{"print", "ann", "--month", "--date=2026-03-09", "--metric"}, 0, "", "",
             {"QV_PCAL_LOG=" + log}});
  std::string rec = readFile(log);
  EXPECT_TRUE(rec.starts_with("-Xm\n3\n2026\n-XE\n-l\n-C\n")) << rec;
  EXPECT_NE(rec.find("\n-N\nann\n-Xi\n2.95\n-Xh\n3.94\n"), std::string::npos) << rec;
  EXPECT_NE(rec.find("--data\n\n\t\t#For March 2026\n\nyear 2026\n\n"
                     "03/02 (Monday):\t09:00am-10:00am\tPlanning\n"), std::string::npos) << rec;
  size_t f = rec.find("\n-f\n");
  ASSERT_NE(f, std::string::npos);
  std::string data = rec.substr(f + 4, rec.find('\n', f + 4) - f - 4);
  EXPECT_FALSE(fs::exists(data)) << "the data file is removed after the run";
  expectRun({{"print", "ann"}, 1, "",
             "Unable to output the postscript file at this time.\nprint: the formatter failed\n",
             {"QV_PCAL_LOG=" + log, "QV_PCAL_EXIT=3"}});
  fs::remove(at("linux/bin/pcal"));
  expectRun({{"print", "ann"}, 1, "", "print: no formatter at " + at("linux/bin/pcal") + "\n"});
}

TEST_F(Admin, PermsSetsOneRightAtATimeAndNeverDropsWhatItCannotKeepUnlessForced) {
  expectRun({{"perms", "show"}, 0,
             "For ann\nReaders are carol\nWriters are \nAgents are \nSchedulers are \n"
             "For bob\nReaders are ann\nWriters are carol\nAgents are \nSchedulers are \n", ""});
  const std::string perm = at("db/database/dat.perm"), stranger = "\n#O\tann\n#R\tcarol,zed\n";
  const std::string notChanged = "perms: permissions not changed\n";
  // Each row: a file written first (or none), the run of "perms set ...", the file after
  // (none: as before).
  struct Row { std::string before; Call run; std::string after; } rows[] = {
      {"", {{"bob", "reader", "ann", "on"}, 0, "unchanged: ann is already reader of bob\n", ""},
       "\n#O\tann\n#R\tcarol\n\n#O\tbob\n#R\tann\n#C\tcarol\n"},
      {"", {{"ann", "reader", "bob", "on"}, 0, "bob is now reader of ann\n", ""},
       "\n#O\tann\n#R\tbob,carol\n\n#O\tbob\n#R\tann\n#C\tcarol\n"},
      // A record is added for an owner that has none.
      {"", {{"__ALL__", "agent", "carol", "on"}, 0, "carol is now agent of __ALL__\n", ""},
       "\n#O\tann\n#R\tbob,carol\n\n#O\tbob\n#R\tann\n#C\tcarol\n\n#O\t__ALL__\n#Y\tcarol\n"},
      {"", {{"bob", "writer", "carol", "off"}, 0, "carol is no longer writer of bob\n", ""},
       "\n#O\tann\n#R\tbob,carol\n\n#O\tbob\n#R\tann\n\n#O\t__ALL__\n#Y\tcarol\n"},
      {"", {{"carol", "reader", "ann", "off"}, 1, "",
            "SetDatPerm: could not find dat entry\n" + notChanged}, ""},
      {"", {{"ann", "boss", "bob", "on"}, 2, "", "perms: unknown right \"boss\"\n"}, ""},
      // A name the users file does not know would vanish in the rewrite.
      {stranger, {{"ann", "writer", "bob", "on"}, 1, "",
                  "perms: " + perm + " names \"zed\", unknown to the users file (and 0 more); "
                  "give --force to drop such names\n"}, ""},
      {"", {{"ann", "writer", "bob", "on", "--force"}, 0, "bob is now writer of ann\n", ""},
       "\n#O\tann\n#R\tcarol\n#C\tbob\n"},
  };
  for (Row &r : rows) {
    if (!r.before.empty()) writeFile(perm, r.before);
    std::string before = readFile(perm);
    r.run.args.insert(r.run.args.begin(), {"perms", "set"});
    expectRun(r.run);
    EXPECT_EQ(readFile(perm), r.after.empty() ? before : r.after) << r.run.args[2];
  }
  // A write-protected file stays as it is.
  chmod(perm.c_str(), 0400);
  expectRun({{"perms", "set", "ann", "agent", "bob", "on"}, 1, "",
             "putDats: dat.perm not writeable\n" + notChanged});
  EXPECT_EQ(readFile(perm), "\n#O\tann\n#R\tcarol\n#C\tbob\n");
}

// The lines of a report on file: each is the file's name and then the given text.
std::string report(const std::string &file, std::vector<std::string> lines) {
  std::string text;
  for (const std::string &line : lines) text += file + line + "\n";
  return text;
}

TEST_F(Admin, ChecksReportEveryProblemWithItsLine) {
  const std::string dom = at("db/domains"), hol = dir + "/holidays";
  const std::vector<std::string> domains = {"check-domains", "--address=10.0.0.1"},
                                  holidays = {"check-holidays", hol};
  // Each row: the file's text, then the run over it.
  struct Row { std::string text; Call run; } rows[] = {
      {"# two domains\nmain,localhost\n\"b,r\",10.9.8.7,Branch\n",
       {domains, 0, report(dom, {": 2 domains, no problems"}), ""}},
      {"main,localhost\nbranch\n,10.1.1.1\nmain,10.1.1.2\n",
       {domains, 1, report(dom, {":2: domain \"branch\" has no host: the line is ignored",
                                 ":3: no domain name: the line is ignored",
                                 ":4: domain \"main\" is also on line 1", ": 3 problem(s)"}), ""}},
      // The machine's own address counts as this machine, like "localhost".
      {"a,localhost\nb,10.0.0.1\nc,10.1.1.1\n",
       {domains, 1, report(dom, {":2: another entry for this machine (the first is on line 1)",
                                 " file has multiple entries for localhost",
                                 ": 2 problem(s)"}), ""}},
      {"a,10.1.1.1\nb,10.1.1.2\n",
       {domains, 1, report(dom, {" file has no entry for localhost", ": 1 problem(s)"}), ""}},
      {"a,localhost\n",
       {domains, 1, report(dom, {" file has only entry of localhost", ": 1 problem(s)"}), ""}},
      {"a,10.1.1.1\n",
       {domains, 1, report(dom, {" file is not valid: it names 1 domain(s), at least two are "
                                 "needed", ": 1 problem(s)"}), ""}},
      {"New Year*nonworkday:\t1/1/2026 - 1/1/2026\n\nCarnival*workday:\t2/16/2026 - 2/17/2026",
       {holidays, 0, report(hol, {": 2 holidays, no problems"}), ""}},
      {"A*Workday:\t1/2/2026 - 1/2/2026\n*nonworkday:\t1/3/2026 - 1/3/2026\n"
       "B*workday:\t1/9/2026 - 1/5/2026\n",
       {holidays, 1, report(hol, {":1: kind \"Workday\" is neither workday nor nonworkday: it "
                                  "is read as a day off",
                                  ":2: the holiday has no name: it is not written back",
                                  ":3: the period ends before it starts",
                                  ": 3 problem(s); the calendar reads 3 holiday(s)"}), ""}},
      // The calendar stops at the first line it cannot read; the check goes on.
      {"A*workday:\t1/2/2026 - 1/2/2026\nB workday 1/3/2026\nC*workday 1/4/2026\n"
       "D*workday:\t2/30/2026 - 3/1/2026\nE*workday:\t1/5/2026 - 1/5/2026\n",
       {holidays, 1, report(hol, {":2: no \"*\" after the holiday's name",
                                  ":2: the calendar reads no holiday from this line on",
                                  ":3: no \":\" after the kind",
                                  ":4: the period is not M/D/YYYY - M/D/YYYY of real days",
                                  ": 4 problem(s); the calendar reads 1 holiday(s)"}), ""}},
  };
  for (const Row &r : rows) {
    writeFile(r.run.args == domains ? dom : hol, r.text);
    expectRun(r.run);
  }
  expectRun({{"check-domains", dir + "/none"}, 1, "",
             "check-domains: cannot read " + dir + "/none: No such file or directory\n"});
  expectRun({{"check-holidays"}, 0, report(at("db/database/holidays"),
                                           {": 2 holidays, no problems"}), ""});
}

TEST_F(Admin, VerifyReportsWhatTheCalendarWouldNotKeepAndRewritesOnlyWhatItReadWhole) {
  const std::string ann = at("db/database/events/ann"), good = readFile(ann), file = dir + "/cal";
  expectRun({{"verify", "ann"}, 0, report(ann, {": 5 items, 0 problem(s)"}), ""});
  writeFile(file, "\n#O\tann\n#T\tGood\n#B\t0x69a55190\n#F\t0x69a55fa0\n#W\tann,\\\n\tbob\n"
                  "#I\t1\n\n#T\tBad\n#B\tjunk\n#W\tzed\n#G\tglobal\n#x\tunknown\nnot a line\n"
                  "#I\t12z\n#A\t5\n\n#W\tann\n#I\t7\n\n");
  expectRun({{"verify", file}, 1,
             report(file, {":11: bad date-time \"junk\"",
                           ":12: unknown calendar \"zed\": the calendar forgets it",
                           ":13: the calendar does not keep #G lines",
                           ":14: unknown tag \"x\": the calendar does not keep it",
                           ":15: not a record line (no \"#\"): the calendar skips it",
                           ":16: bad number \"12z\" after #I",
                           ":17: bad alarm \"5\" (want two numbers)",
                           ":10: item \"Bad\" names no calendar (#W): the calendar drops it",
                           ":19: item without a kind line (#T, #D, #M or #?)",
                           ": 3 items, 9 problem(s)"}), ""});
  EXPECT_EQ(readFile(ann), good) << "verifying writes nothing";
  // A rewrite that would lose lines needs --force; the original is then kept whole.
  const std::string messy = "\n#O\tann\n#T\tOne\n#B\t0x69a55190\n#F\t0x69a55fa0\n#W\tann,\\\n"
                            "\tbob\n#I\t1\n\n#T\tTwo\n#W\tann\n#G\tlost\n#I\t2\n\n";
  writeFile(file, messy);
  Call refused = run({{"verify", file, "--rewrite"}, 1});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("not rewritten: it would lose the lines above"), std::string::npos);
  EXPECT_EQ(readFile(file), messy);
  EXPECT_FALSE(fs::exists(file + ".orig"));
  expectRun({{"verify", file, "--rewrite", "--force"}, 0,
             report(file, {":12: the calendar does not keep #G lines", ": 2 items, 1 problem(s)",
                           ": rewritten, 2 items"})});
  EXPECT_EQ(readFile(file + ".orig"), messy);
  const std::string tidy = "\n#O\tann\n#T\tOne\n#B\t0x69a55190 @0x0 %0x0\n"
                           "#F\t0x69a55fa0 @0x0 %0x0\n#W\tann,bob\n#I\t1\n\n#T\tTwo\n"
                           "#B\t0x80000000 @0x0 %0x0\n#F\t0x80000000 @0x0 %0x0\n#W\tann\n#I\t2\n\n";
  EXPECT_EQ(readFile(file), tidy);
  // A clean file rewrites without --force and comes out the same.
  expectRun({{"verify", file, "--rewrite"}, 0,
             report(file, {": 2 items, 0 problem(s)", ": rewritten, 2 items"})});
  EXPECT_EQ(readFile(file), tidy);
  // Files that cannot be read whole are never written: a missing one (the calendar's
  // reader would take it as empty) and a directory.
  fs::create_directories(dir + "/adir");
  expectRun({{"verify", dir + "/none", "--rewrite", "--force"}, 1, "",
             "verify: cannot read " + dir + "/none whole: No such file or directory\n"});
  EXPECT_FALSE(fs::exists(dir + "/none"));
  expectRun({{"verify", dir + "/adir", "--rewrite"}, 1, "",
             "verify: cannot read " + dir + "/adir whole: Is a directory\n"});
}

}  // namespace
