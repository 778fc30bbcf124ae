#include <ZephalConsole/Console.h>

#include <cstdio>

// login URL USER PASSWORD...
int main(int count, char** arguments) {
  using namespace std::chrono_literals;
  zephal::Console dut(arguments[1], {.prompt = "# ", .log = "boot.log"});
  for (int index = 3; index < count; ++index) {
    try {
      dut.login(arguments[2], arguments[index], 60s);
      std::printf("%s", dut.ask("uname").c_str());
      return 0;
    } catch (const zephal::LoginRefused&) {
      std::printf("password %d is wrong\n", index - 2);
    }
  }
  return 1;
}
