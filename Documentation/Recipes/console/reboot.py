import sys

import zephal

# reboot.py URL
with zephal.Console(sys.argv[1], prompt="=> ") as dut:
    print(dut.reboot("reboot", timeout=60), end="")
