// Mail notices through real parts: exim's sendmail interface behind the shell delivery,
// and exim listening on a loopback port for the direct SMTP delivery. Each test writes its
// own exim configuration (spool, logs and a maildir in its temporary tree), starts exim
// itself and checks the messages that arrive in the maildir.
#include "core/notice/notice_test_util.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <regex>
using namespace quorvel;

static const char *const EXIM = "/usr/sbin/exim4";

// A loopback socket: bound to a free port, listening when asked. Returns the descriptor.
static int loopbackSocket(int *port, bool listening) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in sa{};
  sa.sin_family = AF_INET, sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof sa;
  bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa);
  if (listening) listen(fd, 4);
  getsockname(fd, reinterpret_cast<sockaddr *>(&sa), &len);
  *port = ntohs(sa.sin_port);
  return fd;
}

// Root has exim work as nobody (it never delivers as root); anyone else as themselves.
static const char *const CONFIG = R"(primary_hostname = quorvel.test
spool_directory = DIR/spool
log_file_path = DIR/%slog
exim_user = USER
exim_group = GROUP
keep_environment =
local_interfaces = <; 127.0.0.1
acl_smtp_rcpt = check_rcpt
begin acl
check_rcpt:
  deny local_parts = refused
  accept
begin routers
all:
  driver = accept
  transport = store
begin transports
store:
  driver = appendfile
  directory = DIR/mail
  maildir_format
  envelope_to_add
  return_path_add
  user = USER
  group = GROUP
)";

class DeliveryTest : public NoticeTest {
 protected:
  std::string dir, conf;  // exim's tree and configuration file
  int port = 0;
  pid_t daemon = -1;

  void SetUp() override {
    NoticeTest::SetUp();
    if (access(EXIM, X_OK) != 0) GTEST_SKIP() << "exim4 is missing: run scripts/setup.sh";
    dir = root + "/exim", conf = dir + "/exim.conf";
    for (const char *sub : {"", "/spool", "/mail"})  // exim writes as its own user
      mkdir((dir + sub).c_str(), 0777), chmod((dir + sub).c_str(), 0777);
    chmod(root.c_str(), 0755);
    bool root0 = geteuid() == 0;
    std::string text = std::regex_replace(CONFIG, std::regex("DIR"), dir);
    text = std::regex_replace(text, std::regex("USER"),
                              root0 ? "nobody" : getpwuid(geteuid())->pw_name);
    std::ofstream(conf) << std::regex_replace(text, std::regex("GROUP"),
                                              root0 ? "nogroup" : getgrgid(getegid())->gr_name);
    addCalendarName(nullptr, "refused", "", "refused@quorvel.test", "");  // index 4
  }
  void TearDown() override {
    if (daemon > 0) kill(daemon, SIGTERM), waitpid(daemon, nullptr, 0);
    NoticeTest::TearDown();
  }
  void startDaemon() {
    close(loopbackSocket(&port, false));
    std::string portText = std::to_string(port), out = dir + "/daemon.out";
    const char *argv[] = {EXIM, "-C", conf.c_str(), "-bdf", "-oX", portText.c_str(), nullptr};
    posix_spawn_file_actions_t files;  // the daemon's chatter goes to a file
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 2, out.c_str(), O_WRONLY | O_CREAT, 0644);
    ASSERT_EQ(posix_spawn(&daemon, EXIM, &files, nullptr, const_cast<char **>(argv), environ), 0);
    posix_spawn_file_actions_destroy(&files);
    for (int i = 0; i < 500 && !has(readFile(dir + "/mainlog"), "listening for SMTP"); i++) {
      if (waitpid(daemon, nullptr, WNOHANG) == daemon)
        daemon = -1, i = 500;
      usleep(20000);
    }
    if (daemon < 0) GTEST_SKIP() << "exim cannot listen on loopback here: " << readFile(out);
  }
  // The messages delivered once `count` have arrived (or after 10 s), by envelope; taken
  // out of the maildir.
  std::vector<std::string> arrived(size_t count) {
    std::vector<std::string> names, messages;
    for (int i = 0; i < 500 && (names = filesIn(dir + "/mail/new", "1")).size() < count; i++)
      usleep(20000);
    for (const std::string &n : names)
      messages.push_back(readFile(dir + "/mail/new/" + n)), unlink((dir + "/mail/new/" + n).c_str());
    auto envelope = [](const std::string &m) { return m.substr(m.find("Envelope-to:")); };
    std::sort(messages.begin(), messages.end(),
              [&](auto &a, auto &b) { return envelope(a) < envelope(b); });
    return messages;
  }
  // Anna and carl each got one message from anna holding these parts.
  void expectBoth(const std::vector<std::string> &got, const std::string &head,
                  const std::string &body) {
    ASSERT_EQ(got.size(), 2u) << readFile(dir + "/mainlog");
    for (const std::string to : {"anna@quorvel.test", "carl@quorvel.test"}) {
      const std::string &m = got[to[0] == 'c'];
      EXPECT_TRUE(has(m, "Envelope-to: " + to + "\n") && has(m, "Return-path: <anna@quorvel.test>\n") &&
                  has(m, std::regex_replace(head, std::regex("<to>"), to)) && has(m, body)) << m;
    }
  }
};

