#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// What looks for a pattern in a stream and can remove it, step by step as the contract lists them.
class EventModel {
 public:
  EventModel(std::string pattern, bool removes) : _pattern(std::move(pattern)), _removes(removes) {}

  std::string take(std::string_view chunk);
  void reset() { _held.clear(); }

  const std::string& held() const { return _held; }
  /// How long the result was at each event so far.
  const std::vector<size_t>& events() const { return _events; }

 private:
  void pass();
  void releaseAround();

  const std::string _pattern;
  const bool _removes;
  std::string _held;
  std::string _result;
  std::vector<size_t> _events;
};
