#include <ZephalConsole/Console.h>

#include <cstdio>

// autoboot URL
int main(int, char** arguments) {
  using namespace std::chrono_literals;
  zephal::Console dut(arguments[1], {.prompt = "=> "});
  dut.send("reset");
  const zephal::Hit hit = dut.expect({"Hit any key", zephal::regex("login: $")}, 60s);
  if (hit.index == 1) {
    std::printf("too late, it has booted\n");
    return 1;
  }
  dut.send("");
  dut.expect("=> ");
  std::printf("%s", dut.ask("printenv bootdelay").c_str());
}
