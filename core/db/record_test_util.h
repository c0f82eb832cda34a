// record_test_util.h -- helpers for the record-file tests: a calendar-name table, an
// item using every field a record file keeps, the crash test's generations of
// contents, and the fixture the tests share.
#pragma once

#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "core/db/context.h"
#include "core/db/db_test_util.h"
#include "core/db/recordfile.h"
#include "core/net/namelookup.h"

namespace quorvel {

// Makes a table of these calendar names the process's name lookup.
void installNames(std::vector<std::string> names = {"ann", "bob", "carl", "dora"});
CalSet makeSet(std::initializer_list<int> members);
Item *makeFullItem(int32_t id);  // every field a record file keeps, calendars 0 to 3
// Crash-test contents: generation g of n items differs from g - 1 only in one digit of
// every title, so sizes and counts stay equal and every rewrite passes the shrink check.
// setCrashGeneration retitles rf's items (made afresh unless rf holds n), marks it dirty.
void setCrashGeneration(RecordFile *rf, int generation, int n);
std::string crashGenerationText(int generation, int n);  // the text written of that

// Fresh state, names "ann", "bob", "carl", "dora", an unread record file rf at path.
struct RecordTest : ::testing::Test {
  TempDir dir;
  std::string path = dir.at("cal");
  RecordFile *rf = nullptr;
  void SetUp() override { resetDbTestState(), installNames(), rf = newRecordFile(path.c_str(), nullptr); }
  void TearDown() override { freeRecordFile(rf), resetNameLookup(), resetDbContexts(), setRecordDebug(0); }
  RecordFile *reread(const std::string &at) {  // rf replaced by the file at `at`, read
    freeRecordFile(rf), rf = newRecordFile(at.c_str(), nullptr), readRecordFile(nullptr, rf);
    return rf;
  }
  void fill(int count, size_t titleLength = 0) {  // rf's items made anew: ids 0.., calendar ann
    evlistFree(&rf->list), rf->index.clear();
    for (int i = 0; i < count; i++) {
      Item *it = evnew();
      it->randomId = i, it->calendars = makeSet({0});
      evsetTitle(it, std::string(titleLength, 'a').c_str()), addRecordItem(rf, it);
    }
    rf->dirty = true;
  }
};

}  // namespace quorvel
