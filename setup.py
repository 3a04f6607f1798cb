"""Builds the zyldb Python package: CMake compiles the extension (target
zyldb_python, the library linked in statically), setuptools packages it with
the pure-Python modules of python/zyldb.

    python3 -m pip install --no-build-isolation .

Needs cmake, a C++20 compiler, pybind11-dev and python3-dev (scripts/setup.sh
installs them); nothing is downloaded.
"""

import os
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = os.path.dirname(os.path.abspath(__file__))


def _version():
    with open(os.path.join(ROOT, "CMakeLists.txt"), encoding="utf-8") as f:
        for line in f:
            if line.startswith("project(zyldb VERSION"):
                return line.split()[2]
    return "0"


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build = os.path.abspath(os.path.join(self.build_temp, "cmake"))
        os.makedirs(build, exist_ok=True)
        configure = [
            "cmake", "-S", ROOT, "-B", build,
            "-DCMAKE_BUILD_TYPE=Release",
            "-DPython_EXECUTABLE=" + sys.executable,
            "-DZYLDB_BUILD_PYTHON=ON",
            "-DZYLDB_BUILD_TESTS=OFF",
            "-DZYLDB_BUILD_BENCHMARKS=OFF",
            "-DZYLDB_BUILD_TOOLS=OFF",
            "-DZYLDB_BUILD_EXAMPLES=OFF",
            "-DZYLDB_INSTALL=OFF",
        ]
        if shutil.which("ninja"):
            configure += ["-G", "Ninja"]
        subprocess.check_call(configure)
        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", str(os.cpu_count() or 1))
        subprocess.check_call(
            ["cmake", "--build", build, "--target", "zyldb_python", "-j", jobs])
        built = os.path.join(build, "python", "zyldb", os.path.basename(self.get_ext_filename(ext.name)))
        target = self.get_ext_fullpath(ext.name)
        os.makedirs(os.path.dirname(target), exist_ok=True)
        shutil.copyfile(built, target)


setup(
    name="zyldb",
    version=_version(),
    description="Clip logs for film and video post-production: load, sort, search, tag, views, save",
    packages=["zyldb"],
    package_dir={"": "python"},
    package_data={"zyldb": ["*.pyi", "py.typed"]},
    ext_modules=[Extension("zyldb._zyldb", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
    python_requires=">=3.9",
    extras_require={"pandas": ["pandas"]},
    zip_safe=False,
)
