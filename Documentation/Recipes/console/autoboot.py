import sys

import zephal

# autoboot.py URL
with zephal.Console(sys.argv[1], prompt="=> ") as dut:
    dut.send("reset")
    hit = dut.expect(["Hit any key", zephal.regex("login: $")], timeout=60)
    if hit.index == 1:
        sys.exit("too late, it has booted")
    dut.send("")
    dut.expect("=> ")
    print(dut.ask("printenv bootdelay"), end="")
