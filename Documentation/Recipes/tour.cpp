#include <ZephalIO/ZephalIO.h>

#include <cstdio>

int main(int, char** arguments) {
  ZPKErrorPtr error;

  // Configure.
  auto stack = ZPKCommStack::init();
  stack->setDelimiter("=> ", &error);

  // Create, and open.
  if (!stack->createStackWithURL(arguments[1], &error) ||
      !stack->openWithTimeout(std::nullopt, &error)) {
    std::printf("cannot open: %s\n", error == nullptr ? "?" : error->description().c_str());
    return 1;
  }

  // Talk.
  std::optional<std::string> version = stack->sendCommandString("version", 10.0, &error);
  if (!version.has_value()) {
    std::printf("no answer: %s\n", error == nullptr ? "?" : error->description().c_str());
    return 1;
  }
  std::printf("%s\n", version->c_str());

  // Close.
  return stack->close(&error) ? 0 : 1;
}
