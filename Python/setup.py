"""Builds the package with CMake; `pip install .` needs no network.

Needs a C++20 compiler, CMake with Ninja or make, pybind11 and PCRE2 (Debian: g++ cmake ninja-build
pybind11-dev libpcre2-dev python3-dev). ZEPHAL_BUILD_FOLDER in the environment keeps what CMake builds.
"""

import os
import pathlib
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = pathlib.Path(__file__).resolve().parent.parent


def version() -> str:
    """The version of the libraries, from the one place that has it."""
    for line in (ROOT / "CMakeLists.txt").read_text().splitlines():
        if line.startswith("project(ZephalIO VERSION "):
            return line.split()[2]
    raise RuntimeError("CMakeLists.txt names no version")


class BuildWithCMake(build_ext):
    """Builds the module with static libraries, so that it needs nothing else installed."""

    def build_extension(self, ext: Extension) -> None:
        target = pathlib.Path(self.get_ext_fullpath(ext.name)).resolve()
        build = pathlib.Path(os.environ.get("ZEPHAL_BUILD_FOLDER", self.build_temp)).resolve()
        build.mkdir(parents=True, exist_ok=True)
        options = {
            "CMAKE_BUILD_TYPE": "Release",
            "CMAKE_POSITION_INDEPENDENT_CODE": "ON",
            "BUILD_SHARED_LIBS": "OFF",
            "ZEPHALIO_BUILD_PYTHON": "ON",
            "ZEPHALIO_BUILD_SIMULATOR": "ON",
            "ZEPHALIO_BUILD_TESTS": "OFF",
            "ZEPHALIO_BUILD_EXAMPLES": "OFF",
            "Python_EXECUTABLE": sys.executable,
        }
        defines = [f"-D{name}={value}" for name, value in options.items()]
        generator = ["-G", "Ninja"] if shutil.which("ninja") else []
        subprocess.run(["cmake", *generator, "-S", str(ROOT), "-B", str(build), *defines], check=True)
        jobs = str(os.cpu_count() or 1)
        command = ["cmake", "--build", str(build), "--target", "zephal_python", "--parallel", jobs]
        subprocess.run(command, check=True)
        target.parent.mkdir(parents=True, exist_ok=True)
        (built,) = (build / "Python" / "zephal").glob("_zephal*.so")
        target.write_bytes(built.read_bytes())


setup(
    name="zephal",
    version=version(),
    description="Talks to the console of a device under test",
    packages=["zephal"],
    package_data={"zephal": ["py.typed", "*.pyi"]},
    ext_modules=[Extension("zephal._zephal", sources=[])],
    cmdclass={"build_ext": BuildWithCMake},
    entry_points={"pytest11": ["zephal = zephal.pytest_plugin"]},
    python_requires=">=3.9",
)
