#include "DeviceAnswer.h"

#include <utility>

namespace zephal {

DeviceAnswer::DeviceAnswer(std::string words) : text(std::move(words)) {}
DeviceAnswer::DeviceAnswer(std::string_view words) : text(words) {}
DeviceAnswer::DeviceAnswer(const char* words) : text(words) {}

DeviceAnswer DeviceAnswer::silence() {
  DeviceAnswer answer;
  answer.isSilent = true;
  return answer;
}

DeviceAnswer DeviceAnswer::withoutPrompt(std::string text) {
  DeviceAnswer answer(std::move(text));
  answer.then = Then::kNothing;
  return answer;
}

DeviceAnswer DeviceAnswer::after(std::chrono::milliseconds delay, std::string text) {
  DeviceAnswer answer(std::move(text));
  answer.delay = delay;
  return answer;
}

DeviceAnswer DeviceAnswer::hangUp(std::string text) {
  DeviceAnswer answer(std::move(text));
  answer.then = Then::kHangUp;
  return answer;
}

DeviceAnswer DeviceAnswer::reboot(std::string text, std::chrono::milliseconds away) {
  DeviceAnswer answer(std::move(text));
  answer.then = Then::kReboot;
  answer.away = away;
  return answer;
}

}  // namespace zephal
