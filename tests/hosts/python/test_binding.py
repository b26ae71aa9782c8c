"""The Python binding maps measure()'s keywords onto the C settings and the
result onto Measurement: every field against the JSON of `vyra analyse` (its
path in VYRA_CLI) on the same recording with the same options, on recordings
made by `vyra sample` and on PNG frames written here."""

import json
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

CLI = os.environ.get("VYRA_CLI", "vyra")


def write_png(path, width, bands):
    """An 8-bit RGB PNG of horizontal bands: bands is a list of (rows, rgb)."""
    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data) & 0xFFFFFFFF)
    raw = b"".join((b"\x00" + bytes(rgb) * width) * rows for rows, rgb in bands)
    header = struct.pack(">IIBBBBB", width, sum(rows for rows, _ in bands), 8, 2, 0, 0, 0)
    with open(path, "wb") as f:
        f.write(b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(raw)) + chunk(b"IEND", b""))


def render_sample(out, *args):
    """Runs `vyra sample OUT ARGS...`; the ground truth it prints."""
    run = subprocess.run([CLI, "sample", out, *args], capture_output=True, text=True, check=True)
    found = re.search(r"^frames: (\d+)$.*expected: loadFinishedIndex (\d+), logoAppearIndex (\d+), "
                      r"logoDisappearIndex (\d+), firstFrameIndex (\d+)", run.stdout, re.M | re.S)
    return dict(zip(("frames", "load_finished", "logo_appear", "logo_disappear", "first_frame"),
                    map(int, found.groups())))


def same(a, b):
    return a == b or (isinstance(a, float) and math.isnan(a) and b is None)


class Mapping(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.mkdtemp(prefix="vyra-py-")
        cls.frames = os.path.join(cls.dir, "frames")
        cls.truth = render_sample(cls.frames, "--frames-dir", "--seconds", "2", "--fps", "15", "--size", "180x320",
                                  "--seed", "2", "--jitter", "0.3")
        cls.video = os.path.join(cls.dir, "launch.mkv")
        render_sample(cls.video, "--seconds", "2", "--fps", "20", "--size", "180x320", "--seed", "6")

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.dir, ignore_errors=True)

    def test_every_field_is_what_the_tool_reports_for_the_same_options(self):
        cases = [(self.frames, {}, []), (self.video, {}, []),
                 (self.frames, {"fps": 15, "start": 3, "end": 20}, ["--fps", "15", "--start", "3", "--end", "20"]),
                 (self.frames, {"dynamic": True, "launch_time": "next-frame"}, ["--dynamic", "--launch-time", "next-frame"]),
                 (self.frames, {"crop": (0, 12, 180, 300), "ignore": [(0, 0, 60, 20)], "stable_baseline": True,
                                "noise_tolerance": 7, "progress_series": True},
                  ["--crop", "0,12,180,300", "--ignore", "0,0,60,20", "--stable-baseline", "--noise-tolerance", "7",
                   "--progress"])]
        for path, kwargs, args in cases:
            with self.subTest(path=os.path.basename(path), options=kwargs):
                m = vyra.measure(path, **kwargs)
                j = json.loads(subprocess.run([CLI, "analyse", path, "--json", *args], capture_output=True, text=True,
                                              check=True).stdout)
                a, v = j["analysis"], j["visual_progress"]
                expected = {"launch_time": j["launch_time"], "launch_time_mode": j["launch_time_mode"],
                            "page_type": j["page_type"], "timing": j["timing"], "fps": j["fps"],
                            "frame_count": j["frame_count"], "frame_width": j["frame_width"],
                            "frame_height": j["frame_height"], "estimated_time_count": j["estimated_time_count"],
                            "loaded_psnr": a["static"]["loaded_psnr"], "pre_loaded_psnr": a["static"]["pre_loaded_psnr"],
                            "object_count_length": len(a["static"]["object_counts"]),
                            "first_non_blank_object_count": a["dynamic"]["first_non_blank_object_count"],
                            "feature_matching_count": len(a["dynamic"]["feature_matching_results"]),
                            "speed_index_ms": v["speed_index_ms"], "noise_tolerance": v["noise_tolerance"],
                            "noise_tolerance_estimated": v["noise_tolerance_estimated"],
                            "progress_series": tuple((p["index"], p["time"], p["progress"]) for p in v.get("progress", ()))}
                for key in list(j["key_frames"]) + [k for k in v if isinstance(v[k], dict)]:
                    expected[key] = (j["key_frames"].get(key) or v[key])
                for field, value in expected.items():
                    actual = getattr(m, field)
                    if isinstance(value, dict):
                        actual, value = (actual.index, actual.time), (value["index"], value["time"])
                        self.assertTrue(actual[0] == value[0] and same(actual[1], value[1]), f"{field}: {actual} {value}")
                    else:
                        self.assertTrue(same(actual, value), f"{field}: {actual!r} against {value!r}")
                self.assertEqual(m.found, not math.isnan(m.launch_time))
        m = vyra.measure(self.frames)  # the sample's ground truth is recovered
        self.assertEqual((m.frame_count, m.load_finished.index, m.logo_appear.index, m.logo_disappear.index,
                          m.first_frame.index), tuple(self.truth.values()))

    def test_progress_callback_sees_every_stage_and_its_exception_is_raised_after_the_call(self):
        events = []
        m = vyra.measure(self.frames, start=3, progress=lambda *e: events.append(e))
        self.assertEqual(events[m.frame_count - 1], ("decoding", m.frame_count, m.frame_count))
        self.assertEqual(events[-2:], [("analysing", 0, 1), ("analysing", 1, 1)])

        def fail(stage, done, total):
            raise KeyError("stop")
        with self.assertRaises(KeyError):
            vyra.measure(self.frames, progress=fail)
        out = os.path.join(self.dir, "saved")
        vyra.measure(self.frames, end=4, save_frames=out)
        self.assertEqual(sorted(os.listdir(out)), [f"{k:08d}.png" for k in range(5)])


