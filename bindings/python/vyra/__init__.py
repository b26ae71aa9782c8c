"""Python binding of libvyra: launch time of an app page from a screen recording.

Only the standard library is used (ctypes). The shared library is loaded
once per process, on first use (importing vyra loads nothing), from the path
in the environment variable VYRA_LIBRARY when it is set; else from the name
ctypes.util.find_library("vyra") returns, or "libvyra.so.0" and "libvyra.so"
as the dynamic loader resolves them; else from the libdir that pkg-config
reports for "vyra". LibraryNotFoundError (an ImportError) lists what was tried.

    import vyra
    m = vyra.measure("launch.mp4")            # timed by the video's timestamps
    print(m.launch_time, m.load_finished.index, m.load_finished.time)
    m = vyra.measure("frames/", fps=30, ignore=[(0, 0, 1080, 80)])
    results = vyra.batch(["a.mp4", "b.mp4"])  # many, on a process pool or a Dask client

measure() raises vyra.VyraError (with .status, .status_name and .message)
for bad input. A recording in which no load-finished frame was found is not
an error: launch_time is NaN and every key frame that was not found has index
-1 and time NaN.
"""

from __future__ import annotations

import ctypes
import dataclasses
import math
import os
import threading
from dataclasses import dataclass
from typing import Callable, Iterable, Optional, Sequence, Tuple

from . import _ffi

__all__ = [
    "VyraError", "KeyFrame", "Measurement", "measure", "BatchResult", "batch", "version", "abi_version",
    "LibraryNotFoundError",
    "OK", "ERROR_INVALID_ARGUMENT", "ERROR_NOT_FOUND", "ERROR_UNREADABLE", "ERROR_EMPTY",
    "ERROR_NO_MEMORY", "ERROR_INTERNAL", "ERROR_NO_TIMESTAMPS", "ERROR_WRITE",
]

# VyraStatus
OK = 0
ERROR_INVALID_ARGUMENT = 1
ERROR_NOT_FOUND = 2
ERROR_UNREADABLE = 3
ERROR_EMPTY = 4
ERROR_NO_MEMORY = 5
ERROR_INTERNAL = 6
ERROR_NO_TIMESTAMPS = 7
ERROR_WRITE = 8

_TIMING = {"timestamps": 0, "frame-rate": 1}
_LAUNCH_TIME = {"frame": 0, "next-frame": 1}
_PAGE = {"static": 0, "dynamic": 1}
_STAGE = {0: "decoding", 1: "analysing"}
_SERIES_CAPACITY = 4096  # frames the progress series buffers hold at first
LibraryNotFoundError = _ffi.LibraryNotFoundError
__version__ = "0.1.0"  # the library's version this package is made with


class VyraError(Exception):
    """A measurement that failed: .status (a VyraStatus number), .status_name, .message."""

    def __init__(self, status: int, status_name: str, message: str):
        super().__init__(f"{status_name}: {message}")
        self.status = status
        self.status_name = status_name
        self.message = message


@dataclass(frozen=True)
class KeyFrame:
    """A key frame: index in the range (-1: not found), seconds from the range start (NaN: not found)."""
    index: int
    time: float

    @property
    def found(self) -> bool:
        return self.index >= 0


def _measurement_class():
    """Measurement: the plain fields of VyraResult, then one KeyFrame per key frame of the library's table."""
    plain = [
        ("launch_time", float),          # seconds, NaN when no load-finished frame was found
        ("launch_time_mode", str),       # "frame" or "next-frame"
        ("page_type", str),              # "static" or "dynamic"
        ("timing", str),                 # "timestamps" or "frame-rate"
        ("fps", Optional[float]),        # the frame rate of "frame-rate" timing, else None
        ("frame_count", int),
        ("frame_width", int),
        ("frame_height", int),
        ("estimated_time_count", int),
        ("loaded_psnr", float),
        ("pre_loaded_psnr", float),
        ("object_count_length", int),
        ("first_non_blank_object_count", int),
        ("feature_matching_count", int),
        ("speed_index_ms", float),       # area above the visual progress curve, ms
        ("noise_tolerance", int),        # the noise tolerance the measures used
        ("noise_tolerance_estimated", bool),  # True when it was read from the recording ("auto")
        # (index, time in s, progress) of every frame when measure(progress_series=True), else ()
        ("progress_series", Tuple[Tuple[int, float, float], ...]),
    ]
    keys = [(field.key, KeyFrame) for field in _ffi.key_frame_fields()]
    cls = dataclasses.make_dataclass(
        "Measurement", plain[:9] + keys + plain[9:], frozen=True,
        namespace={"found": property(lambda self: not math.isnan(self.launch_time),
                                     doc="True when a load-finished frame was found.")})
    cls.__module__ = __name__
    cls.__doc__ = ("Everything vyra_measure() reports for one recording; key frames are KeyFrame(index, time): "
                   + ", ".join(field.key for field in _ffi.key_frame_fields()) + ".")
    return cls


