"""Builds the package with CMake; `pip install .` needs no network.

In the source tree of the libraries it builds those too, as part of the module. With
ZEPHAL_USE_INSTALLED in the environment, and without that tree, it uses the libraries that are
installed, which CMAKE_PREFIX_PATH finds.

Needs a C++20 compiler, CMake with Ninja or make, pybind11 and, for the libraries, PCRE2 (Debian: g++
cmake ninja-build pybind11-dev libpcre2-dev python3-dev). CMAKE_ARGS are further options for CMake,
and ZEPHAL_BUILD_FOLDER is where it builds, to keep what it has built.
"""

import os
import pathlib
import shlex
import shutil
import subprocess
import sys
from typing import Dict, List

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

HERE = pathlib.Path(__file__).resolve().parent
# Only a source distribution has this file. Whatever lies around one is not our tree.
PACKAGE_INFORMATION = HERE / "PKG-INFO"
USES_INSTALLED = "ZEPHAL_USE_INSTALLED" in os.environ or PACKAGE_INFORMATION.exists()


def word_after(beginning: str, file: pathlib.Path) -> str:
    """The word that follows the beginning of a line."""
    for line in file.read_text(encoding="utf-8").splitlines():
        if line.startswith(beginning):
            return line[len(beginning) :].split()[0]
    raise RuntimeError(f"{file} names no version")


def version() -> str:
    """The version of the libraries, from the one place that has it."""
    if PACKAGE_INFORMATION.exists():
        return word_after("Version: ", PACKAGE_INFORMATION)
    return word_after("project(ZephalIO VERSION ", HERE.parent / "CMakeLists.txt")


def definitions() -> Dict[str, str]:
    """What CMake is told."""
    given = {"CMAKE_BUILD_TYPE": "Release", "Python_EXECUTABLE": sys.executable}
    if USES_INSTALLED:
        return given
    # Static libraries, so that the module needs nothing else installed.
    return given | {
        "CMAKE_POSITION_INDEPENDENT_CODE": "ON",
        "BUILD_SHARED_LIBS": "OFF",
        "ZEPHALIO_BUILD_PYTHON": "ON",
        "ZEPHALIO_BUILD_TESTS": "OFF",
        "ZEPHALIO_BUILD_EXAMPLES": "OFF",
    }


def options() -> List[str]:
    """The options of CMake."""
    generator = ["-G", "Ninja"] if shutil.which("ninja") else []
    defines = [f"-D{name}={value}" for name, value in definitions().items()]
    return generator + defines + shlex.split(os.environ.get("CMAKE_ARGS", ""))


class BuildWithCMake(build_ext):
    """Builds the module."""

    def build_extension(self, ext: Extension) -> None:
        target = pathlib.Path(self.get_ext_fullpath(ext.name)).resolve()
        build = pathlib.Path(os.environ.get("ZEPHAL_BUILD_FOLDER", self.build_temp)).resolve()
        build.mkdir(parents=True, exist_ok=True)
        source = HERE if USES_INSTALLED else HERE.parent
        subprocess.run(["cmake", "-S", str(source), "-B", str(build), *options()], check=True)
        jobs = str(os.cpu_count() or 1)
        command = ["cmake", "--build", str(build), "--target", "zephal_python", "--parallel", jobs]
        subprocess.run(command, check=True)
        target.parent.mkdir(parents=True, exist_ok=True)
        (built,) = (build if USES_INSTALLED else build / "Python").glob("zephal/_zephal*.so")
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
