#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace support {

/// A chunk of a log file, or the beginning of one.
struct LoggedChunk {
  static constexpr size_t kUnknown = SIZE_MAX;

  /// Its identifier and the process, as in "pre---read>[4711"; empty if it was cut before that.
  std::string writer;
  /// The number that its text begins with; kUnknown if it was cut before that.
  size_t number = kUnknown;
  bool isWhole = false;
};

/// The bytes that the chunk with this number was made of, for the identifier of a log.
using BytesOfChunk = std::function<std::string(std::string_view identifier, size_t number)>;

/// All chunks of a log, in their order. Fails the test if the log contains anything that is neither
/// a chunk with exactly its bytes, nor a beginning of one that ends where another chunk begins.
std::vector<LoggedChunk> chunksOfLog(const std::string& log, const BytesOfChunk& bytesOf);

}  // namespace support
