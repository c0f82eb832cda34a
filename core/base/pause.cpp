// pause.cpp -- the one place the product sleeps, and the clock beside it.
#include "core/base/base.h"

#include <cerrno>
#include <ctime>

namespace quorvel {

static PauseHook pauseHook;  // installed by tests; null means sleep for real
static ClockHook clockHook;  // installed by tests; null means time()

void pauseSeconds(unsigned seconds) {
  if (pauseHook) {
    pauseHook(seconds);
    return;
  }
  timespec left{static_cast<time_t>(seconds), 0};
  while (nanosleep(&left, &left) == -1 && errno == EINTR) {
  }
}

PauseHook setPauseHook(PauseHook hook) {
  PauseHook old = pauseHook;
  pauseHook = hook;
  return old;
}

time_t currentTime() { return clockHook ? clockHook() : time(nullptr); }

ClockHook setClockHook(ClockHook hook) {
  ClockHook old = clockHook;
  clockHook = hook;
  return old;
}

}  // namespace quorvel
