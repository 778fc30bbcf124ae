#include "Support/LogFile.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>

std::string contentsOfFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

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
