import sys

import zephal

# value.py URL
with zephal.Console(sys.argv[1], prompt="=> ") as dut:
    celsius = dut.ask("temperature", zephal.regex("([-0-9.]+) C")).number()
    print(f"{celsius:.1f} C is {'fine' if celsius < 60 else 'too hot'}")
