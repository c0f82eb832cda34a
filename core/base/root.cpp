// root.cpp -- the installation root, taken from QUORVELPATH once per process.
#include "core/base/base.h"

#include <cstdlib>
#include <string>

namespace quorvel {

static std::string rootValue;  // the root as read; set by installRoot
static bool rootRead;          // whether the environment was read yet

const char *installRoot() {
  if (!rootRead) {
    const char *v = getenv("QUORVELPATH");
    rootValue = v ? v : "";
    rootRead = true;
  }
  return rootValue.empty() ? nullptr : rootValue.c_str();
}

void resetRoot() { rootRead = false; }

}  // namespace quorvel
