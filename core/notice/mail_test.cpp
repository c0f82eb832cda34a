// Mail notices composed with the trace switch on: the command line and the scratch
// message as the mailer would get them, the time text, the address rules, the templates.
#include "core/notice/notice_test_util.h"
using namespace quorvel;

TEST_F(NoticeTest, ShellDeliveryCommandLineAndDefaultTextsAndWhenNothingIsSent) {
  std::string texts;
  for (auto [hour, minute, clock24] : {std::tuple{12, 5, false}, {0, 5, false}, {13, 30, false},
                                       {11, 59, false}, {0, 5, true}, {21, 30, true}})
    texts += mailTimeText(juneFifth(hour, minute), clock24) + "|";
  EXPECT_EQ(texts, "12:05 pm, |00:05 am, |01:30 pm, |11:59 am, |00:05, |21:30, |")
      << "never 12 am";
  setMailSettings(mailer("/usr/sbin/sendmail"));
  for (int op : {0, 4}) {  // not an operation
    Sent s = send({0}, op);
    EXPECT_TRUE(s.rc == MAIL_NOTHING && s.err.empty()) << op;
  }
  Sent none = send({1, 2}, 1);  // bob comes first and has no address: nobody is told
  EXPECT_TRUE(none.rc == MAIL_NOTHING && none.err.empty() && reportCount() == 0);
  Sent s = send({0, 1, 2}, 3);  // so carl, after bob, is not told either
  std::string scratch = scratchOf(s.err);
  EXPECT_EQ(s.err, "(cat " + scratch + " | /usr/sbin/sendmail   anna@quorvel.test; rm -f " +
                       scratch + ") &\n");
  EXPECT_EQ(s.msg, "To: anna@quorvel.test\nSubject: Meeting deleted\n\nThe following event "
                   "has been deleted (originally scheduled for\n12:05 pm, June 05, 2026):"
                   "\n\n\tLunch at noon\n\n");
  EXPECT_TRUE(s.rc == 0 && s.mode == 0666 && scratch.rfind("/tmp/T", 0) == 0 &&
              scratch.substr(scratch.size() - 4) == ".qvl");
  item->timeValue.start.time = juneFifth(0, 5);  // the entry points take the item's start
  CalSet dora = setOf({3});  // dora's login stands in for her address
  for (int op : {1, 2}) {
    Sent d = traced([&] { return mailItemNoticeNoSender(item, dora, op, "Desk"); });
    EXPECT_EQ(d.rc, 0);
    EXPECT_EQ(d.msg, std::string("To: dora@quorvel.test\nSubject: Meeting ") +
                         (op == 1 ? "scheduled" : "change") + "\n\nThe following event has been " +
                         (op == 1 ? "scheduled" : "changed") +
                         " to begin at 00:05 am, June 05, 2026:\n\n\tDesk\n\n");
  }
  freebits(&dora);
  // The sender goes to the mailer (-f) only from a standalone database with a sender.
  MailSettings m = mailer("mailx");
  m.mailerArg = "-oi", m.separator = ",";
  setMailSettings(m);
  for (auto [standalone, sender, index, options] :
       {std::tuple{true, "anna", 0, " -fanna"}, {true, "anna", -1, ""}, {true, "", 0, ""},
        {false, "anna", 0, ""}}) {
    main->standalone = standalone;
    Sent sent = send({0, 2}, 2, sender, index);
    EXPECT_TRUE(has(sent.err, std::string("| mailx ") + options +
                                  " -oi anna@quorvel.test,carl@quorvel.test; rm")) << sent.err;
    EXPECT_EQ(sent.msg.substr(0, 40), "To: anna@quorvel.test,carl@quorvel.test\n");
  }
  // Texts the shell would split or run never reach the command line: an address is
  // skipped (the others still go), a sender is not passed.
  addCalendarName(nullptr, "eve", "ev", "x@y;touch /tmp/owned", "");
  addCalendarName(nullptr, "fay", "fa", "$(reboot)@y", "");
  main->standalone = true;
  Sent hostile = send({0, 4, 5, 2}, 2, "an`id`na", 0);
  EXPECT_TRUE(has(hostile.err, "| mailx  -oi anna@quorvel.test,carl@quorvel.test; rm")) << hostile.err;
  EXPECT_TRUE(has(hostile.err, "deliverMail: the mail address of calendar 4 is not a plain word; "
                               "skipped\ndeliverMail: the mail address of calendar 5 is not a "
                               "plain word; skipped\n")) << hostile.err;
  setMailSettings(mailer(""));
  s = send({0}, 1);
  EXPECT_EQ(s.err + std::to_string(s.rc), "deliverMail: cannot get mailer command string\n-2");
}

