// Echo removal with writes, reads and failures in any order: what a plain account of the lines that
// were written and read leaves.
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>

#include "Data Channel/ZPKDataChannelDecorators.h"
#include "FuzzInput.h"
#include "FuzzSupport.h"
#include "Support/Errors.h"
#include "Support/ScriptedChannel.h"

namespace {

constexpr const char* kLetters = "ab\r\n";

// Takes the complete lines off the front of a text.
void takeLines(std::string& text, const std::string& delimiter, std::deque<std::string>& lines) {
  for (size_t at = text.find(delimiter); at != std::string::npos; at = text.find(delimiter)) {
    lines.push_back(text.substr(0, at + delimiter.size()));
    text.erase(0, at + delimiter.size());
  }
}

struct Model {
  std::string delimiter;
  std::string readTail = {};
  std::string writeTail = {};
  std::deque<std::string> written = {};

  void write(const std::string& bytes) {
    writeTail += bytes;
    takeLines(writeTail, delimiter, written);
  }

  std::string read(const std::string& bytes) {
    readTail += bytes;
    std::deque<std::string> lines;
    takeLines(readTail, delimiter, lines);
    std::string output;
    for (const std::string& line : lines) {
      if (!written.empty() && line == written.front()) {
        written.pop_front();
      } else {
        output += line;
      }
    }
    if (!written.empty()) return output;
    output += readTail;
    readTail.clear();
    return output;
  }
};

class Run {
 public:
  explicit Run(FuzzInput input) : _input(input) {
    const std::string delimiter = _input.textOf("\n\r", 2);
    _model.delimiter = delimiter.empty() ? "\r\n" : delimiter;
    _channel = createEchoRemovalChannel(_below, dataOf(_model.delimiter));
  }

  void run() {
    while (!_input.isUsedUp()) step();
  }

 private:
  void step() {
    switch (_input.below(12)) {
      case 0: return failToWrite();
      case 1: return failToRead();
      case 2: return reset();
      case 3: return reopen();
      case 4: return writeNull();
      case 5:
      case 6:
      case 7: return write(_input.textOf(kLetters, 8));
      case 8:
      case 9: return read(echo());
      case 10: return read("");
      default: return read(_input.textOf(kLetters, 10));
    }
  }

  void write(const std::string& bytes) {
    _below->setWriteResult(true);
    require(_channel->write(dataOf(bytes)), "a write succeeds");
    _model.write(bytes);
    _sent += bytes;
  }

  void writeNull() {
    _below->setWriteResult(true);
    require(_channel->write(nullptr), "null is passed down");
  }

  void failToWrite() {
    _below->setWriteResult(false, support::errorFromBelow());
    ZPKErrorPtr error;
    const ZPKDataPtr bytes = dataOf(_input.textOf(kLetters, 8));
    require(!_channel->write(bytes, &error) && support::codeOf(error) == 42, "a write fails");
  }

  void failToRead() {
    _below->addFailedRead(support::errorFromBelow(), false);
    ZPKErrorPtr error;
    require(_channel->readWithTimeout(0.0, &error) == nullptr && support::codeOf(error) == 42,
            "a read fails");
  }

  void reset() {
    _below->setResetResult(_input.flag());
    _channel->reset();
    _model = Model{_model.delimiter};
    _sent.clear();
  }

  void reopen() {
    require(_channel->close() && _channel->openWithTimeout(0.0), "the channel is opened again");
  }

  // Some of what was written, as a device sends it back.
  std::string echo() {
    const std::string part = _sent.substr(0, _input.below(12));
    _sent.erase(0, part.size());
    return part;
  }

  void read(const std::string& bytes) {
    _below->addRead(bytes);
    const ZPKDataPtr data = _channel->readWithTimeout(0.0);
    require(data != nullptr && data->view() == _model.read(bytes), "a read returns the rest");
  }

  FuzzInput _input;
  Model _model;
  std::string _sent;  // and not yet echoed
  const std::shared_ptr<support::ScriptedChannel> _below = support::ScriptedChannel::make();
  ZPKDataChannelPtr _channel;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  silenceLog();
  Run(FuzzInput(bytes, size)).run();
  return 0;
}
