// hardening_fuzz.cpp -- the gateway's hardened-mode settings reader on arbitrary text:
// it must never crash, and whatever it accepts must keep its own limits.
#include "gateway/hardening.h"

#include <cstdint>
#include <cstdlib>
#include <string>

using namespace quorvel::gateway;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  Hardening h;
  std::string problem;
  int line = parseHardening(reinterpret_cast<const char *>(data), size, &h, &problem);
  if (line < 0 || (line > 0 && problem.empty())) abort();
  if (h.deadlineSeconds < 1 || h.deadlineSeconds > HARDENED_DEADLINE_MAX) abort();
  for (const AllowedAgent &a : h.agents)
    if (a.host.empty() || a.offset < 0 || a.offset > 65535) abort();
  for (const std::string &f : h.folders)
    if (f.empty() || f == ".." || f == "." || f.find('/') != std::string::npos) abort();
  return 0;
}