TEST_F(DeliveryTest, NoticesReachEximThroughItsSendmailAndThroughSmtpOnLoopback) {
  MailSettings s = mailer(std::string(EXIM) + " -C " + conf + " -odi", false);
  s.mailerArg = "-oi";
  setMailSettings(s);
  main->standalone = true;  // so the sender goes to the mailer with -f
  item->dWord = KIND_TODO;
  writeFile("mailmsg", "NewTodoSubject: New to-do: ${title}\nNewTodoBody: From ${sender}:\n"
                       " ${description}\n .on a line of its own\n");
  ASSERT_EQ(send({0, 2}, 1, "anna", 0, juneFifth(9, 0), "Buy plates").rc, 0);
  expectBoth(arrived(2), "To: anna@quorvel.test carl@quorvel.test\nSubject: New to-do: Lunch\n",
             "\n\nFrom anna:\nBuy plates\n.on a line of its own\n");
  // The command removes its scratch message after the mailer.
  for (int i = 0; i < 250 && !scratchesHolding("T", "Buy plates").empty(); i++) usleep(20000);
  EXPECT_TRUE(scratchesHolding("T", "Buy plates").empty());

  // Direct delivery speaks SMTP to the relay for each address.
  startDaemon();
  if (IsSkipped() || HasFatalFailure()) return;
  s = mailer("RFC821", true);  // trace, argument, separator: shell only
  s.relayPort = port, s.relayTimeoutMs = 10000, s.mailerArg = "-x", s.separator = ",";
  setMailSettings(s);
  item->dWord = KIND_EVENT;
  Sent sent = send({0, 2, 4}, 3, "anna@quorvel.test", 0, juneFifth(12, 30),
                   "Agenda\n.\n..two dots\r\nend");
  EXPECT_EQ(sent.rc, MAIL_REFUSED);  // refused@ is turned away; the others still go
  EXPECT_TRUE(has(sent.err, "deliverRfc821: RCPT TO:<refused@quorvel.test> answered \"550"))
      << sent.err;
  expectBoth(arrived(2), "From: anna@quorvel.test\nTo: <to>\nSubject: Meeting deleted\n",
             "\n\nThe following event has been deleted (originally scheduled for\n"
             "12:30 pm, June 05, 2026):\n\n\tAgenda\n.\n..two dots\nend\n");
  // Without a sender the envelope carries the null sender and there is no "From:".
  EXPECT_EQ(send({3}, 1, "anna@quorvel.test", -1).rc, 0);
  std::vector<std::string> got = arrived(1);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_TRUE(has(got[0], "Return-path: <>\n") && !has(got[0], "From: anna")) << got[0];
}

TEST_F(NoticeTest, DirectDeliveryFailsCleanlyWithoutAWorkingRelay) {
  MailSettings s = mailer("RFC821");
  s.relayTimeoutMs = 200;
  int silent, closed;
  int fd = loopbackSocket(&silent, true);  // listens, never answers
  close(loopbackSocket(&closed, false));
  struct Row {
    const char *host, *address;
    int port, rc;
    const char *err;
  } rows[] = {
      {"127.0.0.1", "a@b", silent, MAIL_TIMEOUT, "no answer to greeting: timed out"},
      {"127.0.0.1", "a@b", closed, ECONNREFUSED, "cannot connect to 127.0.0.1: Connection refused"},
      {"localhost", "a@b", 25, MAIL_BAD_ADDRESS, "bad relay address localhost"},
      {"127.0.0.1", "a@b>\r\nDATA", 25, MAIL_BAD_ADDRESS, "unfit address \"a@b>\r\nDATA\""},
  };
  for (const Row &r : rows) {
    s.relayHost = r.host, s.relayPort = r.port;
    setMailSettings(s);
    testing::internal::CaptureStderr();
    EXPECT_EQ(deliverRfc821(r.address, "anna", "subject", "body"), r.rc) << r.err;
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "deliverRfc821: " + std::string(r.err) + "\n");
  }
  close(fd);
}
