// fake_pcal.cpp -- a stand-in for the external formatter, for tests: it records in the
// file named by QV_PCAL_LOG the path of its data file (given after -f), that file's mode,
// its arguments joined by "|" (the data file's path as "DATA") and the data file's
// contents, a line each but the last; then exits with the status in QV_PCAL_EXIT.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

int main(int argc, char **argv) {
  const char *log = getenv("QV_PCAL_LOG");
  FILE *out = log != nullptr ? fopen(log, "w") : nullptr;
  if (out == nullptr) return 99;
  int data = 0;
  for (int i = 1; i + 1 < argc && data == 0; i++)
    if (strcmp(argv[i], "-f") == 0) data = i + 1;
  struct stat st;
  bool there = data > 0 && stat(argv[data], &st) == 0;
  fprintf(out, "%s\n%o\n", data > 0 ? argv[data] : "", there ? unsigned(st.st_mode & 07777) : 0u);
  for (int i = 1; i < argc; i++) fprintf(out, "%s|", i == data ? "DATA" : argv[i]);
  fputc('\n', out);
  if (FILE *in = there ? fopen(argv[data], "r") : nullptr) {
    for (int c; (c = fgetc(in)) != EOF;) fputc(c, out);
    fclose(in);
  }
  fclose(out);
  const char *status = getenv("QV_PCAL_EXIT");
  return status != nullptr ? atoi(status) : 0;
}
