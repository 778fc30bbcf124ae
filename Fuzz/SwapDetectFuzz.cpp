// The swap detector on prompts that are nearly right, with everything settable changing in between.
#include <cinttypes>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

#include "Data Transformers/ZPKECIDSwapDetectTransformer.h"
#include "FuzzInput.h"
#include "FuzzSupport.h"
#include "Models/SwapModel.h"

namespace {

std::string textOfECID(uint64_t ecid) {
  char digits[17] = {};
  std::snprintf(digits, sizeof digits, "%016" PRIX64, ecid);
  const std::string text = digits;
  return "[" + text.substr(0, 8) + ":" + text.substr(8) + "]";
}

class Run {
 public:
  explicit Run(FuzzInput input) : _input(input) {}

  void run() {
    while (!_input.isUsedUp()) step();
  }

 private:
  void step() {
    switch (_input.below(8)) {
      case 0: return expectNumber();
      case 1: return expectText(_input.text(20));
      case 2: return expectNothing();
      case 3: return setDrops(_input.flag());
      case 4: return setDelimiter();
      default: return take(chunk());
    }
  }

  void expectNumber() {
    const uint64_t ecid = someECID();
    _detector->setExpectedECID(ZPKNumber(ecid));
    _model.expected = textOfECID(ecid);
    require(_detector->expectedECIDString() == _model.expected, "the number becomes its text");
    require(_detector->expectedECID().unsignedIntegerValue() == ecid, "the number comes back");
  }

  void expectText(const std::string& text) {
    _detector->setExpectedECIDString(text);
    _model.expected = text;
  }

  void expectNothing() {
    _detector->setExpectedECID(std::nullopt);
    _model.expected.clear();
    require(_detector->expectedECID().unsignedIntegerValue() == 0, "nothing is expected");
  }

  void setDrops(bool drops) {
    _detector->setDropResponseWhenECIDSwapDetected(drops);
    _model.drops = drops;
  }

  void setDelimiter() {
    switch (_input.below(4)) {
      case 0: _model.delimiter = std::nullopt; break;
      case 1: _model.delimiter = _input.textOf("] :-", 2); break;
      default: _model.delimiter = "] :-) ";
    }
    _detector->setSmileyDelimiter(ZPKData::dataWithString(_model.delimiter));
  }

  // Few, so that some are the expected one.
  uint64_t someECID() {
    const uint64_t base = _input.flag() ? 0x0001A2B3C4D5E6F7 : 0xFFFFFFFF00000000;
    return base + _input.below(2);
  }

  std::string chunk() {
    std::string text = _input.textOf("ab\n", 20);
    const size_t prompts = _input.below(3);
    for (size_t i = 0; i < prompts; ++i) text += prompt() + _input.textOf("] :", 3);
    return text;
  }

  std::string prompt() {
    std::string text = textOfECID(someECID()) + " :-) ";
    const size_t place = _input.below(text.size());
    if (_input.below(3) == 0) text[place] = static_cast<char>(_input.byte());
    if (_input.below(6) == 0) text.erase(0, place);
    if (_input.below(6) == 0) text.replace(text.find("D5E6") % text.size(), 1, "d");
    return text;
  }

  void take(const std::string& bytes) {
    _swaps.clear();
    const auto read = _model.swapIn(bytes);
    const std::string result = passed(*_detector, _input, bytes);
    require(result == _model.take(bytes), "the response is dropped after a swap, or passes");
    require(_swaps == (read.has_value() ? _model.expected + " " + *read + ";" : ""),
            "a swap is told one time, with both identifiers");
  }

  FuzzInput _input;
  SwapModel _model;
  std::string _swaps;
  const ZPKECIDSwapDetectTransformerPtr _detector =
      ZPKECIDSwapDetectTransformer::initWithSwapAction(
          [this](const std::string& expected, const std::string& read) {
            _swaps += expected + " " + read + ";";
          });
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  silenceLog();
  Run(FuzzInput(bytes, size)).run();
  return 0;
}
