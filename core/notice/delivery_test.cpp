// Mail notices through real parts: exim's sendmail interface behind the shell delivery,
// and exim listening on a loopback port for the direct SMTP delivery. Each test writes
// its own exim configuration (spool, logs and a maildir in a temporary tree) and starts
// exim itself; the messages that arrive in the maildir are checked.
#include "core/notice/mail_test_util.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <pwd.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <algorithm>
using namespace quorvel;

static const char *const EXIM = "/usr/sbin/exim4";

// A loopback port nobody listens on (bound, read, released).
static int freePort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in sa{};
  sa.sin_family = AF_INET, sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof sa;
  bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa);
  getsockname(fd, reinterpret_cast<sockaddr *>(&sa), &len);
  close(fd);
  return ntohs(sa.sin_port);
}

static bool canConnect(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in sa{};
  sa.sin_family = AF_INET, sa.sin_port = htons(static_cast<uint16_t>(port));
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0;
  close(fd);
  return ok;
}

class DeliveryTest : public MailTest {
 protected:
  std::string dir, conf;  // exim's tree and configuration file
  int port = 0;
  pid_t daemon = -1;

  void SetUp() override {
    MailTest::SetUp();
    if (access(EXIM, X_OK) != 0) GTEST_SKIP() << "exim4 is missing: run scripts/setup.sh";
    dir = root + "/exim", conf = dir + "/exim.conf", port = freePort();
    for (const char *sub : {"", "/spool", "/mail"}) {
      mkdir((dir + sub).c_str(), 0777);
      chmod((dir + sub).c_str(), 0777);  // exim works as its own user below the tree
    }
    chmod(root.c_str(), 0755);
    writeConfig();
    addCalendarName(nullptr, "refused", "", "refused@quorvel.test", "");  // index 4
  }
  void TearDown() override {
    if (daemon > 0) kill(daemon, SIGTERM), waitpid(daemon, nullptr, 0);
    MailTest::TearDown();
  }
  // Root runs exim's work as nobody (exim never delivers as root); anyone else as self.
  void writeConfig() {
    bool asRoot = geteuid() == 0;
    std::string user = asRoot ? "nobody" : getpwuid(geteuid())->pw_name;
    std::string group = asRoot ? "nogroup" : getgrgid(getegid())->gr_name;
    std::ofstream(conf) << "primary_hostname = quorvel.test\n"
                        << "spool_directory = " << dir << "/spool\n"
                        << "log_file_path = " << dir << "/%slog\n"
                        << "exim_user = " << user << "\nexim_group = " << group << "\n"
                        << "trusted_users = root : " << user << "\n"
                        << "never_users =\nkeep_environment =\ntls_advertise_hosts =\n"
                        << "local_interfaces = <; 127.0.0.1\n"
                        << "daemon_smtp_ports = " << port << "\n"
                        << "acl_smtp_rcpt = check_rcpt\n"
                        << "begin acl\ncheck_rcpt:\n  deny local_parts = refused\n  accept\n"
                        << "begin routers\nall:\n  driver = accept\n  transport = store\n"
                        << "begin transports\nstore:\n  driver = appendfile\n"
                        << "  directory = " << dir << "/mail\n  maildir_format\n"
                        << "  create_directory\n  envelope_to_add\n  return_path_add\n"
                        << "  user = " << user << "\n  group = " << group << "\n";
  }
  void startDaemon() {
    std::string portText = std::to_string(port);
    const char *argv[] = {EXIM, "-C", conf.c_str(), "-bdf", "-oX", portText.c_str(), nullptr};
    posix_spawn_file_actions_t out;  // the daemon's chatter goes to a file of its tree
    posix_spawn_file_actions_init(&out);
    posix_spawn_file_actions_addopen(&out, 1, (dir + "/daemon.out").c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&out, 1, 2);
    int rc = posix_spawn(&daemon, EXIM, &out, nullptr, const_cast<char **>(argv), environ);
    posix_spawn_file_actions_destroy(&out);
    ASSERT_EQ(rc, 0);
    for (int i = 0; i < 500 && !canConnect(port); i++) {
      if (waitpid(daemon, nullptr, WNOHANG) == daemon) {
        daemon = -1;
        GTEST_SKIP() << "exim could not listen on a loopback port here: "
                     << readFile(dir + "/daemon.out") << readFile(dir + "/paniclog");
      }
      usleep(20000);
    }
    ASSERT_TRUE(canConnect(port)) << readFile(dir + "/mainlog");
  }
  // The messages delivered so far, once `count` have arrived (or after 10 seconds),
  // ordered by their Envelope-to line.
  std::vector<std::string> arrived(size_t count) {
    std::vector<std::string> names;
    for (int i = 0; i < 500 && (names = filesIn(dir + "/mail/new", "")).size() < count + 2; i++)
      usleep(20000);
    std::vector<std::string> messages;
    for (const std::string &n : names)
      if (n[0] != '.') messages.push_back(readFile(dir + "/mail/new/" + n));
    auto envelope = [](const std::string &m) { return m.substr(m.find("Envelope-to:")); };
    std::sort(messages.begin(), messages.end(),
              [&](auto &a, auto &b) { return envelope(a) < envelope(b); });
    return messages;
  }
  static bool has(const std::string &message, const std::string &text) {
    return message.find(text) != std::string::npos;
  }
};

