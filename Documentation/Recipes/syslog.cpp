#include <ZephalIO/ZephalIO.h>
#include <ZephalLogging/ZephalLogging.h>
#include <syslog.h>

#include <cstdio>
#include <string>

// syslog URL
int main(int, char** arguments) {
  // LOG_PERROR shows the lines on standard error too.
  ::openlog("station", LOG_PID | LOG_PERROR, LOG_USER);
  ZPKLoggingSetSink([](int level, std::string_view line) {
    // Never as the format: a line may contain what a device has sent.
    ::syslog(level == 0 ? LOG_ERR : LOG_NOTICE, "%s", std::string(line).c_str());
  });

  ZPKErrorPtr error;
  auto stack = ZPKCommStack::init();
  const bool isOpen = stack->createStackWithURL(arguments[1], &error) &&
                      stack->openWithTimeout(std::nullopt, &error);
  ZPKLoggingSetSink(nullptr);  // before what the sink uses goes away
  std::printf("%s\n", isOpen ? "open" : "not open");
}
