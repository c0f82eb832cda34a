// Tests of the users of server-attached contexts, against the fake calendar server on
// loopback: the request sent, how the server's answer marks a change, and who hears it.
#include "core/people/people_test_util.h"

#include "core/net/link.h"
#include "core/net/remote.h"
#include "testing/calserver.h"

using namespace quorvel;

namespace {

std::vector<std::pair<DbHandle *, DbHandle *>> effects;  // (main, ctx) of each change
void recordEffect(DbHandle *m, DbHandle *ctx) { effects.emplace_back(m, ctx); }
void quietLoss(const char *) {}

class RemoteUsersTest : public PeopleTest {
 protected:
  CalServer server;
  DbHandle *remote = nullptr;  // a server-attached context

  void SetUp() override {
    PeopleTest::SetUp();
    resetLink();
    setPauseHook(noPause);
    setLinkMessageHook(quietLoss);
    effects.clear();
    setUserChangeHook(recordEffect);
    ASSERT_EQ(startCalServer(&server), 0);
    remote = makeContext("srv", DB_KIND_NONE);
    remote->server = attach();
  }
  void TearDown() override {
    for (DbHandle *db : others) {
      freeServerLink(db->server);
      db->server = nullptr;
    }
    stopCalServer(&server);
    resetLink();
    PeopleTest::TearDown();
  }
  ServerLink *attach() {
    ServerLink *l = newServerLink(calAddress(&server).c_str());
    l->waitMs = 3000;
    return l;
  }
  // A normal RemGetUsers answer: a field of `kind`, then the number.
  void answer(int kind, int32_t value) {
    calScript(&server, {calReply({calBytes(kind, "users"), calNumber(value)})});
  }
};

}  // namespace

TEST_F(RemoteUsersTest, ReadingAServerContextAsksTheServerInsteadOfTheFile) {
  writeAt("db/remoteUsers/srv", "never,read\n", 100);
  setOwnCalendar(-1);
  setViewedCalendar(-1);
  remote->server->serverValue = 4;
  remote->changed = true;
  answer(2, 9);
  int changed = -1;
  EXPECT_EQ(readUsersFile(remote, &changed), calendarInView());
  EXPECT_EQ(changed, 1);
  EXPECT_TRUE(remote->changed);
  EXPECT_EQ(remote->server->serverValue, 9);
  EXPECT_EQ(remote->users, nullptr);  // nothing was read from the file
  ASSERT_EQ(effects.size(), 1u);
  EXPECT_EQ(effects[0].first, main);
  EXPECT_EQ(effects[0].second, remote);
  std::vector<CalRequest> got = calRequests(&server);
  ASSERT_FALSE(got.empty());
  EXPECT_EQ(got.back().code, 104);
  ASSERT_EQ(got.back().fields.size(), 2u);
  EXPECT_EQ(calFieldNumber(got.back().fields[0]), 4);  // the server value first
  EXPECT_TRUE(got.back().fields[1].payload.empty());   // no calendar name
  // The same value again: no change, and the changed mark is cleared.
  answer(2, 9);
  EXPECT_EQ(readUsersFile(remote, &changed), calendarInView());
  EXPECT_EQ(changed, 0);
  EXPECT_FALSE(remote->changed);
  // A kind-8 answer never marks a change.
  answer(8, 77);
  readUsersFile(remote, &changed);
  EXPECT_EQ(changed, 0);
  EXPECT_EQ(remote->server->serverValue, 9);
  EXPECT_EQ(effects.size(), 1u);
}

TEST_F(RemoteUsersTest, AMainContextOfKindOneHearsNoChange) {
  main->kind = DB_KIND_LOCAL;
  answer(2, 5);
  int changed;
  readUsersFile(remote, &changed);
  EXPECT_EQ(changed, 1);
  EXPECT_TRUE(effects.empty());
}

TEST_F(RemoteUsersTest, RefreshNamesACalendarWhoseOwnConnectionTakesTheAnswer) {
  int changed = -1;
  DbHandle *local = makeContext("plain", DB_KIND_NONE);
  EXPECT_EQ(refreshRemoteUsers(local, &changed, nullptr), -1);
  EXPECT_EQ(changed, 0);
  DbHandle *anna = makeContext("anna", DB_KIND_NONE);
  anna->server = attach();
  anna->server->serverValue = 3;
  remote->server->serverValue = 1;
  answer(2, 8);
  EXPECT_EQ(refreshRemoteUsers(remote, &changed, "anna"), 0);
  EXPECT_EQ(changed, 1);
  EXPECT_EQ(anna->server->serverValue, 8);
  EXPECT_EQ(remote->server->serverValue, 1);  // the asking link keeps its own value
  ASSERT_EQ(effects.size(), 1u);
  EXPECT_EQ(effects[0].second, anna);
  EXPECT_EQ(calFieldText(calRequests(&server).back().fields[1]), "anna");
  // A name without a context of its own: the answer lands on the asking link.
  answer(2, 6);
  EXPECT_EQ(refreshRemoteUsers(remote, &changed, "stranger"), 0);
  EXPECT_EQ(changed, 1);
  EXPECT_EQ(remote->server->serverValue, 6);
  EXPECT_EQ(effects.back().second, remote);
}

TEST_F(RemoteUsersTest, AMalformedAnswerFailsWithoutAChange) {
  calScript(&server, {calReply({calNumber(1)})});
  int changed = -1;
  testing::internal::CaptureStderr();
  EXPECT_EQ(refreshRemoteUsers(remote, &changed, nullptr), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "RemGetUsers: bad reply\n");
  EXPECT_EQ(changed, 0);
  EXPECT_TRUE(effects.empty());
  // A context of kind 1 with a connection is local: its file is read.
  remote->kind = DB_KIND_LOCAL;
  writeAt("db/remoteUsers/srv", "filed,x\n", 100);
  readUsersFile(remote, &changed);
  ASSERT_NE(remote->users, nullptr);
  EXPECT_STREQ(remote->users->entries[0].name, "filed");
}