_measurement_lock = threading.Lock()


def _measurement_type():
    """Measurement's key frames come from the library's table, so the class is
    made when it is first needed (a measurement, or unpickling one), which loads
    the library."""
    with _measurement_lock:
        cls = globals().get("Measurement")
        if cls is None:
            cls = globals()["Measurement"] = _measurement_class()
    return cls


def __getattr__(name):
    if name == "Measurement":
        return _measurement_type()
    raise AttributeError(f"module {__name__!r} has no attribute {name!r}")


def version() -> str:
    """The library's version, "MAJOR.MINOR.PATCH"."""
    return _ffi.library().vyra_version().decode()


def abi_version() -> int:
    """VYRA_ABI_VERSION of the loaded library."""
    return int(_ffi.library().vyra_abi_version())


def _region(value: Sequence[int]) -> _ffi.Region:
    x, y, w, h = (_int32(v, "a region's coordinate") for v in value)
    return _ffi.Region(x, y, w, h)


def _key(result, offset: int) -> KeyFrame:
    k = _ffi.KeyFrame.from_buffer(result, offset)
    return KeyFrame(int(k.index), float(k.time))


def _choice(table, value, what):
    if value not in table:
        raise ValueError(f"{what} must be one of {sorted(table)}, not {value!r}")
    return table[value]


def _name(table, number):
    return next(name for name, value in table.items() if value == number)


_INT32 = (-2**31, 2**31 - 1)


def _int32(value, what):
    """@value as an int of a C int32_t field; ValueError instead of a silent wrap."""
    number = int(value)
    if not _INT32[0] <= number <= _INT32[1]:
        raise ValueError(f"{what} must lie in {_INT32[0]}..{_INT32[1]}, not {value!r}")
    return number


def _path_bytes(path, what):
    """@path as the bytes of a C string; ValueError for a NUL inside it."""
    data = os.fsencode(path)
    if b"\0" in data:
        raise ValueError(f"{what} contains a NUL byte")
    return data


def _check(launch_time, noise_tolerance):
    """The ValueErrors of measure() that need no recording."""
    if noise_tolerance != "auto" and not (isinstance(noise_tolerance, int) and 0 <= noise_tolerance <= 255):
        raise ValueError(f"noise_tolerance must be 'auto' or an int in 0..255, not {noise_tolerance!r}")
    _choice(_LAUNCH_TIME, launch_time, "launch_time")


