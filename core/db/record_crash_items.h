// record_crash_items.h -- the record file contents the crash test and its child agree
// on: generation g of n items differs from g - 1 only in one digit of every title, so
// that sizes and counts stay equal and every rewrite passes the shrink check.
#pragma once

#include <string>
#include <vector>

#include "core/db/recordfile.h"

namespace quorvel {

std::vector<std::string> crashNames();
// Retitles rf's items for the generation, or replaces them by n fresh items when rf
// does not hold exactly n; marks rf dirty.
void setCrashGeneration(RecordFile *rf, int generation, int n);
// The text of generation g as the writer produces it.
std::string crashGenerationText(int generation, int n);

}  // namespace quorvel
