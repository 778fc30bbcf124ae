#include "ZephalConsole/Internal/Telnet.h"

#include <algorithm>
#include <initializer_list>

namespace zephal::internal {
namespace {

constexpr unsigned char kEndOfSubnegotiation = 240;
constexpr unsigned char kSubnegotiation = 250;
constexpr unsigned char kWill = 251;
constexpr unsigned char kWont = 252;
constexpr unsigned char kDo = 253;
constexpr unsigned char kDont = 254;
constexpr unsigned char kCommand = 255;  // "interpret as command"

constexpr unsigned char kBinary = 0;
constexpr unsigned char kEcho = 1;
constexpr unsigned char kSuppressGoAhead = 3;
constexpr unsigned char kSerialPort = 44;
constexpr unsigned char kSetBaudRate = 1;

// A server that asks but does not read gets no more answers than this.
constexpr size_t kMostOwed = 4096;

std::string text(std::initializer_list<unsigned char> bytes) {
  return {bytes.begin(), bytes.end()};
}

std::string escaped(std::string_view bytes) {
  std::string result;
  for (const char byte : bytes) {
    if (static_cast<unsigned char>(byte) == kCommand) result += byte;
    result += byte;
  }
  return result;
}

}  // namespace

Telnet::Telnet(uint32_t baud) : _baud(baud) {
  _ours.set(kBinary).set(kSuppressGoAhead);
  _theirs.set(kBinary).set(kSuppressGoAhead);
  _owed = text({kCommand, kWill, kBinary, kCommand, kDo, kBinary, kCommand, kWill, kSuppressGoAhead,
                kCommand, kDo, kSuppressGoAhead});
  if (_baud == 0) return;
  _ours.set(kSerialPort);
  _owed += text({kCommand, kWill, kSerialPort});
}

void Telnet::begin(const Send& send) {
  const std::lock_guard held(_mutex);
  flush(send);
}

size_t Telnet::receive(char* bytes, size_t size, const Send& send) {
  size_t count = 0;
  for (size_t i = 0; i < size; ++i) {
    if (isData(static_cast<unsigned char>(bytes[i]))) bytes[count++] = bytes[i];
  }
  begin(send);
  return count;
}

bool Telnet::isData(unsigned char byte) {
  switch (_state) {
    case State::kData:
    case State::kReturn: {
      // Without binary transmission, a carriage return on its own is followed by a zero byte.
      const bool isPadding = _state == State::kReturn && byte == 0 && !_isBinary;
      _state = byte == '\r' ? State::kReturn : State::kData;
      if (byte == kCommand) _state = State::kCommand;
      return byte != kCommand && !isPadding;
    }
    case State::kCommand: return isDataAfterCommand(byte);
    case State::kOption:
      _state = State::kData;
      negotiate(byte);
      return false;
    case State::kSubnegotiation:
      if (byte == kCommand) _state = State::kSubnegotiationCommand;
      return false;
    case State::kSubnegotiationCommand:
      _state = byte == kEndOfSubnegotiation ? State::kData : State::kSubnegotiation;
      return false;
  }
  return false;
}

bool Telnet::isDataAfterCommand(unsigned char byte) {
  _state = State::kData;
  if (byte == kSubnegotiation) _state = State::kSubnegotiation;
  if (byte >= kWill && byte <= kDont) _state = State::kOption;
  _verb = byte;
  return byte == kCommand;
}

// What is on already is not answered, or two sides could answer each other for ever.
void Telnet::negotiate(unsigned char option) {
  if (_verb == kDo) weMay(option);
  if (_verb == kWill) serverWill(option);
  if (_verb == kDont) turnOff(option, _ours, kWont);
  if (_verb == kWont) turnOff(option, _theirs, kDont);
  if (option == kBinary && (_verb == kWill || _verb == kWont)) _isBinary = _verb == kWill;
}

void Telnet::weMay(unsigned char option) {
  const bool isKnown = option == kBinary || option == kSuppressGoAhead;
  const bool isPort = option == kSerialPort && _baud != 0;
  if (!isKnown && !isPort) return answer(text({kCommand, kWont, option}));
  if (!_ours.test(option)) answer(text({kCommand, kWill, option}));
  _ours.set(option);
  if (isPort) setBaudRate();
}

void Telnet::serverWill(unsigned char option) {
  const bool isKnown = option == kBinary || option == kSuppressGoAhead || option == kEcho;
  const bool isPort = option == kSerialPort && _baud != 0;
  if (!isKnown && !isPort) return answer(text({kCommand, kDont, option}));
  if (!_theirs.test(option)) answer(text({kCommand, kDo, option}));
  _theirs.set(option);
}

void Telnet::turnOff(unsigned char option, Options& options, unsigned char refusal) {
  if (options.test(option)) answer(text({kCommand, refusal, option}));
  options.reset(option);
}

void Telnet::setBaudRate() {
  std::string rate;
  for (int shift = 24; shift >= 0; shift -= 8) rate += static_cast<char>(_baud >> shift);
  answer(text({kCommand, kSubnegotiation, kSerialPort, kSetBaudRate}) + escaped(rate) +
         text({kCommand, kEndOfSubnegotiation}));
}

void Telnet::answer(std::string_view bytes) {
  const std::lock_guard held(_mutex);
  if (_owed.size() + bytes.size() <= kMostOwed) _owed += bytes;
}

ssize_t Telnet::write(std::string_view bytes, const Send& send) {
  const std::lock_guard held(_mutex);
  if (flush(send) < 0) return -1;
  if (!_owed.empty() || bytes.empty()) return 0;
  const size_t plain = std::min(bytes.find(static_cast<char>(kCommand)), bytes.size());
  if (plain > 0) return send(bytes.substr(0, plain));
  _owed = escaped(bytes.substr(0, 1));
  const ssize_t count = flush(send);
  if (count > 0) return 1;  // the rest of the pair, if any, is owed
  _owed.clear();
  return count;
}

ssize_t Telnet::flush(const Send& send) {
  if (_owed.empty()) return 0;
  const ssize_t count = send(_owed);
  if (count > 0) _owed.erase(0, static_cast<size_t>(count));
  return count;
}

}  // namespace zephal::internal
