import sys

import zephal

# timeout.py URL
with zephal.Console(sys.argv[1], prompt="=> ") as dut:
    try:
        dut.ask("selftest", timeout=3)
    except zephal.Timeout as timeout:
        print(timeout, file=sys.stderr)
    # Waits for the end of the self-test first.
    print(dut.ask("version", timeout=60), end="")
