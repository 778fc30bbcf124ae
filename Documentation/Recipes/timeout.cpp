#include <ZephalIO/ZephalIO.h>

#include <cstdio>
#include <string>

// timeout URL
int main(int, char** arguments) {
  ZPKErrorPtr error;
  auto stack = ZPKCommStack::init();
  stack->setDelimiter("=> ", &error);
  if (!stack->createStackWithURL(arguments[1], &error) ||
      !stack->openWithTimeout(std::nullopt, &error)) {
    std::printf("cannot open %s\n", arguments[1]);
    return 1;
  }
  if (stack->sendCommandString("selftest", 1.0, &error).has_value()) return 0;
  if (error == nullptr || error->code() != 305) return 1;

  // What has arrived without a prompt waits here. Look only while no other thread reads.
  const std::string partial = stack->aggregator()->buffer()->string().value_or("not UTF-8");
  std::printf("%s\nUntil then it said: %s\n", error->description().c_str(), partial.c_str());

  // The rest of the late answer would answer the next command. Wait for it, or reopen.
  if (!stack->readStringWithTimeout(30.0, std::nullopt, &error)) {
    stack->close();
    stack->openWithTimeout(std::nullopt);
  }
  std::printf("%s\n", stack->sendCommandString("version", 10.0, &error).value_or("?").c_str());
}
