// Server-attached contexts' users against the fake calendar server: who is asked and told.
#include "core/people/people_test_util.h"
#include "core/net/link.h"
#include "testing/calserver.h"
using namespace quorvel;

static std::vector<DbHandle *> effects;  // the context of each change carried out

class RemoteUsersTest : public PeopleTest {
 protected:
  CalServer server;
  DbHandle *remote = nullptr;  // a server-attached context, server value 4
  void SetUp() override {
    PeopleTest::SetUp();
    setLinkMessageHook([](const char *) {});  // link losses are expected here
    effects.clear();
    setUserChangeHook([](DbHandle *m, DbHandle *c) { effects.push_back(m == mainDb() ? c : 0); });
    ASSERT_EQ(startCalServer(&server), 0);
    remote = attach("srv", 4);
  }
  void TearDown() override {
    for (DbHandle *db : others) freeServerLink(db->server), db->server = nullptr;
    stopCalServer(&server), resetLink();
    PeopleTest::TearDown();
  }
  DbHandle *attach(const char *node, int32_t value) {
    DbHandle *db = makeContext(node, DB_KIND_NONE);
    db->server = newServerLink(calAddress(&server).c_str());
    db->server->waitMs = 3000, db->server->serverValue = value;
    return db;
  }
  // Scripts a RemGetUsers answer (a field of `kind`, then the number) and refreshes.
  int ask(DbHandle *ctx, const char *name, int kind, int32_t value) {
    calScript(&server, {calReply({calBytes(kind, "users"), calNumber(value)})});
    return name ? refreshRemoteUsers(ctx, &changed, name) : readUsersFile(ctx, &changed);
  }
};

TEST_F(RemoteUsersTest, AsksTheServerInsteadOfTheFileAndMarksTheAnsweringContext) {
  EXPECT_EQ(refreshRemoteUsers(makeContext("plain", DB_KIND_NONE), &changed, nullptr), -1);
  EXPECT_EQ(changed, 0);  // a context without a connection is not asked
  writeAt("db/remoteUsers/srv", "never,read\n", 100);
  setViewedCalendar(0);  // the result is the calendar in view, not the own one
  remote->changed = true;
  EXPECT_EQ(ask(remote, nullptr, 2, 9), 0);
  EXPECT_TRUE(changed == 1 && remote->changed && remote->server->serverValue == 9);
  EXPECT_EQ(remote->users, nullptr);  // the file was not read
  EXPECT_EQ(effects, std::vector<DbHandle *>{remote});
  EXPECT_TRUE(calRequests(&server).back().fields.at(1).payload.empty());  // no name
  ask(remote, nullptr, 2, 9);  // the same value again: no change, the mark is cleared
  EXPECT_TRUE(changed == 0 && !remote->changed);
  remote->changed = true;
  ask(remote, nullptr, 8, 77);  // a kind-8 answer never marks a change
  EXPECT_TRUE(changed == 0 && !remote->changed && remote->server->serverValue == 9);
  // A refresh naming a calendar whose context has its own connection: that one answers.
  DbHandle *anna = attach("anna", 3);
  EXPECT_EQ(ask(remote, "anna", 2, 8), 0);
  EXPECT_TRUE(changed == 1 && anna->changed && anna->server->serverValue == 8);
  EXPECT_EQ(remote->server->serverValue, 9);  // the asking link keeps its own value
  EXPECT_EQ(calFieldText(calRequests(&server).back().fields[1]), "anna");
  EXPECT_EQ(ask(remote, "anna", 2, 8), 0);  // an equal answer clears anna's mark
  EXPECT_TRUE(changed == 0 && !anna->changed);
  ask(remote, "stranger", 2, 6);  // a name without a context: the asking link answers
  EXPECT_EQ(remote->server->serverValue, 6);
  EXPECT_EQ(effects, (std::vector<DbHandle *>{remote, anna, remote}));
  main->kind = DB_KIND_LOCAL;  // a main context of kind 1 carries no change
  ask(remote, nullptr, 2, 5);
  EXPECT_TRUE(changed == 1 && effects.size() == 3);
}

TEST_F(RemoteUsersTest, AMalformedAnswerFailsWithoutAChange) {
  calScript(&server, {calReply({calNumber(1)})});
  testing::internal::CaptureStderr();
  EXPECT_EQ(refreshRemoteUsers(remote, &changed, nullptr), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "RemGetUsers: bad reply\n");
  EXPECT_TRUE(changed == 0 && effects.empty());
  remote->kind = DB_KIND_LOCAL;  // kind 1 with a connection is local: its file is read
  writeAt("db/remoteUsers/srv", "filed,x\n", 100);
  readUsersFile(remote, &changed);
  EXPECT_STREQ(remote->users ? remote->users->entries[0].name : nullptr, "filed");
}
