#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// The parts of a URL by the grammar of RFC 3986, each rule a regular expression.
struct URLModel {
  std::optional<std::string> scheme;
  std::optional<std::string> host;
  std::optional<int64_t> port;
  std::string path;
  std::vector<std::pair<std::string, std::optional<std::string>>> items;

  /// Null if the grammar does not have the text, or if it has an escaped NUL.
  static std::optional<URLModel> parsed(const std::string& text);
};
