// Mail notices composed with the trace switch on: the command line and the scratch
// message as the mailer would get them, the time text, the address rules, the templates.
#include "core/notice/mail_test_util.h"

#include <sys/stat.h>
using namespace quorvel;

TEST(MailTimeText, NeverShowsTwelveAmAndDropsAmPmIn24HourForm) {
  setenv("TZ", "UTC", 1), tzset();
  struct Row {
    int hour, minute;
    bool clock24;
    const char *text;
  } rows[] = {{12, 5, false, "12:05 pm, "}, {0, 5, false, "00:05 am, "},
              {13, 30, false, "01:30 pm, "}, {11, 59, false, "11:59 am, "},
              {23, 0, false, "11:00 pm, "}, {0, 5, true, "00:05, "},
              {21, 30, true, "21:30, "}};
  for (const Row &r : rows)
    EXPECT_EQ(mailTimeText(juneFifth(r.hour, r.minute), r.clock24), r.text) << r.hour;
}

TEST_F(MailTest, UnknownOperationsAndAMissingMailerSendNothing) {
  setMailSettings(mailer("/usr/sbin/sendmail"));
  for (int op : {0, 4, -1}) {
    Sent s = send({0}, op);
    EXPECT_TRUE(s.rc == MAIL_NOTHING && s.err.empty()) << op;
  }
  EXPECT_EQ(reportCount(), 0);
  Sent none = send({1, 2}, 1);  // bob comes first, without an address: nobody is told
  EXPECT_TRUE(none.rc == MAIL_NOTHING && none.err.empty());
  setMailSettings(mailer(""));
  Sent s = send({0}, 1);
  EXPECT_EQ(s.rc, MAIL_NO_MAILER);
  EXPECT_EQ(s.err, "deliverMail: cannot get mailer command string\n");
}

TEST_F(MailTest, ADeleteNoticeWithDefaultTextsAndItsCommandLine) {
  setMailSettings(mailer("/usr/sbin/sendmail"));
  Sent s = send({0, 1, 2}, 3);  // bob has no address: carl after him is not told either
  ASSERT_EQ(s.rc, 0);
  std::string scratch = s.err.substr(5, s.err.find(' ', 5) - 5);
  EXPECT_EQ(s.err, "(cat " + scratch + " | /usr/sbin/sendmail   anna@quorvel.test; rm -f " +
                       scratch + ") &\n");
  EXPECT_EQ(s.message,
            "To: anna@quorvel.test\nSubject: Meeting deleted\n\n"
            "The following event has been deleted (originally scheduled for\n"
            "12:05 pm, June 05, 2026):\n\n\tLunch at noon\n\n");
  EXPECT_EQ(scratch.rfind("/tmp/T", 0), 0u);
  EXPECT_EQ(scratch.substr(scratch.size() - 4), ".qvl");
  // The other two defaults, through the entry points (the item's own start time).
  item->timeValue.start.time = juneFifth(0, 5);
  CalSet to = nullptr;
  setbit(&to, 3, 1);  // dora: her login stands in for the address
  for (int op : {1, 2}) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(mailItemNoticeNoSender(item, to, op, "Desk"), 0);
    std::string err = testing::internal::GetCapturedStderr();
    std::string name = err.substr(5, err.find(' ', 5) - 5);
    EXPECT_EQ(readFile(name),
              std::string("To: dora@quorvel.test\nSubject: ") +
                  (op == 1 ? "Meeting scheduled" : "Meeting change") +
                  "\n\nThe following event has been " + (op == 1 ? "scheduled" : "changed") +
                  " to begin at 00:05 am, June 05, 2026:\n\n\tDesk\n\n");
    unlink(name.c_str());
  }
  freebits(&to);
}

TEST_F(MailTest, SenderOptionSeparatorAndExtraArgumentShapeTheCommand) {
  MailSettings s = mailer("mailx");
  s.mailerArg = "-oi", s.separator = ",";
  setMailSettings(s);
  const std::string list = "anna@quorvel.test,carl@quorvel.test;";
  struct Row {
    bool standalone;
    const char *sender;
    int index;
    const char *options;
  } rows[] = {{true, "anna", 0, " -fanna"}, {true, "anna", -1, ""}, {true, "", 0, ""},
              {false, "anna", 0, ""}};
  for (const Row &r : rows) {
    main->standalone = r.standalone;
    Sent sent = send({0, 2}, 2, r.sender, r.index);
    ASSERT_EQ(sent.rc, 0);
    EXPECT_NE(sent.err.find(std::string("| mailx ") + r.options + " -oi " + list),
              std::string::npos) << sent.err;
    EXPECT_EQ(sent.message.substr(0, 40), "To: anna@quorvel.test,carl@quorvel.test\n");
    EXPECT_EQ(sent.mode, 0666);  // the mailer may run as another user
  }
  // Run for real: the mailer gets the message on its input, then the scratch file goes.
  setMailSettings(mailer("cat >" + root + "/got; true", false));
  CalSet to = nullptr;
  setbit(&to, 0, 1);
  EXPECT_EQ(deliverMail(item, "anna", 0, to, 1, root.c_str(), 0), 0);
  freebits(&to);
  auto leftOver = [&] {  // a scratch message still holding this test's description
    for (const std::string &n : filesIn("/tmp", "T"))
      if (readFile("/tmp/" + n).find(root) != std::string::npos) return true;
    return false;
  };
  for (int i = 0; i < 500 && (leftOver() || readFile(root + "/got").empty()); i++)
    usleep(10000);
  EXPECT_EQ(readFile(root + "/got"),
            "To: anna@quorvel.test\nSubject: Meeting scheduled\n\nThe following event has "
            "been scheduled to begin at 00:00 am, January 01, 1970:\n\n\t" + root + "\n\n");
  EXPECT_FALSE(leftOver());
}

