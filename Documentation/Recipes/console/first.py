import os
import sys

import zephal

with zephal.Console(sys.argv[1], prompt="# ", log="dut.log") as dut:
    dut.login("root", os.environ["PW"])
    print(dut.ask("uname -sr"), end="")
    volts = dut.ask("adc 3", zephal.regex(r"([\d.]+) V")).number()
    print(f"rail 3 is at {volts:.2f} V")
