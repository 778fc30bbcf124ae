#include <ZephalIO/ZephalIO.h>
#include <ZephalLogging/ZephalLogging.h>
#include <sys/socket.h>

#include <cstdio>
#include <string_view>

// Sends a command to a device that has answered already, and sends one failure to its own log.
int main() {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return 1;
  constexpr std::string_view kAnswer = "installed and working\n> ";
  if (::send(ends[1], kAnswer.data(), kAnswer.size(), 0) < 0) return 1;

  ZPKErrorPtr error;
  const auto stack = ZPKCommStack::init();
  if (!stack->createStackWithBaseChannel(createActiveTCPChannelWithSocket(ends[0]), &error))
    return 1;
  const auto answer = stack->sendCommandString("status", 30, &error);
  if (!answer.has_value()) return 1;
  std::printf("answer: %s\n", answer->c_str());

  ZPKLoggingSetSink([](int level, std::string_view line) {
    std::printf("log %d: %.*s\n", level, static_cast<int>(line.size()), line.data());
  });
  return createBaseChannelWithTransport("ftp://nowhere") == nullptr ? 0 : 1;
}
