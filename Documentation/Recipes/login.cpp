#include <ZephalIO/ZephalIO.h>

#include <cstdio>
#include <string>

// login URL USER PASSWORD
int main(int, char** arguments) {
  ZPKErrorPtr error;
  auto stack = ZPKCommStack::init();
  stack->setDelimiter("# ", &error);
  if (!stack->createStackWithURL(arguments[1], &error) ||
      !stack->openWithTimeout(std::nullopt, &error)) {
    std::printf("cannot open %s\n", arguments[1]);
    return 1;
  }

  // A delimiter that is given to a read replaces the stack's own for this read.
  const auto read = [&](double seconds, std::optional<std::string_view> delimiter) {
    return stack->readStringWithTimeout(seconds, delimiter, &error);
  };
  const std::optional<std::string> bootLog = read(60, "login: ");
  const bool isLoggedIn = bootLog.has_value() && stack->writeString(arguments[2], &error) &&
                          read(10, "Password: ").has_value() &&
                          stack->writeString(arguments[3], &error) &&
                          read(10, std::nullopt).has_value();
  if (!isLoggedIn) {
    std::printf("no login: %s\n", error == nullptr ? "?" : error->description().c_str());
    return 1;
  }
  std::printf("%s\n", bootLog->c_str());
  std::printf("%s\n", stack->sendCommandString("uname", 10.0, &error).value_or("?").c_str());
  return stack->close(&error) ? 0 : 1;
}