TEST_F(MailTest, LongAddressListsAreCutAtASeparatorAfter1899Characters) {
  setMailSettings(mailer("sendmail"));
  auto lines = [](const std::string &message) {
    std::vector<std::string> to;
    std::istringstream in(message);
    for (std::string line; std::getline(in, line) && line.rfind("To: ", 0) == 0;)
      to.push_back(line.substr(4));
    return to;
  };
  // Two addresses totalling 1900 characters stay on one line; 1901 are cut after the
  // first, whose end is exactly 1899 places on.
  auto fresh = [this] { releaseUsers(main), resetDbContexts(), main = openDefaultDb(); };
  for (int first : {1898, 1899}) {
    fresh();
    addCalendarName(nullptr, "long", "", std::string(first, 'a').c_str(), "");
    addCalendarName(nullptr, "short", "", "b", "");
    std::vector<std::string> to = lines(send({0, 1}, 1).message);
    EXPECT_EQ(to.size(), first == 1898 ? 1u : 2u);
    EXPECT_EQ(to.back().back(), 'b');
  }
  // 130 addresses of 17 characters: 2339 characters, cut at the first blank from 1899 on.
  fresh();
  CalSet all = nullptr;
  std::string joined;
  for (int i = 0; i < 130; i++) {
    char address[32];
    snprintf(address, sizeof address, "u%03d@quorvel.test", i);
    addCalendarName(nullptr, address + 1, "", address, "");
    setbit(&all, i, 1);
    joined += (i ? " " : "") + std::string(address);
  }
  testing::internal::CaptureStderr();
  ASSERT_EQ(deliverMail(item, "anna", 0, all, 1, "x", 0), 0);
  std::string err = testing::internal::GetCapturedStderr();
  freebits(&all);
  std::string name = err.substr(5, err.find(' ', 5) - 5);
  std::vector<std::string> to = lines(readFile(name));
  unlink(name.c_str());
  ASSERT_EQ(to.size(), 2u);
  EXPECT_EQ(to[0] + " " + to[1], joined);  // nothing lost, cut at a separator
  EXPECT_GE(to[0].size(), 1899u);
  EXPECT_EQ(to[0].find(' ', 1899), std::string::npos);  // and at the first one after
  EXPECT_NE(err.find(joined + "; rm -f"), std::string::npos);  // the command has them all
}

TEST_F(MailTest, TemplatesChosenByKindAndOperationExpandTheirPlaceholders) {
  setMailSettings(mailer("sendmail"));
  writeFile("mailmsg",
            "# site notices\r\n"
            "ModTodoSubject: To-do changed: ${title}\r\n"
            "ModTodoBody: ${sender} moved \"${title}\" to ${time} on ${date}.\n"
            "\t\n"
            " ${description} ${nope} $ {title}\n"
            "NewMemoSubject: Memo from ${sender}\n"
            "! an empty template counts as missing\n"
            "NewMemoBody:\n"
            "NewEventSubject: first\n"
            "newEVENTsubject: second\n");
  item->dWord = KIND_TODO;
  Sent todo = send({0}, 2, "anna", 0, juneFifth(21, 30), "Bring plates");
  EXPECT_EQ(todo.message,
            "To: anna@quorvel.test\nSubject: To-do changed: Lunch\n\n"
            "anna moved \"Lunch\" to 09:30 pm on June 05, 2026.\n\n"
            "Bring plates ${nope} $ {title}\n\n");
  MailSettings s = mailer("sendmail");
  s.clock24 = true;
  setMailSettings(s);
  item->dWord = KIND_REMINDER;
  Sent memo = send({2}, 1, "anna", 0, juneFifth(21, 30), "Call");
  EXPECT_EQ(memo.message,
            "To: carl@quorvel.test\nSubject: Memo from anna\n\n"
            "The following event has been scheduled to begin at 21:30, June 05, 2026:"
            "\n\n\tCall\n\n");
  item->dWord = 7;  // any other kind is told as an event; a repeated name replaces
  EXPECT_NE(send({0}, 1).message.find("Subject: second\n"), std::string::npos);
  item->dWord = KIND_EVENT;  // an event change has no template here: the defaults
  EXPECT_NE(send({0}, 2).message.find("Subject: Meeting change\n"), std::string::npos);
}