TEST_F(NoticeTest, LongAddressListsAreCutAtTheFirstSeparator1899CharactersOn) {
  setMailSettings(mailer("sendmail"));
  auto toLines = [](const std::string &message) {
    std::vector<std::string> to;
    std::istringstream in(message);
    for (std::string line; std::getline(in, line) && line.rfind("To: ", 0) == 0;)
      to.push_back(line.substr(4));
    return to;
  };
  auto fresh = [this] { releaseUsers(main), resetDbContexts(), main = openDefaultDb(); };
  for (int first : {1898, 1899}) {  // 1900 characters stay on one line, 1901 do not
    fresh();
    addCalendarName(nullptr, "long", "", std::string(first, 'a').c_str(), "");
    addCalendarName(nullptr, "short", "", "b", "");
    EXPECT_EQ(toLines(send({0, 1}, 1).msg).size(), first == 1898 ? 1u : 2u);
  }
  // The cut looks from 1899 on: the blank at 1898 is passed over, the one at 1900 taken.
  fresh();
  addCalendarName(nullptr, "long", "", std::string(1898, 'a').c_str(), "");
  addCalendarName(nullptr, "b", "", "b", ""), addCalendarName(nullptr, "c", "", "c", "");
  EXPECT_EQ(toLines(send({0, 1, 2}, 1).msg),
            (std::vector<std::string>{std::string(1898, 'a') + " b", "c"}));
  fresh();  // 130 addresses of 17 characters: 2339 characters, blanks at 18k + 17
  std::string joined;
  std::vector<int> all;
  for (int i = 0; i < 130; i++) {
    char address[32];
    snprintf(address, sizeof address, "u%03d@quorvel.test", i);
    all.push_back(addCalendarName(nullptr, address, "", address, ""));
    joined += (i ? " " : "") + std::string(address);
  }
  Sent s = send(all, 1, "anna", 0, 0, "x");
  std::vector<std::string> to = toLines(s.msg);
  ASSERT_TRUE(s.rc == 0 && to.size() == 2u) << s.rc;
  EXPECT_EQ(to[0] + " " + to[1], joined);
  EXPECT_EQ(to[0].size(), 1907u);  // the first blank from 1899 on is at 18 * 105 + 17
  EXPECT_TRUE(has(s.err, joined + "; rm -f"));  // the command line names them all
}

TEST_F(NoticeTest, TemplatesChosenByKindAndOperationExpandTheirPlaceholders) {
  writeFile("mailmsg", "# site notices\r\nModTodoSubject: To-do changed: ${title}\r\n"
                       "ModTodoBody: ${sender} moved \"${title}\" to ${time} on ${date}.\n"
                       "\t\n ${description} ${nope} $ {title}\n"
                       "NewMemoSubject: Memo from ${sender}\n! an empty one counts as missing\n"
                       "NewMemoBody:\nNewEventSubject: first\nnewEVENTsubject: second\n");
  setMailSettings(mailer("sendmail"));
  item->dWord = KIND_TODO;
  EXPECT_EQ(send({0}, 2, "anna", 0, juneFifth(21, 30), "Bring plates").msg,
            "To: anna@quorvel.test\nSubject: To-do changed: Lunch\n\nanna moved \"Lunch\" to "
            "09:30 pm on June 05, 2026.\n\nBring plates ${nope} $ {title}\n\n");
  MailSettings s = mailer("sendmail");
  s.clock24 = true;
  setMailSettings(s);
  item->dWord = KIND_REMINDER;  // a memo
  EXPECT_EQ(send({2}, 1, "anna", 0, juneFifth(21, 30), "Call").msg,
            "To: carl@quorvel.test\nSubject: Memo from anna\n\nThe following event has been "
            "scheduled to begin at 21:30, June 05, 2026:\n\n\tCall\n\n");
  item->dWord = 7;  // any other kind is an event; a repeated name replaces the first
  EXPECT_TRUE(has(send({0}, 1).msg, "Subject: second\n"));
  item->dWord = KIND_EVENT;
  EXPECT_TRUE(has(send({0}, 2).msg, "Subject: Meeting change\n"));
}
