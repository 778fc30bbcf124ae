#include <ZephalConsole/Console.h>

#include <cstdio>

// run URL
int main(int, char** arguments) {
  zephal::Console dut(arguments[1], {.prompt = "# "});
  const auto [output, status] = dut.run("systemctl is-active app");
  std::printf("status %d: %s", status, output.c_str());
  return status;
}
