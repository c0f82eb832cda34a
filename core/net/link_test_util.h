// link_test_util.h -- the fixture shared by the link and remote-call tests: a fake
// calendar server, a link to it, and what the pause, message and refresh hooks saw.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/base/base.h"
#include "core/net/link.h"
#include "testing/calserver.h"

namespace quorvel {
namespace {

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;
using Pauses = std::vector<unsigned>;

Pauses pauses;                   // seconds the product asked to sleep
std::vector<std::string> shown;  // texts of the client's message display
int refreshes;                   // runs of the refresh routine after a 218 reply

// A request as one line: its code, then its fields (numbers in decimal, texts quoted,
// kinds that are letters as the letter, other kinds as <kind>), marked when malformed.
std::string render(const CalRequest &r) {
  std::string out = std::to_string(r.code) + (r.wellFormed ? "" : " (malformed)");
  for (const CalField &f : r.fields)
    out += f.kind == FIELD_NUMBER ? " " + std::to_string(calFieldNumber(f))
           : f.kind == FIELD_TEXT ? " '" + calFieldText(f) + "'"
           : f.kind >= 'A'        ? std::string(" ") + char(f.kind)
                                  : " <" + std::to_string(f.kind) + ">";
  return out;
}

// A reply (code `code`, or request code + 100) whose header carries the version and magic.
CalStep headed(int major, int minor, uint32_t magic = MSG_MAGIC, int code = 0) {
  CalStep step = calReply({}, code);
  step.major = major, step.minor = minor, step.magic = magic;
  return step;
}

class ServerFixture : public ::testing::Test {
 protected:
  CalServer server;
  ServerLink *link = nullptr;
  void SetUp() override {
    pauses.clear(), shown.clear(), refreshes = 0;
    resetLink();
    setPauseHook([](unsigned s) { pauses.push_back(s); });
    setLinkMessageHook([](const char *text) { shown.push_back(text); });
    setLinkRefreshHook([](ServerLink *) { refreshes++; });
    ASSERT_EQ(startCalServer(&server), 0);
    link = newServerLink(calAddress(&server).c_str());
    link->waitMs = 3000;
  }
  void TearDown() override { freeServerLink(link), stopCalServer(&server), resetLink(), setPauseHook(nullptr); }
  CalRequest last() { return calRequests(&server).back(); }
};

}  // namespace
}  // namespace quorvel
