import sys

import zephal

# passwords.py URL PASSWORD
with zephal.Console(sys.argv[1], log="dut.log") as dut:
    dut.send("passwd")
    dut.expect("New password: ")
    dut.send_secret(sys.argv[2])
    dut.expect("# ")
