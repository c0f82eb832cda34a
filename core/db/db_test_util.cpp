// db_test_util.cpp -- temporary directories, file helpers, stderr capture and the
// recording pause used by the database layer's tests.
#include "core/db/db_test_util.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "core/base/base.h"
#include "core/db/context.h"
#include "core/db/layout.h"
#include "core/db/lock.h"
#include "core/db/retry.h"

namespace quorvel {

static std::vector<unsigned> pauses;

TempDir::TempDir() {
  char tmpl[] = "/tmp/qvdbXXXXXX";
  if (mkdtemp(tmpl) == nullptr) throw std::runtime_error("mkdtemp failed");
  path = tmpl;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path, ec);
}

void writeFile(const std::string &path, const std::string &text) {
  std::ofstream(path, std::ios::binary) << text;
}

std::string readFile(const std::string &path) {
  std::ostringstream s;
  s << std::ifstream(path, std::ios::binary).rdbuf();
  return s.str();
}

bool exists(const std::string &path) {
  std::error_code ec;
  return std::filesystem::exists(path, ec);
}

std::string stderrOf(const std::function<void()> &fn) {
  ::testing::internal::CaptureStderr();
  fn();
  return ::testing::internal::GetCapturedStderr();
}

std::vector<unsigned> &recordedPauses() { return pauses; }

void resetDbTestState() {
  resetBase();
  resetDbContexts();
  resetLayout();
  resetRetryState();
  resetLockState();
  pauses.clear();
  setPauseHook([](unsigned s) { pauses.push_back(s); });
}

}  // namespace quorvel
