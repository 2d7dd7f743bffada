"""Builds the framealign module through the project's CMake build.

The extension is CMake's target `framealign_python`, configured for the
Python that runs this build; the library is linked into it statically, so
the installed module needs only OpenCV's shared libraries. The type stub
goes in as the stub-only package `framealign-stubs`, where type checkers
look for it.
"""
import os
import pathlib
import re
import shutil
import subprocess
import sys

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = pathlib.Path(__file__).resolve().parent


def version():
    text = (ROOT / "CMakeLists.txt").read_text()
    return re.search(r"project\(framealign VERSION ([0-9.]+)", text).group(1)


class CMakeBuild(build_ext):
    """Configures and builds the module target, then copies it in place."""

    def build_extension(self, ext):
        build = pathlib.Path(self.build_temp).resolve() / "cmake"
        build.mkdir(parents=True, exist_ok=True)
        configure = ["cmake", "-S", str(ROOT), "-B", str(build), "-DCMAKE_BUILD_TYPE=Release",
                     "-DBUILD_TESTING=OFF", f"-DPython_EXECUTABLE={sys.executable}"]
        jobs = str(os.cpu_count() or 1)
        for command in (configure, ["cmake", "--build", str(build), "--target", "framealign_python",
                                    "--parallel", jobs]):
            try:
                subprocess.run(command, check=True)
            except FileNotFoundError:
                sys.exit("framealign: cmake is needed to build the module (Debian: apt-get install cmake g++ "
                         "libopencv-dev libcli11-dev pybind11-dev python3-dev)")
        built = sorted((build / "python").glob("framealign*.so"))
        if not built:
            sys.exit(f"framealign: the build left no module in {build / 'python'}")
        target = pathlib.Path(self.get_ext_fullpath(ext.name))
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(built[0], target)
        # Beside the module in the wheel: build_py does not run for a
        # distribution without Python packages.
        stubs = target.parent / "framealign-stubs"
        stubs.mkdir(exist_ok=True)
        shutil.copyfile(ROOT / "src" / "python" / "framealign.pyi", stubs / "__init__.pyi")


setup(
    version=version(),
    ext_modules=[Extension("framealign", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
    # Beside CMake's own build/ tree, not in it.
    options={"build": {"build_base": "build/python-package"}},
    zip_safe=False,
)
