"""vyra.batch() against the serial vyra.measure() of the same recordings, on a
local process pool and on concurrent.futures executors. (Dask clusters run
the same tasks; scripts/bench-dask exercises them.)"""

import concurrent.futures
import os
import pickle
import shutil
import tempfile
import unittest

import vyra
from test_binding import render_sample, write_png

DIR = PATHS = SERIAL = None


def setUpModule():
    """20 short recordings, videos and frame folders, and their serial results."""
    global DIR, PATHS, SERIAL
    DIR = tempfile.mkdtemp(prefix="vyra-batch-")
    PATHS = []
    for seed in range(1, 21):
        folder = seed % 2 == 0
        path = os.path.join(DIR, f"r{seed}" + ("" if folder else ".mkv"))
        render_sample(path, *(["--frames-dir"] if folder else []), "--seconds", "1.5", "--fps", "12",
                      "--size", "180x320", "--seed", str(seed))
        PATHS.append(path)
    SERIAL = [repr(vyra.measure(p)) for p in PATHS]


def tearDownModule():
    shutil.rmtree(DIR, ignore_errors=True)


def serial(path, **options):
    """What measure() gives for one recording: its repr (NaN compares equal there) or its error."""
    try:
        return repr(vyra.measure(path, **options))
    except vyra.VyraError as e:
        return (e.status, e.status_name, e.message)


def batched(result):
    return repr(result.measurement) if result.ok else (result.status, result.status_name, result.error)


class Executors(unittest.TestCase):
    def test_results_in_input_order_equal_the_serial_ones(self):
        blank = os.path.join(DIR, "blank")
        os.makedirs(blank, exist_ok=True)
        for k in range(3):
            write_png(os.path.join(blank, f"{k * 100:06d}.png"), 90, [(160, (255, 255, 255))])
        paths = [PATHS[3], os.path.join(DIR, "missing.mkv"), PATHS[0], blank, PATHS[0], PATHS[4]]
        with concurrent.futures.ThreadPoolExecutor(2) as threads, \
                concurrent.futures.ProcessPoolExecutor(2) as processes:
            cases = [(None, {}), (threads, {"fps": 10, "launch_time": "next-frame"}),
                     (processes, {"start": 2, "progress_series": True})]
            for executor, options in cases:
                with self.subTest(executor=type(executor).__name__, options=options):
                    results = vyra.batch(paths, executor, **options)
                    self.assertEqual([r.path for r in results], paths)
                    self.assertEqual([batched(r) for r in results], [serial(p, **options) for p in paths])
                    self.assertEqual([r.ok for r in results], [True, False, True, True, True, True])
                    self.assertEqual(results[1].status, vyra.ERROR_NOT_FOUND)
                    self.assertIsNone(results[1].measurement)
                    self.assertFalse(results[3].measurement.found)

    def test_results_survive_a_pickle_round_trip(self):
        with concurrent.futures.ThreadPoolExecutor(1) as threads:
            results = vyra.batch(PATHS[:2] + [os.path.join(DIR, "missing")], threads)
        back = pickle.loads(pickle.dumps(results))
        self.assertEqual([type(r.measurement) for r in back], [vyra.Measurement] * 2 + [type(None)])
        self.assertEqual(repr(back), repr(results))
        self.assertEqual([batched(r) for r in back], SERIAL[:2] + [serial(os.path.join(DIR, "missing"))])

    def test_bad_arguments_are_refused_before_any_task(self):
        cases = [({"progress": print}, TypeError), ({"frame_rate": 30}, TypeError),
                 ({"noise_tolerance": 256}, ValueError), ({"launch_time": "later"}, ValueError),
                 ({"executor": "local"}, TypeError)]
        for options, error in cases:
            with self.subTest(options=options), self.assertRaises(error):
                vyra.batch(PATHS[:1], **options)
        self.assertEqual(vyra.batch([]), [])


if __name__ == "__main__":
    unittest.main()
