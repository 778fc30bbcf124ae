// A whole stack, with settings, a device and a caller that do anything in any order: each result
// and error is that of the layers' contracts put together.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Data Stack/ZPKCommStack.h"
#include "FuzzInput.h"
#include "FuzzSupport.h"
#include "Models/StackModel.h"
#include "Support/Errors.h"
#include "Support/ScriptedChannel.h"
#include "Utility/ZPKDataConversionFunctions.h"

namespace {

constexpr const char* kLetters = "aab> \r\n";
constexpr uint64_t kECID = 0x0001A2B3C4D5E6F7;

class Run {
 public:
  explicit Run(FuzzInput input) : _input(input) {}

  void run() {
    configure();
    _below->setOpened(true);
    require(_stack->createStackWithBaseChannel(_below), "the stack is created");
    while (!_input.isUsedUp()) {
      step();
      require((_stack->isOpen() == 1) == _model.isOpen, "it is open when the model is");
      require(_stack->aggregator()->buffer()->view() == _model.cutter.held,
              "what waits is what the model holds");
      require(_stack->ecidSwapInformation() == _model.swap, "a swap is kept");
    }
  }

 private:
  void configure() {
    setFilters(false);
    setFilters(true);
    if (_input.flag()) {
      require(_stack->enableECIDSwapDetectionWithECID(ZPKNumber(kECID)), "detection is on");
      _model.swaps.expected = "[0001A2B3:C4D5E6F7]";
    }
    require(!_stack->setReadFiltersHex({"61", "none"}), "a filter that is not hexadecimal fails");
  }

  // First those in hexadecimal, which come first in the chain.
  void setFilters(bool isText) {
    std::vector<std::string> filters;
    const size_t count = _input.below(3);
    for (size_t i = 0; i < count; ++i) {
      const std::string filter = "b" + _input.textOf("ab", 2);
      filters.push_back(isText ? filter : ZPKHexStringFromData(dataOf(filter), _input.flag()));
      _model.filters.emplace_back(filter, true);
    }
    require(isText ? _stack->setReadFilters(filters) : _stack->setReadFiltersHex(filters),
            "the filters are set");
  }

  void step() {
    switch (_input.below(16)) {
      case 0: return setDelimiter();
      case 1: return setLineTerminator();
      case 2: return setTimeoutIsException();
      case 3: return close();
      case 4: return open();
      case 5: return createAgain();
      case 6: return write();
      case 7: return failToRead();
      case 8: return read();
      case 9: return readWithDelimiter();
      case 10: return ask();
      case 11: return askForText();
      case 12: return askWithoutEcho();
      case 13: return askAndPick();
      default: return answer();
    }
  }

  void setDelimiter() {
    _model.cutter.terminator = _input.textOf(kLetters, 3);
    _stack->setDelimiter(_model.cutter.terminator);
  }

  void setLineTerminator() {
    _model.lineTerminator = _input.textOf("\r\n", 3);
    _stack->setLineTerminator(_model.lineTerminator);
  }

  void setTimeoutIsException() {
    _model.timeoutIsException = _input.flag();
    _stack->setTimeoutIsException(_model.timeoutIsException);
  }

  void close() {
    const bool isGood = _input.flag();
    _below->setCloseResult(isGood, support::errorFromBelow());
    require(_stack->close() == isGood, "a close succeeds as it does below");
    _model.close(isGood);
  }

  void open() {
    ZPKErrorPtr error;
    require(_stack->openWithTimeout(0, &error) == !_model.isOpen, "only a closed one is opened");
    require(support::codeOf(error) == (_model.isOpen ? 303 : 0), "the code is 303");
    _model.isOpen = true;
  }

  void createAgain() {
    ZPKErrorPtr error;
    require(_stack->createStackWithBaseChannel(_below, &error) == !_model.isOpen,
            "only a closed one is created again");
    require(support::codeOf(error) == (_model.isOpen ? 303 : 0), "the code is 303");
    if (!_model.isOpen) _model.cutter.held.clear();
  }

  // The device sends something.
  void answer() {
    std::string bytes = _input.textOf(kLetters, 12);
    if (_input.below(8) == 0) bytes += "[0001A2B3:C4D5E6F7] :-) > ";
    if (_input.below(32) == 0) bytes += "[0001A2B3:00000000] :-) > ";
    if (_input.below(8) == 0) bytes += _input.text(4);
    if (_input.flag()) bytes += _model.cutter.terminator;
    _below->addRead(dataOf(bytes));
    _model.reads.push_back({bytes});
  }

