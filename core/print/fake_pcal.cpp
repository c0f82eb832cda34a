// fake_pcal.cpp -- a stand-in for the external formatter, for tests: it records its
// arguments, the mode of its data file and the data file's contents in the file named
// by QV_PCAL_LOG, then exits with the status in QV_PCAL_EXIT (0 when unset).
//
// The record: one argument per line, then "--mode <octal>", then "--data" and the
// contents of the file given after -f.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char **argv) {
  const char *log = getenv("QV_PCAL_LOG");
  FILE *out = log != nullptr ? fopen(log, "w") : nullptr;
  if (out == nullptr) return 99;
  const char *data = nullptr;
  for (int i = 1; i < argc; i++) {
    fprintf(out, "%s\n", argv[i]);
    if (strcmp(argv[i], "-f") == 0 && i + 1 < argc) data = argv[i + 1];
  }
  struct stat st;
  fprintf(out, "--mode %o\n--data\n", data != nullptr && stat(data, &st) == 0 ? unsigned(st.st_mode & 07777) : 0u);
  if (FILE *in = data != nullptr ? fopen(data, "r") : nullptr) {
    int c;
    while ((c = fgetc(in)) != EOF) fputc(c, out);
    fclose(in);
  }
  fclose(out);
  const char *status = getenv("QV_PCAL_EXIT");
  return status != nullptr ? atoi(status) : 0;
}
