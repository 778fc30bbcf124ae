// Both ends of the packet framing, with widths that change and sizes that lie: they leave what a
// plain reading of the format leaves.
#include <cstddef>
#include <cstdint>
#include <string>

#include "Data Transformers Internal/ZPIPacketAggregatorTransformer.h"
#include "Data Transformers Internal/ZPIPacketSizePrependTransformer.h"
#include "FuzzInput.h"
#include "FuzzSupport.h"

namespace {

bool isWidth(int width) { return width >= 1 && width <= 8; }

std::string bigEndian(uint64_t value, int width) {
  std::string field;
  for (int i = width - 1; i >= 0; --i) field += static_cast<char>(value >> (8 * i));
  return field;
}

// The payload with its size in front, or alone if the size does not fit the width.
std::string framed(const std::string& payload, int width) {
  if (!isWidth(width)) return payload;
  if (width < 8 && payload.size() >> (8 * width) != 0) return payload;
  return bigEndian(payload.size(), width) + payload;
}

// The receiving end.
struct Model {
  int width = 1;
  std::string held = {};
  uint64_t expected = 0;

  std::string take(const std::string& chunk) {
    held += chunk;
    if (expected == 0 && isWidth(width) && held.size() >= static_cast<size_t>(width)) readSize();
    if (expected == 0 || held.size() < expected) return "";
    const std::string payload = held.substr(0, static_cast<size_t>(expected));
    held.erase(0, static_cast<size_t>(expected));
    expected = 0;
    return payload;
  }

 private:
  // Only the low 32 bits count, and they have a sign.
  void readSize() {
    uint32_t size = 0;
    for (const char byte : held.substr(0, static_cast<size_t>(width))) {
      size = size * 256 + static_cast<uint8_t>(byte);
    }
    expected = size >= 0x80000000U ? 0xFFFFFFFF00000000U + size : size;
    held.erase(0, static_cast<size_t>(width));
  }
};

class Run {
 public:
  explicit Run(FuzzInput input) : _input(input) {}

  void run() {
    while (!_input.isUsedUp()) {
      step();
      require(_receiver->buffer()->view() == _model.held, "the buffer has what the model holds");
      require(_receiver->expectedPacketSize() == _model.expected, "the size is the model's");
    }
  }

 private:
  void step() {
    switch (_input.below(8)) {
      case 0: return setWidth(static_cast<int>(_input.below(12)) - 1);
      case 1: return reset();
      case 2: return send(_input.text());
      case 3: return send(std::string(static_cast<size_t>(_input.number(3) % 70000), 'x'));
      case 4: return receive(hostileSize());
      case 5: return receive(framed(_input.text(), _model.width) + framed("next", _model.width));
      default: return receive(_input.text());
    }
  }

  void setWidth(int width) {
    _receiver->setPacketLengthEncoding(width);
    _sender->setPacketLengthEncoding(width);
    _model.width = width;
  }

  void reset() {
    require(_receiver->reset(nullptr) && _sender->reset(nullptr), "a reset succeeds");
    _model.held.clear();
    _model.expected = 0;
  }

  void send(const std::string& payload) {
    require(passed(*_sender, _input, payload) == framed(payload, _model.width),
            "a payload is sent with its size");
  }

  void receive(const std::string& bytes) {
    require(passed(*_receiver, _input, bytes) == _model.take(bytes), "the receiver agrees");
  }

  std::string hostileSize() {
    if (!isWidth(_model.width)) return "";
    const uint64_t nearLimit = (uint64_t{1} << _input.below(64)) - 1 + _input.below(3);
    return bigEndian(nearLimit, _model.width);
  }

  FuzzInput _input;
  Model _model;
  const ZPIPacketAggregatorTransformerPtr _receiver =
      ZPIPacketAggregatorTransformer::initWithPacketLengthEncoding(1);
  const ZPIPacketSizePrependTransformerPtr _sender =
      ZPIPacketSizePrependTransformer::initWithPacketLengthEncoding(1);
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
  silenceLog();
  Run(FuzzInput(bytes, size)).run();
  return 0;
}
