"""The package bindings/python installed with pip, offline, into a fresh
virtual environment, then imported from there (no PYTHONPATH) and run with
each way of finding the library: VYRA_LIBRARY, the libdir of an installed
prefix through pkg-config, and none at all."""

import ctypes.util
import json
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

import vyra
from test_binding import render_sample

SOURCE = os.path.join(os.path.dirname(vyra.__file__), os.pardir)

# Run by the installed package: where it was imported from, which library it
# loaded, and the recording's measurement, or the error that stopped it.
PROBE = """
import json, sys, vyra
out = {"file": vyra.__file__, "version": vyra.__version__}
try:
    out["measurement"] = repr(vyra.measure(sys.argv[1]))
    out["library"] = vyra._ffi._lib._name
    out["library_version"] = vyra.version()
except vyra.LibraryNotFoundError as e:
    out["error"] = str(e)
print(json.dumps(out))
"""


class InstalledPackage(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="vyra-pkg-")
        src = os.path.join(cls.dir, "src")  # pip builds in the tree it is given: a copy, not the repository
        shutil.copytree(SOURCE, src, ignore=shutil.ignore_patterns("build", "*.egg-info", "__pycache__"))
        cls.venv = os.path.join(cls.dir, "venv")
        subprocess.run([sys.executable, "-m", "venv", "--system-site-packages", "--without-pip", cls.venv],
                       check=True)
        cls.python = os.path.join(cls.venv, "bin", "python")
        subprocess.run([cls.python, "-m", "pip", "install", "--quiet", "--no-build-isolation", "--no-index",
                        src], check=True)
        cls.video = os.path.join(cls.dir, "launch.mkv")
        render_sample(cls.video, "--seconds", "1.5", "--fps", "12", "--size", "180x320")

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.dir, ignore_errors=True)

    def probe(self, **env):
        clean = {k: v for k, v in os.environ.items() if k not in ("PYTHONPATH", "VYRA_LIBRARY", "PKG_CONFIG_PATH")}
        run = subprocess.run([self.python, "-c", PROBE, self.video], env={**clean, **env}, cwd=self.dir,
                             capture_output=True, text=True, check=True)
        return json.loads(run.stdout)

    def test_installed_package_finds_the_library_each_way(self):
        built = os.environ["VYRA_LIBRARY"]
        prefix_libdir = os.environ["VYRA_PREFIX_LIBDIR"]
        loader_finds_one = ctypes.util.find_library("vyra") is not None  # a system-wide install comes first
        expected = repr(vyra.measure(self.video))
        cases = [({"VYRA_LIBRARY": built}, built, None),
                 ({"PKG_CONFIG_PATH": os.path.join(prefix_libdir, "pkgconfig")},
                  None if loader_finds_one else os.path.join(prefix_libdir, "libvyra.so.0"), None),
                 ({"VYRA_LIBRARY": os.path.join(self.dir, "nowhere.so")}, None, "VYRA_LIBRARY names a file"),
                 ({"PKG_CONFIG_PATH": self.dir}, None, None if loader_finds_one else "set VYRA_LIBRARY")]
        for env, library, error in cases:
            with self.subTest(env=env):
                out = self.probe(**env)
                self.assertTrue(out["file"].startswith(self.venv), out["file"])
                self.assertEqual(out["version"], vyra.version())
                if error:
                    self.assertIn(error, out["error"])
                    self.assertNotIn("measurement", out)
                    continue
                self.assertEqual(out["measurement"], expected)
                self.assertEqual(out["library_version"], vyra.version())
                if library:
                    self.assertEqual(os.path.realpath(out["library"]), os.path.realpath(library))


if __name__ == "__main__":
    unittest.main()
