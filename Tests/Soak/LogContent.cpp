#include "Soak/LogContent.h"

#include <fstream>
#include <iterator>
#include <string_view>

namespace soak {

namespace {

// "2024-05-01 12:00:00.250 <"
constexpr std::string_view kDate = "dddd-dd-dd dd:dd:dd.ddd <";

bool hasDate(std::string_view line) {
  if (line.size() < kDate.size()) return false;
  for (size_t at = 0; at < kDate.size(); ++at) {
    const bool isDigit = line[at] >= '0' && line[at] <= '9';
    if (kDate[at] == 'd' ? !isDigit : line[at] != kDate[at]) return false;
  }
  return true;
}

void addLine(std::string_view line, LogContent* content) {
  const size_t text = line.find("]: ");
  const size_t direction = line.substr(0, text).find(">[");
  if (!hasDate(line) || text == std::string_view::npos || direction == std::string_view::npos) {
    ++content->torn;
    return;
  }
  const bool isRead = line.substr(0, direction).ends_with("-read");
  (isRead ? content->read : content->written) += line.substr(text + 3);
  ++(isRead ? content->readLines : content->writtenLines);
}

}  // namespace

LogContent LogContent::ofFile(const std::string& path) {
  LogContent content;
  std::ifstream stream(path, std::ios::binary);
  const std::string file{std::istreambuf_iterator<char>(stream), {}};
  std::string_view rest = file;
  if (rest.empty()) return content;
  // A log begins with the line feed of its first chunk.
  if (!rest.starts_with('\n')) ++content.torn;
  rest.remove_prefix(1);
  while (true) {
    const size_t end = rest.find('\n');
    addLine(rest.substr(0, end), &content);
    if (end == std::string_view::npos) return content;
    rest.remove_prefix(end + 1);
  }
}

}  // namespace soak
