#include <ZephalConsole/Console.h>

#include <cstdio>
#include <cstdlib>

int main(int, char** arguments) {
  zephal::Console dut(arguments[1], {.prompt = "# ", .log = "dut.log"});
  dut.login("root", std::getenv("PW"));
  std::printf("%s", dut.ask("uname -sr").c_str());
  const double volts = dut.ask("adc 3", zephal::regex(R"(([\d.]+) V)")).number();
  std::printf("rail 3 is at %.2f V\n", volts);
}
