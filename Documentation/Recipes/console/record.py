import sys

import zephal

# record.py URL SECONDS
with zephal.Console(sys.argv[1], log="record.log") as dut:
    lines = dut.record(float(sys.argv[2]))
    for time, text in lines:
        since = time - lines[0].time
        print(f"{since.total_seconds():7.3f} {text}")
