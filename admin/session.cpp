// session.cpp -- what every sub-command of quorvel-admin shares: reading its options,
// reporting its errors, finding the root, opening the database and the catalogue, and
// reading a file whole.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "admin/admin.h"
#include "core/base/base.h"
#include "core/catalog/catalog.h"
#include "core/db/context.h"
#include "core/db/layout.h"
#include "core/net/namelookup.h"
#include "core/people/users.h"

namespace quorvel {

/* ==== Arguments ====================================================================== */

std::string AdminArgs::get(const char *name, const char *def) const {
  auto it = opts.find(name);
  return it != opts.end() ? it->second : def;
}

// The form naming this option ("--x" or "--x="), or null.
static const std::string *findOptionForm(const std::vector<std::string> &forms, const std::string &name) {
  for (const std::string &s : forms)
    if (s == name || s == name + "=") return &s;
  return nullptr;
}

int parseAdminArgs(int argc, char **argv, int first, const std::vector<std::string> &forms,
                   AdminArgs *args) {
  for (int i = first; i < argc; i++) {
    std::string word = argv[i];
    if (word.size() < 3 || word.compare(0, 2, "--") != 0) {
      args->operands.push_back(word);
      continue;
    }
    size_t eq = word.find('=');
    std::string name = word.substr(0, eq);
    if (name == "--help") {
      args->opts["--help"] = "";
      continue;
    }
    const std::string *form = findOptionForm(forms, name);
    if (form == nullptr) return adminError(*args, ADMIN_USAGE, "unknown option %s", name.c_str());
    bool wantsValue = form->back() == '=';
    if (!wantsValue && eq != std::string::npos)
      return adminError(*args, ADMIN_USAGE, "option %s takes no value", name.c_str());
    if (wantsValue && eq == std::string::npos && i + 1 >= argc)
      return adminError(*args, ADMIN_USAGE, "option %s needs a value", name.c_str());
    args->opts[name] = !wantsValue ? "" : eq != std::string::npos ? word.substr(eq + 1) : argv[++i];
  }
  return ADMIN_OK;
}

int adminError(const AdminArgs &args, int status, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  fflush(stdout);  // what the command printed so far comes first
  fprintf(stderr, "%s: ", args.command.c_str());
  vfprintf(stderr, fmt, ap);
  fputc('\n', stderr);
  va_end(ap);
  return status;
}

/* ==== Root, database, catalogue ========================================================= */

static void adminCatalog(const std::string &code);

int adminRoot(const AdminArgs &args, const AdminGlobal &g) {
  if (!g.root.empty()) setenv("QUORVELPATH", g.root.c_str(), 1);
  if (installRoot() == nullptr)
    return adminError(args, ADMIN_USAGE, "no database root: give --root DIR or set QUORVELPATH");
  struct stat st;
  if (stat(installRoot(), &st) != 0 || !S_ISDIR(st.st_mode))
    return adminError(args, ADMIN_FAILED, "database root %s is not a directory", installRoot());
  adminCatalog(g.lang);
  return ADMIN_OK;
}

DbHandle *adminOpenDb(const AdminArgs &args) {
  DbHandle *db = openDefaultDb();
  // By its full path: the record files and their change stamp are then found under the
  // root whatever the working directory is.
  char dir[DB_PATH_MAX];
  db->dir = resolveDbPath(dir, db->dir.c_str());
  installNameLookup();
  int changed = 0;
  // The users file's own reports (a missing file, an empty one) name the problem; the
  // line below says which command could not go on. The result cannot tell "no file"
  // from "the own calendar is nobody" (both -1), so the list itself is what counts.
  readUsersFile(db, &changed);
  if (db->users == nullptr || db->users->count == 0) {
    adminError(args, ADMIN_FAILED, "cannot read the users file %s", usersFilePath(db).c_str());
    return nullptr;
  }
  return db;
}

int adminCalendar(const AdminArgs &args, DbHandle *db, const std::string &name) {
  int index = lookupCalendar(db, name.c_str());
  if (index < 0) adminError(args, ADMIN_FAILED, "no calendar named \"%s\" in the users file", name.c_str());
  return index;
}

// The catalogue's language code for a locale such as "de_DE.UTF-8": its language part
// with the first letter raised ("De"); English is "En_US"; null for "C" and "POSIX".
static std::string languageOfLocale(const char *locale) {
  if (locale == nullptr || *locale == '\0') return "";
  std::string language;
  splitLocale(locale, &language, nullptr, nullptr);
  if (language.size() != 2) return "";
  language[0] = char(toupper(static_cast<unsigned char>(language[0])));
  language[1] = char(tolower(static_cast<unsigned char>(language[1])));
  if (language == "En") return "En_US";
  if (language == "Nb" || language == "Nn") return "No";
  return language;
}

static void adminCatalog(const std::string &code) {
  catopen("quorvel");
  std::string language = !code.empty() ? code : languageOfLocale(getenv("LANG"));
  catsetlang(language.empty() ? nullptr : language.c_str());
}

/* ==== Whole files ======================================================================== */

// A file is read whole when every byte its status promised arrived and the file's size
// and time did not move meanwhile: only such a text may be written back.
int readWhole(const std::string &path, std::string *text) {
  text->clear();
  int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) return errno;
  struct stat before, after;
  if (fstat(fd, &before) != 0) {
    int e = errno;
    close(fd);
    return e;
  }
  char block[65536];
  for (;;) {
    ssize_t n = read(fd, block, sizeof block);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      int e = errno;  // saved before close may change it
      close(fd);
      return e;
    }
    if (n == 0) break;
    text->append(block, size_t(n));
  }
  int rc = fstat(fd, &after) != 0 ? errno : 0;
  close(fd);
  if (rc != 0) return rc;
  if (off_t(text->size()) != before.st_size || after.st_size != before.st_size ||
      after.st_mtime != before.st_mtime)
    return -1;
  return 0;
}

}  // namespace quorvel
