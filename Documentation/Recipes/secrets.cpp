#include <ZephalIO/ZephalIO.h>

#include <cstdio>
#include <fstream>
#include <memory>

// Passes everything that is read on, and copies it to a file. Nothing that is written gets there.
ZPKDataChannelPtr withLogOfReads(const ZPKDataChannelPtr& channel, const char* path) {
  const auto log = std::make_shared<std::ofstream>(path, std::ios::app | std::ios::binary);
  const auto copying = createBlockTransformer(
      [log](ZPKMutableData* chunk) { *log << chunk->view() << std::flush; }, [] {});
  return createChannelTransformer(channel, {copying}, {});
}

// secrets URL LOG PASSWORD
int main(int, char** arguments) {
  ZPKErrorPtr error;
  auto stack = ZPKCommStack::init();
  stack->setDelimiter("# ", &error);
  const ZPKDataChannelPtr base = createBaseChannelWithTransport(arguments[1], &error);
  if (base == nullptr ||
      !stack->createStackWithBaseChannel(withLogOfReads(base, arguments[2]), &error) ||
      !stack->openWithTimeout(std::nullopt, &error)) {
    std::printf("cannot open %s\n", arguments[1]);
    return 1;
  }
  // A write and a read: the error of a command would show the password.
  const bool isIn = stack->writeString("su", &error) &&
                    stack->readStringWithTimeout(10.0, "Password: ", &error).has_value() &&
                    stack->writeString(arguments[3], &error) &&
                    stack->readStringWithTimeout(10.0, std::nullopt, &error).has_value();
  std::printf("%s\n", isIn ? "in" : "no access");
  return stack->close(&error) && isIn ? 0 : 1;
}
