// catpath.cpp -- catalogue paths: locale splitting, path templates and the resolution
// of relative names against the installation root.
#include "core/catalog/catalog.h"

#include "core/base/base.h"

#include <cstring>

namespace quorvel {

std::string resolveRootPath(const std::string &rel) {
  const char *root = installRoot();
  if (!root || (!rel.empty() && rel[0] == '/')) return rel;
  return std::string(root) + "/" + rel;
}

void splitLocale(const char *locale, std::string *language, std::string *territory,
                 std::string *codeset) {
  std::string rest = locale ? locale : "";
  std::string terr, code;
  bool haveTerr = false, haveCode = false;
  // From the last character back to the second: the first character never splits.
  for (size_t i = rest.size(); i-- > 1;) {
    if (rest[i] == '.' && !haveCode) {
      code = rest.substr(i + 1);
      rest.resize(i);
      haveCode = true;
    } else if (rest[i] == '_' && !haveTerr) {
      terr = rest.substr(i + 1);
      rest.resize(i);
      haveTerr = true;
    }
  }
  if (language) *language = rest;
  if (territory) *territory = terr;
  if (codeset) *codeset = code;
}

void catpath(std::string &out, const char *locale, const char *name) {
  std::string lang;
  splitLocale(locale, &lang, nullptr, nullptr);
  std::string file = std::string(name ? name : "(null)") + ".msg";
  bool substituted = false;
  size_t pos = 0;
  while ((pos = out.find('%', pos)) != std::string::npos) {
    char c = pos + 1 < out.size() ? out[pos + 1] : '\0';
    if (c == 'L' || c == 'l') {
      std::string value = c == 'L' ? (locale ? locale : "") : lang;
      out = out.substr(0, pos) + value + out.substr(pos + 2);
      pos += value.size();  // (a locale holding "%L" is not expanded again)
      substituted = true;
    } else if (c == 'N') {
      out = out.substr(0, pos) + resolveRootPath(file);
      return;
    } else {
      pos++;
    }
  }
  // printf's rendering of an absent locale is kept: the path names "(null)".
  if (!substituted) out.append("/").append(locale ? locale : "(null)");
  out.append("/").append(resolveRootPath(file));
}

}  // namespace quorvel
