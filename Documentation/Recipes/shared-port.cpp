#include <ZephalIO/ZephalIO.h>

#include <cstdio>

// shared-port URL
int main(int, char** arguments) {
  ZPKErrorPtr error;
  const auto options = ZPKOptions::init();
  options->set(ZEPHAL_COMMUNICATION_UART_EXCLUSIVE_LOCK, ZPKNumber(false));
  options->set(ZEPHAL_COMMUNICATION_UART_BAUD, ZPKNumber(115200));
  const auto port = createUARTChannel(ZPKURL::initWithString(arguments[1]), options, &error);

  auto stack = ZPKCommStack::init();
  stack->setDelimiter("=> ", &error);
  if (!stack->createStackWithBaseChannel(port, &error) ||
      !stack->openWithTimeout(std::nullopt, &error)) {
    std::printf("cannot open %s\n", arguments[1]);
    return 1;
  }
  const auto answer = stack->sendCommandString("version", 10.0, &error);
  std::printf("%s\n", answer.value_or("no answer").c_str());
  return stack->close(&error) && answer.has_value() ? 0 : 1;
}
