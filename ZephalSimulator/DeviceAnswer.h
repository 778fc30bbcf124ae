#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace zephal {

/// What a simulated device does when it has received a command. Mostly just a text, which the
/// device's prompt follows:
///
///     {"version", "1.0\n"}
///     {"reboot", DeviceAnswer::reboot("Going down\n", 2s)}
struct DeviceAnswer {
  /// What happens after the text.
  enum class Then { kPrompt, kNothing, kHangUp, kReboot };

  /// Only the prompt.
  DeviceAnswer() = default;
  /// A text and the prompt. Implicit, so that a text can be passed as an answer.
  DeviceAnswer(std::string words);
  /// \overload
  DeviceAnswer(std::string_view words);
  /// \overload
  DeviceAnswer(const char* words);

  /// Neither echo nor text nor prompt.
  static DeviceAnswer silence();
  /// The text, and no prompt after it.
  static DeviceAnswer withoutPrompt(std::string text);
  /// The text and the prompt, after `delay` instead of DeviceBehaviour::delay.
  static DeviceAnswer after(std::chrono::milliseconds delay, std::string text);
  /// Sends the text and ends the connection.
  static DeviceAnswer hangUp(std::string text = {});
  /// Sends the text and reboots; the device comes back `away` later. See SimulatedDevice::reboot.
  static DeviceAnswer reboot(std::string text = {},
                             std::chrono::milliseconds away = std::chrono::milliseconds(0));

  /// What is sent after the echo.
  std::string text;
  /// What happens after the text.
  Then then = Then::kPrompt;
  /// Sends nothing at all.
  bool isSilent = false;
  /// How long the answer is delayed; null: as the behaviour says.
  std::optional<std::chrono::milliseconds> delay;
  /// The prompt after this answer; null: that of the behaviour.
  std::optional<std::string> prompt;
  /// How long the device is gone when it reboots.
  std::chrono::milliseconds away{0};
};

}  // namespace zephal
