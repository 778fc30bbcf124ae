#include "Support/LogFile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <sstream>

#include "Support/Files.h"

namespace support {

std::vector<LogFileLine> linesOfLog(const std::string& path) {
  static const std::regex kPrefix(
      "\n([0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}) "
      "<([^>\n]*)>\\[([0-9]+)\\]: ");
  const std::string all = contentsOfFile(path);
  std::vector<LogFileLine> lines;
  auto end = all.cbegin();
  for (std::sregex_iterator prefix(all.begin(), all.end(), kPrefix), last; prefix != last;
       ++prefix) {
    const auto start = (*prefix)[0].first;
    if (lines.empty()) {
      EXPECT_EQ(start, all.cbegin()) << all;
    } else {
      lines.back().text.assign(end, start);
    }
    lines.push_back({(*prefix)[1], (*prefix)[2], (*prefix)[3], ""});
    end = (*prefix)[0].second;
  }
  EXPECT_EQ(lines.empty(), all.empty()) << all;
  if (!lines.empty()) lines.back().text.assign(end, all.cend());
  return lines;
}

std::vector<std::string> textsOfLog(const std::string& path) {
  std::vector<std::string> texts;
  for (const LogFileLine& line : linesOfLog(path))
    texts.push_back(line.identifier + ": " + line.text);
  return texts;
}

std::string joinedTextOfLog(const std::string& path, std::string_view identifier) {
  constexpr size_t kTimestampLength = 23;
  const std::string mark = " <" + std::string(identifier) + ">[";
  std::istringstream lines(contentsOfFile(path));
  std::string joined;
  for (std::string line; std::getline(lines, line);) {
    if (line.compare(std::min(kTimestampLength, line.size()), mark.size(), mark) != 0) continue;
    const size_t end = line.find("]: ", kTimestampLength);
    if (end != std::string::npos) joined += line.substr(end + 3);
  }
  return joined;
}

}  // namespace support
