#include <ZephalIO/ZephalIO.h>

#include <cstdio>
#include <string>

// value URL
int main(int, char** arguments) {
  ZPKErrorPtr error;
  auto stack = ZPKCommStack::init();
  stack->setDelimiter("=> ", &error);
  if (!stack->createStackWithURL(arguments[1], &error) ||
      !stack->openWithTimeout(std::nullopt, &error)) {
    std::printf("cannot open %s\n", arguments[1]);
    return 1;
  }

  // The result is the first group of the pattern.
  const auto celsius = ZPKRegex::initWithPattern("([-0-9.]+) C", &error);
  const std::optional<std::string> text =
      stack->sendCommandStringWithEchoRemoval("temperature", celsius, 10.0, &error);
  if (!text.has_value()) {
    std::printf("no temperature: %s\n", error == nullptr ? "?" : error->description().c_str());
    return 1;
  }
  const double temperature = std::stod(*text);
  std::printf("%.1f C is %s\n", temperature, temperature < 60 ? "fine" : "too hot");
  return stack->close(&error) ? 0 : 1;
}
