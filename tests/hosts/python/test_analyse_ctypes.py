"""A Python host calling the library entry through ctypes.

The frames are written here with the standard library only (zlib + struct):
white frames for the blank screen and a page of randomly coloured 8x8 blocks
for the loaded state. Every block edge with a colour change is a contour, so
the page has hundreds of objects covering the whole frame (non-blank), while a
white frame has none. The launch time therefore follows from the positions of
the frames alone.

The library is named by the environment variable VYRA_LIBRARY.
"""

import ctypes
import math
import os
import random
import struct
import tempfile
import unittest
import zlib

WIDTH, HEIGHT, BLOCK = 320, 240, 8


def png_bytes(rows):
    """An 8-bit RGB PNG of the given rows (each a bytes object of RGB triples)."""

    def chunk(kind, data):
        body = kind + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body) & 0xFFFFFFFF)

    height, width = len(rows), len(rows[0]) // 3
    header = struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)
    raw = b"".join(b"\x00" + row for row in rows)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(raw))
            + chunk(b"IEND", b""))


def white_frame():
    return png_bytes([b"\xff" * (3 * WIDTH)] * HEIGHT)


def page_frame(seed=7):
    rng = random.Random(seed)
    blocks = [[bytes(rng.randrange(256) for _ in range(3)) for _ in range(WIDTH // BLOCK)]
              for _ in range(HEIGHT // BLOCK)]
    rows = []
    for y in range(HEIGHT):
        rows.append(b"".join(colour * BLOCK for colour in blocks[y // BLOCK]))
    return png_bytes(rows)


def write_folder(folder, frames):
    """frames: list of (file name, PNG bytes)."""
    os.makedirs(folder, exist_ok=True)
    for name, data in frames:
        with open(os.path.join(folder, name), "wb") as out:
            out.write(data)


def load_library():
    lib = ctypes.CDLL(os.environ["VYRA_LIBRARY"])
    lib.analyse.argtypes = [ctypes.c_char_p, ctypes.c_int, ctypes.c_int, ctypes.c_int,
                            ctypes.c_int]
    lib.analyse.restype = ctypes.c_double
    return lib


class CapturedStdout:
    """Sends file descriptor 1 (where the library prints) to a file."""

    def __init__(self, path):
        self.path = path

    def __enter__(self):
        self.saved = os.dup(1)
        self.file = open(self.path, "wb")
        os.dup2(self.file.fileno(), 1)
        return self

    def __exit__(self, *exc):
        libc = ctypes.CDLL(None)
        libc.fflush(None)
        os.dup2(self.saved, 1)
        os.close(self.saved)
        self.file.close()
        with open(self.path, "rb") as text:
            self.text = text.read().decode("utf-8")
        return False


class AnalyseThroughCtypes(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.lib = load_library()
        cls.white = white_frame()
        cls.page = page_frame()

    def setUp(self):
        self.tmp = tempfile.TemporaryDirectory(prefix="vyra-py-")
        self.addCleanup(self.tmp.cleanup)
        self.previous = os.getcwd()
        os.chdir(self.tmp.name)
        self.addCleanup(os.chdir, self.previous)

    def run_analyse(self, folder, frame_mode, fps, start=0, end=0):
        with CapturedStdout(os.path.join(self.tmp.name, "stdout.txt")) as captured:
            value = self.lib.analyse(folder.encode("utf-8"), frame_mode, fps, start, end)
        return value, captured.text.splitlines()

    def test_frame_rate_mode(self):
        folder = os.path.join(self.tmp.name, "launch")
        write_folder(folder, [("%02d.png" % k, self.white if k < 4 else self.page)
                              for k in range(10)])
        value, lines = self.run_analyse(folder, 0, 10)
        # Frame 4 is the first loaded frame: (4 + 1) / 10 seconds.
        self.assertEqual(value, 0.5)
        self.assertEqual(lines[0], " PATH: %s ;frameMode: 0 ;fps: 10 ;startIndex: 0 ;endIndex: 0 "
                         % folder)
        self.assertIn("页面加载完成时的图像索引:4", lines)
        self.assertEqual(lines[-2:], ["ffmpeg startTime:0, endTime:0.5", "计算启动耗时::0.5"])

    def test_timestamp_mode(self):
        folder = os.path.join(self.tmp.name, "stamps")
        write_folder(folder, [("0.png", self.white), ("1000.png", self.page),
                              ("2500.png", self.page), ("4000.png", self.page)])
        value, lines = self.run_analyse(folder, 1, 30)
        # Loaded at position 1; the end time is read at position 2.
        self.assertEqual(value, 2.5)
        self.assertIn("页面加载完成时的图像索引:1000", lines)
        self.assertEqual(lines[-2:], ["cv startTime:0, endTime:2.5", "计算启动耗时::2.5"])

    def test_report_line_per_run(self):
        folder = os.path.join(self.tmp.name, "launch")
        write_folder(folder, [("0.png", self.white), ("1.png", self.page)])
        self.assertEqual(self.run_analyse(folder, 0, 4)[0], 0.5)
        self.assertEqual(self.run_analyse(folder, 0, 8)[0], 0.25)
        with open("record.log", "rb") as report:
            lines = report.read().decode("utf-8").splitlines()
        self.assertEqual(len(lines), 2)
        for line in lines:
            self.assertRegex(line, r"^ \d{4}-\d\d-\d\d \d\d:\d\d:\d\d ")
            self.assertEqual(line[20:], " %s  结果是 :0" % folder)

    def test_null_path_gives_nan(self):
        with CapturedStdout(os.path.join(self.tmp.name, "stdout.txt")) as captured:
            value = self.lib.analyse(None, 0, 30, 0, 0)
        self.assertTrue(math.isnan(value))
        self.assertEqual(captured.text, "")
        self.assertFalse(os.path.exists("record.log"))


if __name__ == "__main__":
    unittest.main()
