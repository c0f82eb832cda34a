// textfile.h -- whole-text files of the print module (class definitions): read the
// whole file, or replace it whole through a scratch name.
//
// The replace writes path + "TMP", flushes and syncs it, renames it over the file and
// syncs the directory, so that a crash leaves the old file or the new one. The scratch
// file is removed on every failure. Results: 0, or errno of the failing step (-1 when
// the step left no errno).
#pragma once

#include <string>

namespace quorvel {

int readTextFile(const char *path, std::string *text);
int replaceTextFile(const char *path, const std::string &text, unsigned mode);

}  // namespace quorvel
