"""Tests of the Python binding on recordings made by the built `vyra sample`
tool (its path in the environment variable VYRA_CLI) and on PNG frames
written here with the standard library only."""

import math
import os
import re
import shutil
import struct
import subprocess
import tempfile
import unittest
import zlib

import vyra


def write_png(path, width, height, rgb):
    """A PNG of one colour, 8-bit RGB."""
    row = b"\x00" + bytes(rgb) * width
    raw = row * height

    def chunk(kind, data):
        body = kind + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body) & 0xFFFFFFFF)

    with open(path, "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n")
        f.write(chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)))
        f.write(chunk(b"IDAT", zlib.compress(raw)))
        f.write(chunk(b"IEND", b""))


def write_bands_png(path, width, bands):
    """A PNG of horizontal bands, 8-bit RGB: bands is a list of (rows, rgb)."""
    raw = b"".join((b"\x00" + bytes(rgb) * width) * rows for rows, rgb in bands)
    height = sum(rows for rows, _ in bands)

    def chunk(kind, data):
        body = kind + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body) & 0xFFFFFFFF)

    with open(path, "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n")
        f.write(chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)))
        f.write(chunk(b"IDAT", zlib.compress(raw)))
        f.write(chunk(b"IEND", b""))


def render_sample(out, *args):
    """Runs `vyra sample OUT ARGS...` and returns its printed ground truth."""
    cli = os.environ.get("VYRA_CLI", "vyra")
    run = subprocess.run([cli, "sample", out, *args], capture_output=True, text=True, check=True)
    truth = {}
    frames = re.search(r"^frames: (\d+)$", run.stdout, re.M)
    expected = re.search(r"expected: loadFinishedIndex (\d+), logoAppearIndex (\d+), "
                         r"logoDisappearIndex (\d+), firstFrameIndex (\d+)", run.stdout)
    if not frames or not expected:
        raise AssertionError("unexpected output of vyra sample:\n" + run.stdout)
    truth["frames"] = int(frames.group(1))
    truth["load_finished"], truth["logo_appear"], truth["logo_disappear"], truth["first_frame"] = (
        int(v) for v in expected.groups())
    return truth


class SampleRecordings(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="vyra-py-")
        cls.video = os.path.join(cls.dir, "launch.mkv")
        cls.video_truth = render_sample(cls.video, "--seconds", "2", "--fps", "20", "--size", "180x320",
                                        "--seed", "6")
        cls.frames = os.path.join(cls.dir, "frames")
        cls.frames_truth = render_sample(cls.frames, "--frames-dir", "--seconds", "2", "--fps", "15",
                                         "--size", "180x320", "--seed", "2", "--jitter", "0.3")

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.dir, ignore_errors=True)

    def test_video_sample_load_finished_within_one_frame_of_the_truth(self):
        m = vyra.measure(self.video)
        self.assertIsInstance(m, vyra.Measurement)
        self.assertEqual(m.frame_count, self.video_truth["frames"])
        self.assertLessEqual(abs(m.load_finished.index - self.video_truth["load_finished"]), 1)
        self.assertAlmostEqual(m.load_finished.time, m.load_finished.index * 0.05, places=9)
        self.assertEqual(m.launch_time, m.load_finished.time)
        self.assertEqual((m.frame_width, m.frame_height), (180, 320))
        self.assertEqual(m.timing, "timestamps")
        self.assertIsNone(m.fps)
        self.assertEqual(m.page_type, "static")
        self.assertEqual(m.launch_time_mode, "frame")
        self.assertEqual(m.object_count_length, m.frame_count)
        self.assertTrue(m.found)

    def test_frame_folder_times_come_from_the_file_names(self):
        names = sorted(n for n in os.listdir(self.frames) if n.endswith(".png"))
        m = vyra.measure(self.frames)
        lf = self.frames_truth["load_finished"]
        self.assertEqual(m.load_finished.index, lf)
        self.assertEqual(m.logo_appear.index, self.frames_truth["logo_appear"])
        self.assertEqual(m.logo_disappear.index, self.frames_truth["logo_disappear"])
        self.assertEqual(m.first_frame.index, self.frames_truth["first_frame"])
        ms = [int(n.split(".")[0]) for n in names]
        self.assertAlmostEqual(m.launch_time, (ms[lf] - ms[0]) / 1000.0, places=9)
        nxt = vyra.measure(self.frames, launch_time="next-frame")
        self.assertAlmostEqual(nxt.launch_time, (ms[lf + 1] - ms[0]) / 1000.0, places=9)

    def test_frame_rate_range_and_progress(self):
        events = []
        m = vyra.measure(self.frames, fps=15, start=3, progress=lambda *e: events.append(e))
        self.assertEqual(m.timing, "frame-rate")
        self.assertEqual(m.fps, 15.0)
        self.assertEqual(m.frame_count, self.frames_truth["frames"] - 3)
        self.assertEqual(m.load_finished.index, self.frames_truth["load_finished"] - 3)
        self.assertAlmostEqual(m.launch_time, m.load_finished.index / 15.0, places=12)
        decoding = [e for e in events if e[0] == "decoding"]
        self.assertEqual(len(decoding), m.frame_count)
        self.assertEqual(decoding[-1], ("decoding", m.frame_count, m.frame_count))
        self.assertEqual(events[-2:], [("analysing", 0, 1), ("analysing", 1, 1)])

    def test_progress_callback_exception_is_raised_after_the_call(self):
        def fail(stage, done, total):
            raise KeyError("stop")
        with self.assertRaises(KeyError):
            vyra.measure(self.frames, progress=fail)

    def test_dynamic_analysis_and_crop_and_saved_frames(self):
        d = vyra.measure(self.frames, dynamic=True)
        self.assertEqual(d.page_type, "dynamic")
        self.assertGreater(d.feature_matching_count, 0)
        self.assertEqual(d.baseline.index, -1)
        self.assertTrue(math.isnan(d.baseline.time))
        out = os.path.join(self.dir, "saved")
        c = vyra.measure(self.frames, crop=(0, 40, 180, 240), end=4, save_frames=out)
        self.assertEqual((c.frame_width, c.frame_height, c.frame_count), (180, 240, 5))
        self.assertEqual(sorted(os.listdir(out)), [f"{k:08d}.png" for k in range(5)])