class Limits(unittest.TestCase):
    """White, then 150 grey rows over 10 white ones at 0.1 s, then the last 10 rows orange at 2.1 s."""

    def setUp(self):
        self.dir = tempfile.mkdtemp(prefix="vyra-py-")
        self.addCleanup(shutil.rmtree, self.dir, True)
        white, grey, orange = (255, 255, 255), (60, 60, 60), (40, 120, 200)
        for ms, bands in [(0, [(160, white)]), (100, [(150, grey), (10, white)]), (2100, [(150, grey), (10, orange)])]:
            write_png(os.path.join(self.dir, f"{ms:06d}.png"), 90, bands)

    def test_series_longer_than_the_first_buffers_are_measured_again(self):
        saved, vyra._SERIES_CAPACITY = vyra._SERIES_CAPACITY, 2
        try:
            m = vyra.measure(self.dir, progress_series=True)
        finally:
            vyra._SERIES_CAPACITY = saved
        self.assertEqual(m.progress_series, ((0, 0.0, 0.0), (1, 0.1, 0.9375), (2, 2.1, 1.0)))  # 150 of 160 rows

    def test_bad_input_raises_vyra_error_and_what_c_cannot_hold_value_error(self):
        cases = [("missing.mp4", {}, vyra.ERROR_NOT_FOUND, "does not exist"), ("", {"fps": 0}, vyra.ERROR_INVALID_ARGUMENT, "frame rate"),
                 ("", {"start": 5}, vyra.ERROR_EMPTY, "selects no frame"),
                 ("", {"crop": (80, 0, 20, 20)}, vyra.ERROR_INVALID_ARGUMENT, "inside"),
                 ("", {"report": os.path.join(self.dir, "missing", "r.html")}, vyra.ERROR_WRITE, "missing")]
        for name, kwargs, status, text in cases:
            with self.subTest(options=kwargs), self.assertRaises(vyra.VyraError) as caught:
                vyra.measure(os.path.join(self.dir, name), **kwargs)
            self.assertEqual(caught.exception.status, status)
            self.assertIn(text, caught.exception.message)
        self.assertEqual(caught.exception.status_name, "cannot write output")
        for options in ({"noise_tolerance": -1}, {"noise_tolerance": 256}, {"noise_tolerance": "high"},
                        {"start": 2**31}, {"end": -2**31 - 1}, {"crop": (0, 0, 2**32 + 5, 4)}, {"ignore": [(0, 0, 4, -2**33)]},
                        {"save_frames": "a\0b"}, {"report": "r\0.html"}, {"launch_time": "later"}):
            with self.subTest(options=options), self.assertRaises(ValueError):
                vyra.measure(self.dir, **options)
        with self.assertRaises(ValueError):
            vyra.measure(self.dir + "\0tail")

    def test_reports_are_written(self):
        html, png = os.path.join(self.dir, "r.html"), os.path.join(self.dir, "f.png")
        vyra.measure(self.dir, report=html, filmstrip=png, report_interval_ms=50)
        with open(html, encoding="utf-8") as f, open(png, "rb") as g:
            self.assertEqual((f.read(15), g.read(8)), ("<!DOCTYPE html>", b"\x89PNG\r\n\x1a\n"))
        self.assertRegex(vyra.version(), r"^\d+\.\d+\.\d+$")
        self.assertEqual(vyra.abi_version(), 1)


if __name__ == "__main__":
    unittest.main()