TEST_F(DeliveryTest, ShellDeliveryHandsTheMessageToEximsSendmail) {
  MailSettings s = mailer(std::string(EXIM) + " -C " + conf + " -odi", false);
  s.mailerArg = "-oi";
  setMailSettings(s);
  main->standalone = true;  // so the sender goes to the mailer with -f
  item->dWord = KIND_TODO;
  writeFile("mailmsg", "NewTodoSubject: New to-do: ${title}\nNewTodoBody: From ${sender}:\n"
                       " ${description}\n .on a line of its own\n");
  Sent sent = send({0, 2}, 1, "anna", 0, juneFifth(9, 0), "Buy plates");
  ASSERT_EQ(sent.rc, 0);
  std::vector<std::string> got = arrived(2);
  ASSERT_EQ(got.size(), 2u) << readFile(dir + "/mainlog");
  const char *to[] = {"anna@quorvel.test", "carl@quorvel.test"};
  for (int i = 0; i < 2; i++) {
    EXPECT_TRUE(has(got[i], std::string("Envelope-to: ") + to[i] + "\n")) << got[i];
    EXPECT_TRUE(has(got[i], "Return-path: <anna@quorvel.test>\n")) << got[i];
    EXPECT_TRUE(has(got[i], "To: anna@quorvel.test carl@quorvel.test\n")) << got[i];
    EXPECT_TRUE(has(got[i], "Subject: New to-do: Lunch\n")) << got[i];
    EXPECT_TRUE(has(got[i], "\n\nFrom anna:\nBuy plates\n.on a line of its own\n")) << got[i];
  }
  // The command removes its scratch message once the mailer is done.
  auto leftOver = [] {
    for (const std::string &n : filesIn("/tmp", "T"))
      if (n.size() > 4 && n.substr(n.size() - 4) == ".qvl" &&
          has(readFile("/tmp/" + n), "Buy plates"))
        return true;
    return false;
  };
  for (int i = 0; i < 250 && leftOver(); i++) usleep(20000);
  EXPECT_FALSE(leftOver());
}

