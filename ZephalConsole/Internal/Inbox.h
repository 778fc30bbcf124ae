#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

namespace zephal::internal {

/// The text that has arrived and is unread, up to a limit: beyond it the oldest bytes are dropped
/// and counted. Positions count from the first byte that ever arrived.
class Inbox {
 public:
  using Time = std::chrono::system_clock::time_point;

  explicit Inbox(size_t limit);

  std::string_view text() const { return std::string_view(_text).substr(_read); }
  uint64_t begin() const { return _origin + _read; }
  uint64_t end() const { return _origin + _text.size(); }

  /// The place to append up to `count` bytes to; call `appended` afterwards.
  std::string& room(size_t count);
  void appended(Time time);
  /// Reads up to a position.
  void readUpTo(uint64_t position);
  /// Reads up to a position, and returns what is read.
  std::string take(uint64_t position);
  /// When the byte in front of a position arrived, to within a few milliseconds. For unread bytes.
  Time timeOf(uint64_t position) const;

  /// Bytes dropped, in all.
  uint64_t lost() const { return _lost; }
  /// Bytes dropped since the last call.
  uint64_t takeLoss();

 private:
  struct Mark {
    uint64_t end;
    Time time;
  };
  void dropRead();
  void grow(size_t needed);

  const size_t _limit;
  std::string _text;
  size_t _read = 0;      // how much of the text is read, and not yet removed from it
  uint64_t _origin = 0;  // the position of the text's first byte
  uint64_t _lost = 0;
  uint64_t _told = 0;
  std::deque<Mark> _marks;
};

}  // namespace zephal::internal
