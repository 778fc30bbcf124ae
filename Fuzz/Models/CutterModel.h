#pragma once

#include <string>
#include <string_view>

/// What splits a stream at a terminator: everything that arrived is joined, and each call takes
/// what ends with the first terminator in it.
struct CutterModel {
  std::string terminator;
  bool keepsTerminator = true;
  bool passesWithoutTerminator = true;
  std::string held = {};

  std::string take(std::string_view chunk) {
    held += chunk;
    if (terminator.empty()) return passesWithoutTerminator ? first(held.size(), 0) : "";
    const size_t at = held.find(terminator);
    if (at == std::string::npos) return "";
    return keepsTerminator ? first(at + terminator.size(), 0) : first(at, terminator.size());
  }

 private:
  std::string first(size_t count, size_t dropped) {
    const std::string taken = held.substr(0, count);
    held.erase(0, count + dropped);
    return taken;
  }
};
