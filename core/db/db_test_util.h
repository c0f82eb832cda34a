// db_test_util.h -- shared by the database layer's tests: a self-removing temporary
// directory, file helpers, stderr capture and a fresh state with a recording pause.
#pragma once
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "core/base/base.h"
#include "core/db/context.h"
#include "core/db/layout.h"
#include "core/db/lock.h"
#include "core/db/retry.h"

namespace quorvel {
struct TempDir {  // made by mkdtemp below /tmp, removed with all it holds
  std::string path;
  TempDir() : path("/tmp/qvdbXXXXXX") {
    if (mkdtemp(path.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  }
  ~TempDir() { std::error_code ec; std::filesystem::remove_all(path, ec); }
  std::string at(const std::string &name) const { return path + "/" + name; }
};
inline void writeFile(const std::string &path, const std::string &text) {
  std::ofstream(path, std::ios::binary) << text;
}
inline std::string readFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}
inline bool exists(const std::string &p) { std::error_code e; return std::filesystem::exists(p, e); }
inline std::string stderrOf(const std::function<void()> &fn) {  // what fn printed on stderr
  ::testing::internal::CaptureStderr(), fn();
  return ::testing::internal::GetCapturedStderr();
}
std::vector<unsigned> &recordedPauses();  // seconds asked of pauseSeconds since the reset
// Resets base, contexts, layout, retry and lock state; installs the recording pause.
void resetDbTestState();
}  // namespace quorvel
