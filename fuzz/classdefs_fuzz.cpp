// classdefs_fuzz.cpp -- feeds arbitrary text to the class definitions reader and checks
// that its result survives the writer: what is written reads back to the same text.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "core/print/classdef.h"

using namespace quorvel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string text(reinterpret_cast<const char *>(data), size);  // stops at a NUL, as C text does
  ClassList list = ParseClassdefs(text.c_str());
  std::string once = FormatClassdefs(list);
  ClassList again = ParseClassdefs(once.c_str());
  if (FormatClassdefs(again) != once || again.count != list.count) abort();
  FillClassDefaults(&again);
  for (int i = 0; i < again.count; i++)
    if (again.defs[i]->color == nullptr || again.defs[i]->purpose == nullptr) abort();
  freeClassList(&list);
  freeClassList(&again);
  return 0;
}
