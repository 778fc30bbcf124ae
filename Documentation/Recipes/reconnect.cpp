#include <ZephalIO/ZephalIO.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>

using Clock = std::chrono::steady_clock;

// Everything up to the prompt, from a device that may be away for a while.
std::optional<std::string> bootLog(ZPKCommStack& stack, const std::string& url, double seconds) {
  const auto end = Clock::now() + std::chrono::duration<double>(seconds);
  while (Clock::now() < end) {
    // Creating the stack again drops what the old connection has left behind.
    if (stack.isOpen() == 0 &&
        (!stack.createStackWithURL(url) || !stack.openWithTimeout(std::nullopt))) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      continue;
    }
    if (auto text = stack.readStringWithTimeout(1.0, std::nullopt)) return text;
  }
  return std::nullopt;
}

// reconnect URL
int main(int, char** arguments) {
  ZPKErrorPtr error;
  auto stack = ZPKCommStack::init();
  stack->setDelimiter("=> ", &error);
  if (!stack->createStackWithURL(arguments[1], &error) ||
      !stack->openWithTimeout(std::nullopt, &error) || !stack->writeString("reboot", &error)) {
    std::printf("cannot reboot %s\n", arguments[1]);
    return 1;
  }
  const std::optional<std::string> text = bootLog(*stack, arguments[1], 60);
  std::printf("%s\n", text.value_or("the device did not come back").c_str());
  return text.has_value() ? 0 : 1;
}
