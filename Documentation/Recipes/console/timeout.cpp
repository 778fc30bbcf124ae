#include <ZephalConsole/Console.h>

#include <cstdio>

// timeout URL
int main(int, char** arguments) {
  using namespace std::chrono_literals;
  zephal::Console dut(arguments[1], {.prompt = "=> "});
  try {
    dut.ask("selftest", 3s);
  } catch (const zephal::Timeout& timeout) {
    std::fprintf(stderr, "%s\n", timeout.what());
  }
  // Waits for the end of the self-test first.
  std::printf("%s", dut.ask("version", 60s).c_str());
}