class VisualProgress(unittest.TestCase):
    """A 90x160 page: white; then 150 grey rows over 10 white ones at 0.1 s;
    then the last 10 rows turn orange at 2.1 s. The middle frame has covered
    150 of the 160 changed rows: progress 0.9375."""

    WHITE, GREY, ORANGE = (255, 255, 255), (60, 60, 60), (40, 120, 200)

    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="vyra-py-")
        frames = [(0, [(160, self.WHITE)]),
                  (100, [(150, self.GREY), (10, self.WHITE)]),
                  (2100, [(150, self.GREY), (10, self.ORANGE)]),
                  (2200, [(150, self.GREY), (10, self.ORANGE)])]
        for ms, bands in frames:
            write_bands_png(os.path.join(self.dir, f"{ms:06d}.png"), 90, bands)

    def tearDown(self):
        shutil.rmtree(self.dir, ignore_errors=True)

    def test_measures_and_series(self):
        m = vyra.measure(self.dir, progress_series=True)
        self.assertEqual(m.first_visual_change, vyra.KeyFrame(1, 0.1))
        self.assertEqual(m.last_visual_change, vyra.KeyFrame(2, 2.1))
        self.assertEqual(m.visually_complete_85, vyra.KeyFrame(1, 0.1))
        self.assertEqual(m.visually_complete_95, vyra.KeyFrame(2, 2.1))
        self.assertEqual(m.visually_complete_99, vyra.KeyFrame(2, 2.1))
        self.assertAlmostEqual(m.speed_index_ms, 100 + 2000 * 0.0625, places=9)
        self.assertEqual((m.noise_tolerance, m.noise_tolerance_estimated), (0, True))  # PNG frames: no coding noise
        self.assertEqual(m.progress_series, ((0, 0.0, 0.0), (1, 0.1, 0.9375), (2, 2.1, 1.0), (3, 2.2, 1.0)))
        self.assertEqual(vyra.measure(self.dir).progress_series, ())

    def test_series_longer_than_the_first_buffers(self):
        saved = vyra._SERIES_CAPACITY
        vyra._SERIES_CAPACITY = 2
        try:
            m = vyra.measure(self.dir, progress_series=True, noise_tolerance=0)
        finally:
            vyra._SERIES_CAPACITY = saved
        self.assertEqual([p for _, _, p in m.progress_series], [0.0, 0.9375, 1.0, 1.0])
        self.assertEqual(m.noise_tolerance, 0)

    def test_values_a_c_field_cannot_hold_are_refused_before_measuring(self):
        for options in ({"noise_tolerance": -1}, {"noise_tolerance": 256}, {"noise_tolerance": "high"},
                        {"start": 2**31}, {"end": -2**31 - 1}, {"start": 2**40 + 3}, {"crop": (0, 0, 2**32 + 5, 4)},
                        {"ignore": [(0, 0, 4, -2**33)]}, {"save_frames": "a\0b"}, {"report": "r\0.html"}):
            with self.subTest(options=options), self.assertRaises(ValueError):
                vyra.measure(self.dir, **options)
        with self.assertRaises(ValueError):
            vyra.measure(self.dir + "\0tail")

    def test_reports_are_written_and_their_failure_raises(self):
        out = tempfile.mkdtemp(prefix="vyra-py-out-")
        self.addCleanup(shutil.rmtree, out, True)
        html, png = os.path.join(out, "r.html"), os.path.join(out, "f.png")
        m = vyra.measure(self.dir, report=html, filmstrip=png, report_interval_ms=50)
        self.assertEqual(m.last_visual_change, vyra.KeyFrame(2, 2.1))
        with open(html, encoding="utf-8") as f:
            self.assertTrue(f.read().startswith("<!DOCTYPE html>"))
        with open(png, "rb") as f:
            self.assertEqual(f.read(8), b"\x89PNG\r\n\x1a\n")
        with self.assertRaises(vyra.VyraError) as caught:
            vyra.measure(self.dir, report=os.path.join(out, "missing", "r.html"))
        self.assertEqual(caught.exception.status, 8)  # VYRA_ERROR_WRITE