TEST_F(DeliveryTest, DirectDeliverySpeaksSmtpToTheRelayForEachAddress) {
  startDaemon();
  if (IsSkipped() || HasFatalFailure()) return;
  MailSettings s = mailer("RFC821", true);  // the trace switch is for the shell only
  s.relayPort = port, s.relayTimeoutMs = 10000;
  s.mailerArg = "-never-used", s.separator = ",";  // neither applies to direct delivery
  setMailSettings(s);
  Sent sent = send({0, 2, 4}, 3, "anna@quorvel.test", 0, juneFifth(12, 30),
                   "Agenda\n.\n..two dots\r\nend");
  EXPECT_EQ(sent.rc, MAIL_REFUSED);  // refused@ is turned away; the others still go
  EXPECT_TRUE(has(sent.err, "deliverRfc821: RCPT TO:<refused@quorvel.test> answered \"550"))
      << sent.err;
  std::vector<std::string> got = arrived(2);
  ASSERT_EQ(got.size(), 2u) << readFile(dir + "/mainlog");
  const char *to[] = {"anna@quorvel.test", "carl@quorvel.test"};
  for (int i = 0; i < 2; i++) {
    EXPECT_TRUE(has(got[i], std::string("Envelope-to: ") + to[i] + "\n")) << got[i];
    EXPECT_TRUE(has(got[i], "Return-path: <anna@quorvel.test>\n")) << got[i];
    EXPECT_TRUE(has(got[i], "From: anna@quorvel.test\nTo: " + std::string(to[i]) +
                                "\nSubject: Meeting deleted\n")) << got[i];
    EXPECT_TRUE(has(got[i], "\n\nThe following event has been deleted (originally scheduled"
                            " for\n12:30 pm, June 05, 2026):\n\n\tAgenda\n.\n..two dots\nend\n"))
        << got[i];
  }
  // Without a sender the envelope carries the null sender and no "From:" line is made.
  Sent anonymous = send({2}, 1, "anna@quorvel.test", -1);
  EXPECT_EQ(anonymous.rc, 0) << anonymous.err;
  got = arrived(3);
  ASSERT_EQ(got.size(), 3u);
  std::string last = has(got[1], "Meeting scheduled") ? got[1] : got[2];
  EXPECT_TRUE(has(last, "Return-path: <>\n") && !has(last, "From: anna")) << last;
}

TEST_F(MailTest, DirectDeliveryFailsCleanlyWithoutAWorkingRelay) {
  MailSettings s = mailer("RFC821");
  s.relayTimeoutMs = 200;
  int silent = socket(AF_INET, SOCK_STREAM, 0);  // listens, never answers
  sockaddr_in sa{};
  sa.sin_family = AF_INET, sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof sa;
  ASSERT_EQ(bind(silent, reinterpret_cast<sockaddr *>(&sa), sizeof sa), 0);
  listen(silent, 4);
  getsockname(silent, reinterpret_cast<sockaddr *>(&sa), &len);
  struct Row {
    const char *host;
    int port;
    const char *address;
    int rc;
    const char *err;
  } rows[] = {
      {"127.0.0.1", ntohs(sa.sin_port), "a@b", MAIL_TIMEOUT,
       "deliverRfc821: no answer to greeting: timed out\n"},
      {"127.0.0.1", freePort(), "a@b", ECONNREFUSED,
       "deliverRfc821: cannot connect to 127.0.0.1: Connection refused\n"},
      {"localhost", 25, "a@b", MAIL_BAD_ADDRESS, "deliverRfc821: bad relay address localhost\n"},
      {"127.0.0.1", 0, "a@b", MAIL_BAD_ADDRESS, "deliverRfc821: bad relay address 127.0.0.1\n"},
      {"127.0.0.1", 25, "a@b>\r\nDATA", MAIL_BAD_ADDRESS,
       "deliverRfc821: unfit address \"a@b>\r\nDATA\"\n"},
  };
  for (const Row &r : rows) {
    s.relayHost = r.host, s.relayPort = r.port;
    setMailSettings(s);
    testing::internal::CaptureStderr();
    EXPECT_EQ(deliverRfc821(r.address, "anna", "subject", "body"), r.rc) << r.host;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), r.err);
  }
  close(silent);
}
