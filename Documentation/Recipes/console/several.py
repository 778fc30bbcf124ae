import sys
from concurrent.futures import ThreadPoolExecutor

import zephal


def version_of(url):
    with zephal.Console(url, prompt="=> ") as dut:
        return dut.ask("version")


# several.py URL...
urls = sys.argv[1:]
with ThreadPoolExecutor(len(urls)) as pool:
    for version in pool.map(version_of, urls):
        print(version, end="")
