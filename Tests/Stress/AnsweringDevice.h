#pragma once

#include <string>

#include "Stress/Dice.h"
#include "Support/SimulatedDevice.h"

namespace support {

/// A simulated device of any kind that answers each command with itself, in capitals so that an
/// echo is no answer, and a prompt. Two threads of its own take part in every schedule.
class AnsweringDevice {
 public:
  explicit AnsweringDevice(Dice& dice);

  SimulatedDevice device;

  static constexpr const char* kPrompt = "=> ";
  /// A command that nobody else sends.
  static std::string command(size_t talker, size_t number);
  /// The whole answer to it, with the prompt.
  static std::string answer(const std::string& command);
};

}  // namespace support
