#include <ZephalIO/ZephalIO.h>

#include <cstdio>

// noise URL
int main(int, char** arguments) {
  ZPKErrorPtr error;
  auto stack = ZPKCommStack::init();
  stack->setDelimiter("=> ", &error);
  // Green on and colours off, as escape sequences, and a byte that a glitch on the line leaves.
  stack->setReadFiltersHex({"1B5B33326D", "1B5B306D", "FF"}, &error);
  if (!stack->createStackWithURL(arguments[1], &error) ||
      !stack->openWithTimeout(std::nullopt, &error)) {
    std::printf("cannot open %s\n", arguments[1]);
    return 1;
  }
  const auto answer = stack->sendCommandString("status", 10.0, &error);
  std::printf("%s\n", answer.value_or("no answer").c_str());
  return stack->close(&error) && answer.has_value() ? 0 : 1;
}
