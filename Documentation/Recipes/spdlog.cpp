#include <ZephalIO/ZephalIO.h>
#include <ZephalLogging/ZephalLogging.h>
#include <spdlog/spdlog.h>

#include <cstdio>

// spdlog URL
int main(int, char** arguments) {
  spdlog::set_pattern("[%l] %v");
  ZPKLoggingSetSink([](int level, std::string_view line) {
    spdlog::log(level == 0 ? spdlog::level::err : spdlog::level::info, "{}", line);
  });

  ZPKErrorPtr error;
  auto stack = ZPKCommStack::init();
  const bool isOpen = stack->createStackWithURL(arguments[1], &error) &&
                      stack->openWithTimeout(std::nullopt, &error);
  ZPKLoggingSetSink(nullptr);
  std::printf("%s\n", isOpen ? "open" : "not open");
}
