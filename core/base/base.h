// base.h -- the bottom layer every other module stands on.
//
// It owns: the allocation routine and its out-of-memory report, the warning / fatal /
// log reports, roundUp and NO_TIME, the pause routine every sleep of the product goes
// through (and the clock next to it), and the normal exit path with its registered
// clean-ups. Results follow the core's rule: 0 success, small negatives our own
// failures, positive errno passed up.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

namespace quorvel {

/* ---- Shared values ------------------------------------------------------------ */

// The no-time value of every time field, file time and change count. It never equals
// a real time; callers test for it explicitly.
inline constexpr int32_t NO_TIME = INT32_MIN;  // 0x80000000

// n rounded up to a multiple of m; an exact multiple is left unchanged.
constexpr long roundUp(long n, long m) { return n % m == 0 ? n : n + m - n % m; }

// Both wires carry 32-bit big-endian integers at any byte offset.
inline void putWord32(void *at, uint32_t v) {
  unsigned char *p = static_cast<unsigned char *>(at);
  p[0] = static_cast<unsigned char>(v >> 24), p[1] = static_cast<unsigned char>(v >> 16);
  p[2] = static_cast<unsigned char>(v >> 8), p[3] = static_cast<unsigned char>(v);
}
inline uint32_t getWord32(const void *at) {
  const unsigned char *p = static_cast<const unsigned char *>(at);
  return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

/* ---- Allocation --------------------------------------------------------------- */

// Reallocates `old` to `size` bytes when given a block, allocates afresh otherwise.
// Returns null on failure; callers that test the result call outOfMem.
void *allocMem(void *old, size_t size);
void freeMem(void *block);

// Prints "OutOfMem: called from <caller>()" and leaves through the exit path.
[[noreturn]] void outOfMem(const char *caller);

/* ---- Reports ------------------------------------------------------------------ */

// Each prints one diagnostic on standard error, formatted printf-style; a line end is
// added when the text has none. fatal then leaves through the exit path with status 1.
void warning(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
[[noreturn]] void fatal(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void logMsg(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// The number of warnings and fatal reports made so far (tests read it).
int reportCount();

/* ---- Pause and clock ---------------------------------------------------------- */

// Sleeps n whole seconds (restarting after signals). Every sleep of the product comes
// through here, so that a test can install a fake that records the seconds and returns.
void pauseSeconds(unsigned seconds);

using PauseHook = void (*)(unsigned seconds);
PauseHook setPauseHook(PauseHook hook);  // returns the previous hook; null = real sleep

// The current time in seconds, from time() unless a test has installed a clock.
time_t currentTime();
using ClockHook = time_t (*)();
ClockHook setClockHook(ClockHook hook);

/* ---- Installation root ------------------------------------------------------ */

// The installation root holding "db/": the value of QUORVELPATH, or null when unset or
// empty. Read once and kept; the database layout and the catalogue both resolve their
// relative paths against it. resetBase makes the next call read the environment again.
const char *installRoot();

/* ---- Exit path ---------------------------------------------------------------- */

// Clean-ups run in reverse order of registration when the process leaves through
// exitProcess (fatal errors and the signal handlers included). A clean-up may itself
// report; a second exitProcess from inside a clean-up exits at once.
using Cleanup = void (*)();
void registerCleanup(Cleanup fn);
[[noreturn]] void exitProcess(int status);

// The signal road out. A handler may interrupt malloc or stdio, so it must not run the
// clean-ups above: a module that holds a file to be removed on exit (a lock) records
// its name here when it takes it and lets go of it when it removes the file itself.
// exitOnSignal unlinks the recorded names and calls _exit: only async-signal-safe steps.
// holdNameForSignal returns a slot number, or -1 when the name is too long or every
// slot is taken (the file is then removed by the normal exit path only).
inline constexpr int SIGNAL_NAME_SLOTS = 4;
inline constexpr size_t SIGNAL_NAME_MAX = 4096;  // bytes, the terminating NUL included
int holdNameForSignal(const char *path);
void releaseNameForSignal(int slot);
[[noreturn]] void exitOnSignal(int status);

// Forget every hook, clean-up and name held for the signal road (tests).
void resetBase();

}  // namespace quorvel
