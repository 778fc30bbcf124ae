import sys

import zephal

# run.py URL
with zephal.Console(sys.argv[1], prompt="# ") as dut:
    output, status = dut.run("systemctl is-active app")
    print(f"status {status}: {output}", end="")
sys.exit(status)