  void failToRead() {
    const bool closes = _input.flag();
    _below->addFailedRead(support::errorFromBelow(), closes);
    _model.reads.push_back({std::nullopt, closes});
  }

  void letWritesFail() {
    _model.writesFail = _input.below(8) == 0;
    _below->setWriteResult(!_model.writesFail, support::errorFromBelow());
  }

  void write() {
    letWritesFail();
    const std::string bytes = _input.text(5);
    ZPKErrorPtr error;
    const bool isGood = _stack->writeData(dataOf(bytes), &error);
    require(isGood == (_model.isOpen && !_model.writesFail), "a write succeeds as it does below");
    const int code = isGood ? 0 : (_model.isOpen ? StackModel::kCodeFromBelow : 304);
    require(support::codeOf(error) == code, "its code is that of the layer that fails");
    if (_model.isOpen) expectSent(bytes);
  }

  void expectSent(const std::string& bytes) const {
    require(_below->writes().back() == bytes + _model.lineTerminator, "the line is ended");
  }

  // Without a limit where that ends, else without waiting.
  bool waitsFor(const std::optional<std::string>& delimiter) {
    return _input.flag() && _model.wouldEnd(delimiter);
  }

  static std::optional<ZPKNumber> timeoutFor(bool waits) {
    return waits ? std::nullopt : std::optional<ZPKNumber>(0);
  }

  template <class Bytes>
  static void compare(const Bytes& bytes, const ZPKErrorPtr& error,
                      const StackModel::Result& expected) {
    require(bytes == expected.bytes, "the bytes are the model's");
    require(support::codeOf(error) == expected.code, "the code is the model's");
  }

  void read() {
    const bool waits = waitsFor(std::nullopt);
    ZPKErrorPtr error;
    const auto bytes =
        support::bytesOf(_stack->readDataWithTimeout(timeoutFor(waits), nullptr, &error));
    compare(bytes, error, _model.read(waits, std::nullopt));
  }

  void readWithDelimiter() {
    const std::string delimiter = _input.textOf(kLetters, 2);
    const bool waits = waitsFor(delimiter);
    ZPKErrorPtr error;
    const auto bytes =
        support::bytesOf(_stack->readDataWithTimeout(timeoutFor(waits), dataOf(delimiter), &error));
    compare(bytes, error, _model.read(waits, delimiter));
    require(_stack->aggregator()->data2Find()->view() == _model.cutter.terminator,
            "the delimiter is as before");
  }

  void ask() {
    letWritesFail();
    const bool waits = waitsFor(std::nullopt);
    const std::string command = _input.textOf("ab", 3);
    ZPKErrorPtr error;
    const bool wasOpen = _model.isOpen;
    const auto bytes =
        support::bytesOf(_stack->sendCommandData(dataOf(command), timeoutFor(waits), &error));
    compare(bytes, error, _model.ask(waits));
    if (wasOpen) expectSent(command);
  }

  void askForText() {
    letWritesFail();
    const bool waits = waitsFor(std::nullopt);
    ZPKErrorPtr error;
    const auto text = _stack->sendCommandString("a", timeoutFor(waits), &error);
    compare(text, error, _model.askForText(waits));
  }

  void askWithoutEcho() {
    letWritesFail();
    const bool waits = waitsFor(std::nullopt);
    const std::string command = _input.textOf("ab", 3);
    ZPKErrorPtr error;
    const auto text = _stack->sendCommandStringWithEchoRemoval(command, timeoutFor(waits), &error);
    compare(text, error, _model.askWithoutEcho(command, waits));
  }

  void askAndPick() {
    letWritesFail();
    static const ZPKRegexPtr regex = ZPKRegex::initWithPattern("a(b)?");
    const bool waits = waitsFor(std::nullopt);
    const std::string command = _input.textOf("ab", 3);
    ZPKErrorPtr error;
    const auto text =
        _stack->sendCommandStringWithEchoRemoval(command, regex, timeoutFor(waits), &error);
    compare(text, error, _model.askAndPick(command, waits));
  }

  FuzzInput _input;
  StackModel _model;
  const std::shared_ptr<support::ScriptedChannel> _below = support::ScriptedChannel::make();
  const ZPKCommStackPtr _stack = ZPKCommStack::init();
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  silenceLog();
  Run(FuzzInput(bytes, size)).run();
  return 0;
}
