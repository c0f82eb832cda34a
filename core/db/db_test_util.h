// db_test_util.h -- helpers shared by the database layer's tests: a temporary directory
// that removes itself, small file helpers, stderr capture, and a fresh process state
// with a recording pause (so no test really sleeps).
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace quorvel {

struct TempDir {
  std::string path;  // made by mkdtemp below /tmp
  TempDir();
  ~TempDir();
  std::string at(const std::string &name) const { return path + "/" + name; }
};

void writeFile(const std::string &path, const std::string &text);
std::string readFile(const std::string &path);
bool exists(const std::string &path);
std::string stderrOf(const std::function<void()> &fn);  // what fn printed on stderr

// The seconds every pauseSeconds call asked for since the last resetDbTestState.
std::vector<unsigned> &recordedPauses();

// Resets base, contexts, layout, retry and lock state; installs the recording pause.
void resetDbTestState();

}  // namespace quorvel
