// mailtext.h -- inside the notice module: the pieces a notice's texts are made of, and
// the reset of the option half.
#pragma once

#include "core/notice/notice.h"

#include <cstdint>
#include <string>

namespace quorvel {

// The values the template placeholders stand for.
struct MailFields {
  std::string title;        // ${title}
  std::string time;         // ${time}: the time text without its ", "
  std::string date;         // ${date}: "%B %d, %Y"
  std::string description;  // ${description}
  std::string sender;       // ${sender}
};

std::string mailDateText(int32_t startTime);
// 0 event, 1 to-do, 2 memo, chosen by the item's dWord.
int mailKindOf(uint16_t dWord);
std::string expandPlaceholders(const std::string &text, const MailFields &fields);

// The client-option table back at its defaults (options.cpp; resetNotice calls it).
void resetClientOptions();

}  // namespace quorvel
