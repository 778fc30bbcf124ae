#include <ZephalIO/ZephalIO.h>

#include <cstdio>

// crlf URL
int main(int, char** arguments) {
  ZPKErrorPtr error;
  auto stack = ZPKCommStack::init();
  stack->setDelimiter("# ", &error);
  // Without the carriage returns, the echo is the command and the line feed that was sent.
  stack->setReadFilters({"\r"}, &error);
  if (!stack->createStackWithURL(arguments[1], &error) ||
      !stack->openWithTimeout(std::nullopt, &error)) {
    std::printf("cannot open %s\n", arguments[1]);
    return 1;
  }
  const auto answer = stack->sendCommandStringWithEchoRemoval("version", 10.0, &error);
  std::printf("%s\n", answer.value_or("no answer").c_str());
  return stack->close(&error) && answer.has_value() ? 0 : 1;
}
