#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// Chunks on their way to a log file, oldest first, in one block of memory.
class ZPILogBatch final {
 public:
  void add(std::string_view chunk);
  /// Drops the chunks and keeps the memory for others.
  void clear();
  /// Drops the chunks and their memory.
  void clearAndFree();

  bool isEmpty() const { return _ends.empty(); }
  /// The chunks, valid until the next change.
  std::vector<std::string_view> chunks() const;

 private:
  std::string _text;
  std::vector<size_t> _ends;  // where each chunk ends in the text
};