class Errors(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="vyra-py-")

    def tearDown(self):
        shutil.rmtree(self.dir, ignore_errors=True)

    def blank_folder(self, count):
        folder = os.path.join(self.dir, "blank")
        os.makedirs(folder)
        for k in range(count):
            write_png(os.path.join(folder, f"{k * 100:06d}.png"), 90, 160, (255, 255, 255))
        return folder

    def test_bad_input_raises_with_status_and_message(self):
        cases = [
            ({"path": os.path.join(self.dir, "missing.mp4")}, vyra.ERROR_NOT_FOUND, "does not exist"),
            ({"path": self.blank_folder(3), "fps": 0}, vyra.ERROR_INVALID_ARGUMENT, "frame rate"),
            ({"path": self.dir + "/blank", "start": 5}, vyra.ERROR_EMPTY, "selects no frame"),
            ({"path": self.dir + "/blank", "crop": (80, 0, 20, 20)}, vyra.ERROR_INVALID_ARGUMENT, "inside"),
        ]
        for kwargs, status, text in cases:
            path = kwargs.pop("path")
            with self.subTest(status=status):
                with self.assertRaises(vyra.VyraError) as caught:
                    vyra.measure(path, **kwargs)
                self.assertEqual(caught.exception.status, status)
                self.assertIn(text, caught.exception.message)
        with self.assertRaises(vyra.VyraError) as caught:
            vyra.measure(os.path.join(self.dir, "missing"))
        self.assertEqual(caught.exception.status_name, "not found")
        with self.assertRaises(ValueError):
            vyra.measure(self.dir + "/blank", launch_time="later")

    def test_nothing_found_is_nan_not_an_error(self):
        m = vyra.measure(self.blank_folder(4))
        self.assertEqual(m.frame_count, 4)
        self.assertTrue(math.isnan(m.launch_time))
        self.assertFalse(m.found)
        self.assertEqual(m.load_finished, vyra.KeyFrame(-1, m.load_finished.time))
        self.assertTrue(math.isnan(m.load_finished.time))
        self.assertEqual(m.baseline.index, 3)
        self.assertAlmostEqual(m.baseline.time, 0.3, places=12)

    def test_versions(self):
        self.assertRegex(vyra.version(), r"^\d+\.\d+\.\d+$")
        self.assertEqual(vyra.abi_version(), 1)


if __name__ == "__main__":
    unittest.main()
