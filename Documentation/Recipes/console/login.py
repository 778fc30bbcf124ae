import sys

import zephal

# login.py URL USER PASSWORD...
with zephal.Console(sys.argv[1], prompt="# ", log="boot.log") as dut:
    for number, password in enumerate(sys.argv[3:], start=1):
        try:
            dut.login(sys.argv[2], password, timeout=60)
            print(dut.ask("uname"), end="")
            sys.exit(0)
        except zephal.LoginRefused:
            print(f"password {number} is wrong")
sys.exit(1)
