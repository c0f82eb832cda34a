// exit.cpp -- the normal exit path: registered clean-ups (held lock, address-book
// lock, ...) run before the process ends, whichever road led out.
#include "core/base/base.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace quorvel {

void resetReports();  // report.cpp
void resetRoot();     // root.cpp

static std::vector<Cleanup> cleanups;  // registered by the modules that hold resources
static bool exiting;                   // set once the exit path has begun

void registerCleanup(Cleanup fn) {
  for (Cleanup c : cleanups)
    if (c == fn) return;  // registering twice must not run it twice
  cleanups.push_back(fn);
}

void exitProcess(int status) {
  if (!exiting) {
    exiting = true;
    while (!cleanups.empty()) {
      Cleanup fn = cleanups.back();
      cleanups.pop_back();
      fn();
    }
  }
  fflush(nullptr);
  exit(status);
}

void resetBase() {
  cleanups.clear();
  exiting = false;
  setPauseHook(nullptr);
  setClockHook(nullptr);
  resetReports();
  resetRoot();
}

}  // namespace quorvel
