// Reading what a logging channel wrote.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace support {

/// One line of a log file: a prefix and the text after it, up to the next prefix.
struct LogFileLine {
  std::string timestamp;  // "2024-05-01 12:00:00.250"
  std::string identifier;
  std::string process;
  std::string text;
};

/// The lines of a log file. Fails the test if it does not begin with a prefix.
std::vector<LogFileLine> linesOfLog(const std::string& path);

/// The lines of a log file in short: "identifier: text".
std::vector<std::string> textsOfLog(const std::string& path);

/// The texts of all lines with one identifier, joined; fast even for a long log.
std::string joinedTextOfLog(const std::string& path, std::string_view identifier);

}  // namespace support
