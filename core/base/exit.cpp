// exit.cpp -- the normal exit path: registered clean-ups (held lock, address-book
// lock, ...) run before the process ends, whichever road led out.
#include "core/base/base.h"

#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace quorvel {

void resetReports();  // report.cpp
void resetRoot();     // root.cpp

static std::vector<Cleanup> cleanups;  // registered by the modules that hold resources
static bool exiting;                   // set once the exit path has begun

// Names the signal road unlinks. A slot's bytes are written while its flag is 0 and
// the flag set after, so a handler never reads a half-written name.
static char signalNames[SIGNAL_NAME_SLOTS][SIGNAL_NAME_MAX];  // set by holdNameForSignal
static volatile sig_atomic_t signalNameSet[SIGNAL_NAME_SLOTS];  // read by exitOnSignal

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

int holdNameForSignal(const char *path) {
  size_t len = strlen(path);
  if (len >= SIGNAL_NAME_MAX) return -1;
  for (int i = 0; i < SIGNAL_NAME_SLOTS; i++) {
    if (signalNameSet[i]) continue;
    memcpy(signalNames[i], path, len + 1);
    signalNameSet[i] = 1;
    return i;
  }
  return -1;
}

void releaseNameForSignal(int slot) {
  if (slot >= 0 && slot < SIGNAL_NAME_SLOTS) signalNameSet[slot] = 0;
}

void exitOnSignal(int status) {
  for (int i = 0; i < SIGNAL_NAME_SLOTS; i++)
    if (signalNameSet[i]) unlink(signalNames[i]);  // (unlink and _exit are signal-safe)
  _exit(status);
}

void resetBase() {
  for (int i = 0; i < SIGNAL_NAME_SLOTS; i++) signalNameSet[i] = 0;
  cleanups.clear();
  exiting = false;
  setPauseHook(nullptr);
  setClockHook(nullptr);
  resetReports();
  resetRoot();
}

}  // namespace quorvel
