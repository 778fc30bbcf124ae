#include <ZephalConsole/Console.h>

#include <cstdio>

// value URL
int main(int, char** arguments) {
  zephal::Console dut(arguments[1], {.prompt = "=> "});
  const double celsius = dut.ask("temperature", zephal::regex("([-0-9.]+) C")).number();
  std::printf("%.1f C is %s\n", celsius, celsius < 60 ? "fine" : "too hot");
}
