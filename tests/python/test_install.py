"""`pip install .` from a copy of the checkout into a fresh virtual
environment, as a user without a package index does it, then a capture
aligned from there and the stub read by mypy; the wheel built by
`python3 -m build` holds the same module and stub."""
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest
import zipfile

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = os.environ["FRAMEALIGN_BUILD"]  # framealign-sim, to make the capture

USE = """
import numpy as np, framealign
ref = framealign.Reference.from_yuv("s/reference.yuv", width=640, height=360)
r = framealign.align(framealign.read_capture("s/capture.jpg"), ref, refine=True)
truth = np.loadtxt("s/corners.txt").reshape(4, 2)
print(framealign.__file__, r.status, float(np.abs(r.corners - truth).max()))
"""


class Install(unittest.TestCase):
    def test_pip_install_into_a_fresh_venv(self):
        work = pathlib.Path(tempfile.mkdtemp(prefix="framealign_install_"))
        source = work / "checkout"
        shutil.copytree(ROOT, source, ignore=shutil.ignore_patterns(".git", "build", "build-*", "dist", "*.egg-info"))
        venv = work / "venv"
        # Debian's python3 and its numpy, as the README says.
        subprocess.run(["/usr/bin/python3", "-m", "venv", "--system-site-packages", str(venv)], check=True)
        python = str(venv / "bin" / "python")
        subprocess.run([python, "-m", "pip", "install", "--quiet", "--no-build-isolation", "--no-index", str(source)],
                       check=True, cwd=work)
        subprocess.run([f"{BUILD}/framealign-sim", "--out", str(work / "s"), "--width", "640", "--height", "360",
                        "--capture-width", "960", "--capture-height", "720"], check=True, stdout=subprocess.DEVNULL)
        where, status, error = subprocess.run([python, "-c", USE], check=True, cwd=work, capture_output=True,
                                              text=True).stdout.split()
        self.assertTrue(where.startswith(str(venv)), where)
        self.assertEqual(status, "aligned")
        self.assertLess(float(error), 0.5)
        # The stub is found where type checkers look: a misuse is caught.
        (work / "typed.py").write_text("import framealign\nframealign.align(1, 2)\n")
        typed = subprocess.run([python, "-m", "mypy", "--no-incremental", "typed.py"], cwd=work, capture_output=True,
                               text=True)
        self.assertIn('Argument 2 to "align" has incompatible type "int"; expected "Reference"', typed.stdout)
        # The wheel: the same build, packed.
        subprocess.run([python, "-m", "build", "--wheel", "--no-isolation", "--outdir", str(work / "dist"),
                        str(source)], check=True, capture_output=True)
        wheel, = (work / "dist").glob("framealign-*.whl")
        names = zipfile.ZipFile(wheel).namelist()
        self.assertIn("framealign-stubs/__init__.pyi", names)
        self.assertTrue(any(n.startswith("framealign.cpython") for n in names), names)
        shutil.rmtree(work)


if __name__ == "__main__":
    unittest.main()
