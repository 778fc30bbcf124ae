#include "Crashes/LoggedChunks.h"

#include <ZephalIO/ZephalIO.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

namespace support {
namespace {

// Its own reading of the format: what the library writes is compared with this.
std::string chunkOf(std::string_view prefix, const std::string& bytes) {
  const std::string text = ZPKDataToString(ZPKData::dataWithBytes(bytes.data(), bytes.size()));
  std::string chunk(prefix);
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '\r' && at + 1 < text.size() && text[at + 1] == '\n') continue;
    if (text[at] == '\r' || text[at] == '\n') {
      chunk += prefix;
    } else {
      chunk += text[at];
    }
  }
  return chunk;
}

bool isDigit(char byte) { return std::isdigit(static_cast<unsigned char>(byte)) != 0; }

class Reader {
 public:
  Reader(const std::string& log, const BytesOfChunk& bytesOf) : _log(log), _bytesOf(bytesOf) {}

  std::vector<LoggedChunk> read() {
    while (_at < _log.size() && !_isWrong) _chunks.push_back(nextChunk());
    return _chunks;
  }

 private:
  // Reads a prefix, and the number that the text begins with, as far as they go.
  LoggedChunk nextChunk() {
    LoggedChunk chunk;
    _end = _at;
    if (!skip("\ndddd-dd-dd dd:dd:dd.ddd <")) return cut(chunk);
    const size_t writer = _end;
    skipWhile([](char byte) { return byte != '>' && byte != '\n'; });
    const std::string identifier = _log.substr(writer, _end - writer);
    if (!skip(">[")) return cut(chunk);
    skipWhile(isDigit);
    const size_t writerEnd = _end;
    if (!skip("]: ")) return cut(chunk);
    chunk.writer = _log.substr(writer, writerEnd - writer);
    const size_t prefixEnd = _end;
    if (!skip("#")) return cut(chunk);
    skipWhile(isDigit);
    if (!skip(" ")) return cut(chunk);
    chunk.number = std::stoul(_log.substr(prefixEnd + 1, _end - prefixEnd - 2));
    return compare(chunk,
                   chunkOf(_log.substr(_at, prefixEnd - _at), _bytesOf(identifier, chunk.number)));
  }

  LoggedChunk compare(LoggedChunk chunk, const std::string& expected) {
    const size_t length = std::min(expected.size(), _log.size() - _at);
    const auto start = _log.begin() + static_cast<std::ptrdiff_t>(_at);
    const auto end =
        std::mismatch(expected.begin(), expected.begin() + static_cast<long>(length), start).first;
    _end = _at + static_cast<size_t>(end - expected.begin());
    chunk.isWhole = end == expected.end();
    if (!chunk.isWhole) return cut(chunk);
    _at = _end;
    return chunk;
  }

  // The beginning of a chunk, which must end where a chunk begins or the file ends. If it was cut
  // between two lines, it looks like the next chunk's prefix for a while.
  LoggedChunk cut(const LoggedChunk& chunk) {
    if (_end < _log.size() && _log[_end] != '\n') _end = _log.rfind('\n', _end);
    if (_end == _at) return wrong(chunk);
    _at = _end;
    return chunk;
  }

  LoggedChunk wrong(const LoggedChunk& chunk) {
    _isWrong = true;
    ADD_FAILURE() << "no chunk at byte " << _at << " of " << _log.size() << ": "
                  << testing::PrintToString(_log.substr(_at, 200));
    return chunk;
  }

  // Each d in the pattern stands for a digit.
  bool skip(std::string_view pattern) {
    for (const char byte : pattern) {
      if (_end == _log.size()) return false;
      if (byte == 'd' ? !isDigit(_log[_end]) : _log[_end] != byte) return false;
      ++_end;
    }
    return true;
  }

  void skipWhile(bool (*isWanted)(char)) {
    while (_end < _log.size() && isWanted(_log[_end])) ++_end;
  }

  const std::string& _log;
  const BytesOfChunk& _bytesOf;
  std::vector<LoggedChunk> _chunks;
  size_t _at = 0;   // where the chunk begins
  size_t _end = 0;  // how far it has been read
  bool _isWrong = false;
};

}  // namespace

std::vector<LoggedChunk> chunksOfLog(const std::string& log, const BytesOfChunk& bytesOf) {
  return Reader(log, bytesOf).read();
}

}  // namespace support
