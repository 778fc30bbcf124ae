#include "Stress/AnsweringDevice.h"

namespace support {

namespace {

zephal::DeviceBehaviour behaviourOf(Dice& dice) {
  zephal::DeviceBehaviour behaviour;
  behaviour.prompt = AnsweringDevice::kPrompt;
  behaviour.respond = [](const std::string& command) {
    return zephal::DeviceAnswer("<" + command + ">\n");
  };
  if (dice.oneIn(3)) behaviour.splitsAfter = {1 + dice.below(3), 5 + dice.below(3)};
  behaviour.pause = std::chrono::milliseconds(dice.below(2));
  return behaviour;
}

zephal::DeviceKind anyKind(Dice& dice) {
  using Kind = zephal::DeviceKind;
  constexpr Kind kKinds[] = {Kind::kTerminal, Kind::kTCP, Kind::kUnix};
  return kKinds[dice.below(3)];
}

}  // namespace

AnsweringDevice::AnsweringDevice(Dice& dice) : device(anyKind(dice), behaviourOf(dice)) {}

std::string AnsweringDevice::command(size_t talker, size_t number) {
  return "talker " + std::to_string(talker) + " asks " + std::to_string(number);
}

std::string AnsweringDevice::answer(const std::string& command) {
  return "<" + command + ">\n" + kPrompt;
}

}  // namespace support
