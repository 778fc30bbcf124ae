#include "Models/EscapeModel.h"

namespace {

constexpr size_t kLongestControl = 64;
constexpr size_t kLongestString = 4096;

bool isCancel(char byte) { return byte == '\x18' || byte == '\x1a'; }
bool isIntermediate(char byte) { return byte >= ' ' && byte <= '/'; }

// What is left to read of a text; each function takes one construct off its front.
class Reader {
 public:
  explicit Reader(std::string_view text) : _text(text) {}

  std::string read() {
    while (!_text.empty()) {
      const char byte = take();
      if (byte == '\x1b') {
        readEscape();
      } else {
        _result += byte;
      }
    }
    return _result;
  }

 private:
  char take() {
    const char byte = _text.front();
    _text.remove_prefix(1);
    return byte;
  }

  // The next byte of a sequence; false at the end of the text or where a sequence is cancelled.
  bool next(char* byte) {
    if (_text.empty()) return false;
    *byte = take();
    ++_length;
    return !isCancel(*byte);
  }

  // After an escape.
  void readEscape() {
    _length = 0;
    char byte = 0;
    if (next(&byte)) readAfter(byte);
  }

  void readAfter(char byte) {
    if (byte == '\x1b') return readEscape();
    if (byte == '[') return readControl();
    if (std::string_view("]PX^_").find(byte) != std::string_view::npos) return readString();
    if (!isIntermediate(byte)) return;
    do {
      if (!next(&byte)) return;
    } while (isIntermediate(byte) && _length < kLongestControl);
    if (byte == '\x1b') readEscape();
  }

  void readControl() {
    char byte = 0;
    while (next(&byte)) {
      if (byte == '\x1b') return readEscape();
      if (byte == '\n' || byte == '\r') _result += byte;
      if ((byte >= '@' && byte <= '~') || _length >= kLongestControl) return;
    }
  }

  // Ends with a bell, or with an escape and a backslash; another escape begins a new sequence.
  void readString() {
    char byte = 0;
    while (next(&byte)) {
      if (byte == '\x1b') return readStringEscape();
      if (byte == '\a' || _length >= kLongestString) return;
    }
  }

  void readStringEscape() {
    _length = 0;
    char byte = 0;
    if (next(&byte) && byte != '\\') readAfter(byte);
  }

  std::string_view _text;
  std::string _result;
  size_t _length = 0;  // of the sequence, after its escape
};

}  // namespace

std::string withoutEscapes(std::string_view text) { return Reader(text).read(); }
