#include "ZephalConsole/Internal/AnswerText.h"

namespace zephal::internal {
namespace {

std::string_view withoutCarriageReturns(std::string_view line) {
  while (line.starts_with('\r')) line.remove_prefix(1);
  while (line.ends_with('\r')) line.remove_suffix(1);
  return line;
}

}  // namespace

std::string answerText(std::string_view received) {
  std::string text;
  text.reserve(received.size());
  for (;;) {
    const size_t lineFeed = received.find('\n');
    text += withoutCarriageReturns(received.substr(0, lineFeed));
    if (lineFeed == std::string_view::npos) return text;
    text += '\n';
    received.remove_prefix(lineFeed + 1);
  }
}

}  // namespace zephal::internal
