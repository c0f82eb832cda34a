// main.cpp -- quorvel-admin: reads the options before the command word and hands the
// rest of the command line to the sub-command.
#include <cstdio>
#include <cstring>
#include <string>

#include "admin/admin.h"

using quorvel::AdminGlobal;

static void usage(FILE *out) {
  fprintf(out,
          "usage: quorvel-admin [--root DIR] [--lang CODE] <command> [args]\n"
          "The database root is DIR, else $QUORVELPATH. Each command takes --help.\n"
          "Commands:\n");
  for (const auto &c : quorvel::adminCommands()) fprintf(out, "  %-15s %s\n", c.name, c.summary);
}

// The value of "--name=v" or "--name v" at argv[*i] (moving *i past it); null when the
// word is another option or the value is missing.
static const char *globalValue(int argc, char **argv, int *i, const char *name) {
  size_t n = strlen(name);
  if (strncmp(argv[*i], name, n) != 0) return nullptr;
  if (argv[*i][n] == '=') return argv[*i] + n + 1;
  if (argv[*i][n] != '\0' || *i + 1 >= argc) return nullptr;
  return argv[++*i];
}

int main(int argc, char **argv) {
  AdminGlobal g;
  int i = 1;
  for (; i < argc && strncmp(argv[i], "--", 2) == 0; i++) {
    if (strcmp(argv[i], "--help") == 0) return usage(stdout), quorvel::ADMIN_OK;
    if (const char *v = globalValue(argc, argv, &i, "--root")) g.root = v;
    else if (const char *l = globalValue(argc, argv, &i, "--lang")) g.lang = l;
    else if (strcmp(argv[i], "--root") == 0 || strcmp(argv[i], "--lang") == 0)
      return fprintf(stderr, "quorvel-admin: option %s needs a value\n", argv[i]), quorvel::ADMIN_USAGE;
    else return fprintf(stderr, "quorvel-admin: unknown option %s\n", argv[i]), quorvel::ADMIN_USAGE;
  }
  if (i >= argc) return usage(stderr), quorvel::ADMIN_USAGE;
  for (const auto &c : quorvel::adminCommands())
    if (strcmp(argv[i], c.name) == 0) return c.run(argc - i, argv + i, g);
  fprintf(stderr, "quorvel-admin: unknown command %s\n", argv[i]);
  usage(stderr);
  return quorvel::ADMIN_USAGE;
}
