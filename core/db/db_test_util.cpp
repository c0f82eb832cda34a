#include "core/db/db_test_util.h"

namespace quorvel {
static std::vector<unsigned> pauses;
std::vector<unsigned> &recordedPauses() { return pauses; }
void resetDbTestState() {
  resetBase(), resetDbContexts(), resetLayout(), resetRetryState(), resetLockState();
  pauses.clear();
  setPauseHook([](unsigned s) { pauses.push_back(s); });
}
}  // namespace quorvel
