#include <ZephalConsole/Console.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

// record URL SECONDS
int main(int, char** arguments) {
  zephal::Console dut(arguments[1], {.log = "record.log"});
  const std::vector<zephal::TimedLine> lines = dut.record(zephal::Seconds(std::atof(arguments[2])));
  for (const auto& [time, text] : lines) {
    const zephal::Seconds since = time - lines.front().time;
    std::printf("%7.3f %s\n", since.count(), text.c_str());
  }
}