def measure(path, *, fps: Optional[float] = None, start: int = 0, end: int = 0, dynamic: bool = False,
            stable_baseline: bool = False, crop: Optional[Sequence[int]] = None,
            ignore: Iterable[Sequence[int]] = (), launch_time: str = "frame",
            save_frames: Optional[str] = None,
            progress: Optional[Callable[[str, int, int], None]] = None,
            noise_tolerance="auto", progress_series: bool = False, report: Optional[str] = None,
            filmstrip: Optional[str] = None, report_interval_ms: float = 100.0) -> Measurement:
    """Measures the recording at @path (a video file or a folder of PNG frames).

    fps: None times frames by their timestamps (video presentation times, or
    the millisecond numbers of the frame file names); a number spaces them
    evenly. start/end: the frame range (end 0 or 1: to the last frame).
    crop and each ignore region: (x, y, width, height) in frame pixels.
    launch_time: "frame" (the load-finished frame) or "next-frame" (the frame
    after it). save_frames: a folder that receives the analysed frames.
    progress(stage, done, total): stage is "decoding" or "analysing"; an
    exception it raises stops nothing but is raised again once the
    measurement returns.
    noise_tolerance: "auto" (read from the recording: 0 for frame folders and
    lossless video, the coding noise of lossy video) or levels (0..255) by
    which an 8x8 block's mean colour may move between frames without counting
    as a visual change.
    progress_series: also return every frame's (index, time, progress).
    report / filmstrip: also write the launch report (one self-contained HTML
    file) / its filmstrip as a PNG contact sheet there; report_interval_ms:
    the filmstrip's step.
    Raises VyraError on bad input (also when a report cannot be written),
    ValueError for an unknown launch_time, a noise_tolerance that is neither
    "auto" nor in 0..255, an integer beyond int32 or a path with a NUL byte.
    """
    _check(launch_time, noise_tolerance)
    settings = _ffi.Settings()
    _ffi.library().vyra_default_settings(ctypes.byref(settings))
    if fps is not None:
        settings.timing = _TIMING["frame-rate"]
        settings.fps = float(fps)
    settings.start = _int32(start, "start")
    settings.end = _int32(end, "end")
    settings.page_type = _PAGE["dynamic" if dynamic else "static"]
    settings.stable_baseline = 1 if stable_baseline else 0
    if crop is not None:
        settings.has_crop = 1
        settings.crop = _region(crop)
    regions = [_region(r) for r in ignore]
    array = (_ffi.Region * len(regions))(*regions) if regions else None
    if array is not None:
        settings.ignore = ctypes.cast(array, ctypes.POINTER(_ffi.Region))
        settings.ignore_count = len(regions)
    settings.launch_time_mode = _choice(_LAUNCH_TIME, launch_time, "launch_time")
    if save_frames is not None:
        settings.save_frames_dir = _path_bytes(save_frames, "save_frames")
    settings.noise_tolerance = -1 if noise_tolerance == "auto" else noise_tolerance
    if report is not None:
        settings.report_path = _path_bytes(report, "report")
    if filmstrip is not None:
        settings.filmstrip_path = _path_bytes(filmstrip, "filmstrip")
    settings.report_interval_ms = float(report_interval_ms)
    capacity = _SERIES_CAPACITY if progress_series else 0
    while True:
        values, times = _attach_series(settings, capacity)
        result, error, status, raised = _run(path, settings, progress)
        if raised or status != OK or result.frame_count <= capacity or not progress_series:
            break
        capacity = int(result.frame_count)  # a longer recording: once more with room for every frame
    if raised:
        raise raised[0]
    if status != OK:
        raise VyraError(status, _ffi.library().vyra_status_string(status).decode(),
                        error.value.decode(errors="replace"))
    series = tuple((k, float(times[k]), float(values[k])) for k in range(int(result.frame_count))) \
        if progress_series else ()
    return _measurement(result, series)


def _attach_series(settings, capacity):
    """Buffers for `capacity` progress values and frame times, attached to settings."""
    values = (ctypes.c_double * capacity)()
    times = (ctypes.c_double * capacity)()
    if capacity > 0:
        settings.progress_out = ctypes.cast(values, ctypes.POINTER(ctypes.c_double))
        settings.frame_times_out = ctypes.cast(times, ctypes.POINTER(ctypes.c_double))
    settings.series_capacity = capacity
    return values, times


def _run(path, settings, progress):
    """One vyra_measure() call: (result, error buffer, status, exceptions raised by progress)."""
    raised = []
    if progress is not None:
        def relay(_user, stage, done, total):
            if raised:
                return
            try:
                progress(_STAGE.get(stage, str(stage)), int(done), int(total))
            except BaseException as e:  # handed back after the call
                raised.append(e)
        callback = _ffi.Progress(relay)
        settings.progress = callback

    result = _ffi.Result()
    result.struct_size = ctypes.sizeof(_ffi.Result)
    error = ctypes.create_string_buffer(1024)
    status = _ffi.library().vyra_measure(_path_bytes(path, "path"), ctypes.byref(settings), ctypes.byref(result),
                                         error, ctypes.sizeof(error))
    return result, error, status, raised


def _measurement(result, series) -> Measurement:
    keys = {field.key: _key(result, field.offset) for field in _ffi.key_frame_fields()}
    return _measurement_type()(
        launch_time=float(result.launch_time),
        launch_time_mode=_name(_LAUNCH_TIME, result.launch_time_mode),
        page_type=_name(_PAGE, result.page_type),
        timing=_name(_TIMING, result.timing),
        fps=float(result.fps) if result.timing == _TIMING["frame-rate"] else None,
        frame_count=int(result.frame_count),
        frame_width=int(result.frame_width),
        frame_height=int(result.frame_height),
        estimated_time_count=int(result.estimated_time_count),
        loaded_psnr=float(result.loaded_psnr),
        pre_loaded_psnr=float(result.pre_loaded_psnr),
        object_count_length=int(result.object_count_length),
        first_non_blank_object_count=int(result.first_non_blank_object_count),
        feature_matching_count=int(result.feature_matching_count),
        speed_index_ms=float(result.speed_index_ms),
        noise_tolerance=int(result.noise_tolerance),
        noise_tolerance_estimated=bool(result.noise_tolerance_estimated),
        progress_series=series,
        **keys,
    )


from ._batch import BatchResult, batch  # noqa: E402 (it builds on measure above)
