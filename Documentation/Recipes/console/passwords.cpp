#include <ZephalConsole/Console.h>

// passwords URL PASSWORD
int main(int, char** arguments) {
  zephal::Console dut(arguments[1], {.log = "dut.log"});
  dut.send("passwd");
  dut.expect("New password: ");
  dut.sendSecret(arguments[2]);
  dut.expect("# ");
}
