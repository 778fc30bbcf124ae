#include <ZephalConsole/Console.h>

#include <cstdio>

// reboot URL
int main(int, char** arguments) {
  using namespace std::chrono_literals;
  zephal::Console dut(arguments[1], {.prompt = "=> "});
  std::printf("%s", dut.reboot("reboot", 60s).c_str());
}
