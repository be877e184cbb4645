"""Builds the mvda package: the extension mvda._core through the project's CMake build (option
MVDA_BUILD_PYTHON), then copies the extension and the library it links into the package.

The CMake build folder is <repository>/build/python, or MVDA_PYTHON_BUILD_DIR when set (an
existing build configured with -DMVDA_BUILD_PYTHON=ON is then only brought up to date).
"""

import os
import shutil
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build = Path(os.environ.get("MVDA_PYTHON_BUILD_DIR") or ROOT / "build" / "python")
        build = build.resolve()
        configure = ["cmake", "-S", str(ROOT), "-B", str(build), "-DMVDA_BUILD_PYTHON=ON",
                     f"-DPYTHON_EXECUTABLE={sys.executable}"]
        if not (build / "CMakeCache.txt").exists():
            configure += ["-DCMAKE_BUILD_TYPE=Release", "-DMVDA_BUILD_TESTS=OFF"]
            if shutil.which("ninja"):
                configure += ["-G", "Ninja"]
            if shutil.which("ccache"):
                configure += ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache",
                              "-DCMAKE_C_COMPILER_LAUNCHER=ccache"]
        subprocess.run(configure, check=True)
        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", "2")
        subprocess.run(["cmake", "--build", str(build), "--target", "mvda_python", "-j", jobs],
                       check=True)
        # The extension and the library beside it (the extension finds it through $ORIGIN).
        built = build / "python" / "mvda"
        target = Path(self.get_ext_fullpath(ext.name)).parent
        target.mkdir(parents=True, exist_ok=True)
        for f in built.iterdir():
            if f.name.startswith("_core.") or f.name.startswith("libmvda.so"):
                shutil.copy2(f, target / f.name)


setup(
    name="mvda",
    version="0.1.0",
    description="PCA and PLS with missing values and cross-validation, clustering and control "
                "charts, for numpy, pandas and scikit-learn",
    packages=["mvda"],
    ext_modules=[Extension("mvda._core", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
    python_requires=">=3.9",
    install_requires=["numpy", "scipy", "scikit-learn"],
    zip_safe=False,
)
