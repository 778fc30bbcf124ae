#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace support {

/// A stream of numbered lines, "a000000017\n". One object makes it, another one compares what
/// arrives with it, so that a byte that is lost, doubled or at the wrong place is noticed.
class NumberedBytes {
 public:
  static constexpr size_t kLineLength = 11;

  explicit NumberedBytes(char kind) : _kind(kind) {}

  /// The next bytes of the stream.
  std::string take(size_t count);
  /// Requires these to be the next bytes. `where` stands in the finding.
  void expect(std::string_view bytes, const char* where);
  /// How many bytes there were so far.
  size_t count() const { return _count; }

 private:
  const char _kind;
  size_t _count = 0;
};

}  // namespace support
