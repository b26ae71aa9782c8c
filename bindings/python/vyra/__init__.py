"""Python binding of libvyra: launch time of an app page from a screen recording.

Only the standard library is used (ctypes). The shared library is found in
this order: the path in the environment variable VYRA_LIBRARY; the name
ctypes.util.find_library("vyra") returns; the names "libvyra.so.0" and
"libvyra.so" as the dynamic loader resolves them.

    import vyra
    m = vyra.measure("launch.mp4")            # timed by the video's timestamps
    print(m.launch_time, m.load_finished.index, m.load_finished.time)
    m = vyra.measure("frames/", fps=30, ignore=[(0, 0, 1080, 80)])

measure() raises vyra.VyraError (with .status, .status_name and .message)
for bad input. A recording in which no load-finished frame was found is not
an error: launch_time is NaN and every key frame that was not found has index
-1 and time NaN.
"""

import ctypes
import ctypes.util
import math
import os
from dataclasses import dataclass
from typing import Callable, Iterable, Optional, Sequence

__all__ = [
    "VyraError", "KeyFrame", "Measurement", "measure", "version", "abi_version",
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

_ABI_VERSION = 1
_TIMING = {"timestamps": 0, "frame-rate": 1}
_LAUNCH_TIME = {"frame": 0, "next-frame": 1}
_PAGE = {"static": 0, "dynamic": 1}
_STAGE = {0: "decoding", 1: "analysing"}


class _Region(ctypes.Structure):
    _fields_ = [("x", ctypes.c_int32), ("y", ctypes.c_int32),
                ("width", ctypes.c_int32), ("height", ctypes.c_int32)]


_Progress = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_int, ctypes.c_uint64, ctypes.c_uint64)


class _Settings(ctypes.Structure):
    _fields_ = [
        ("struct_size", ctypes.c_size_t),
        ("timing", ctypes.c_int),
        ("fps", ctypes.c_double),
        ("start", ctypes.c_int32),
        ("end", ctypes.c_int32),
        ("page_type", ctypes.c_int),
        ("stable_baseline", ctypes.c_int32),
        ("has_crop", ctypes.c_int32),
        ("crop", _Region),
        ("ignore", ctypes.POINTER(_Region)),
        ("ignore_count", ctypes.c_size_t),
        ("launch_time_mode", ctypes.c_int),
        ("save_frames_dir", ctypes.c_char_p),
        ("progress", _Progress),
        ("progress_user", ctypes.c_void_p),
    ]


class _KeyFrame(ctypes.Structure):
    _fields_ = [("index", ctypes.c_int32), ("time", ctypes.c_double)]


class _Result(ctypes.Structure):
    _fields_ = [
        ("struct_size", ctypes.c_size_t),
        ("status", ctypes.c_int),
        ("page_type", ctypes.c_int),
        ("timing", ctypes.c_int),
        ("launch_time_mode", ctypes.c_int),
        ("fps", ctypes.c_double),
        ("frame_count", ctypes.c_uint64),
        ("frame_width", ctypes.c_int32),
        ("frame_height", ctypes.c_int32),
        ("launch_time", ctypes.c_double),
        ("estimated_time_count", ctypes.c_uint64),
        ("load_finished", _KeyFrame),
        ("baseline", _KeyFrame),
        ("logo_appear", _KeyFrame),
        ("logo_disappear", _KeyFrame),
        ("first_frame", _KeyFrame),
        ("motion_start", _KeyFrame),
        ("loaded_psnr", ctypes.c_double),
        ("pre_loaded_psnr", ctypes.c_double),
        ("object_count_length", ctypes.c_uint64),
        ("first_non_blank_object_count", ctypes.c_uint64),
        ("feature_matching_count", ctypes.c_uint64),
    ]


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


@dataclass(frozen=True)
class Measurement:
    """Everything vyra_measure() reports for one recording."""
    launch_time: float          # seconds, NaN when no load-finished frame was found
    launch_time_mode: str       # "frame" or "next-frame"
    page_type: str              # "static" or "dynamic"
    timing: str                 # "timestamps" or "frame-rate"
    fps: Optional[float]        # the frame rate of "frame-rate" timing, else None
    frame_count: int
    frame_width: int
    frame_height: int
    estimated_time_count: int
    load_finished: KeyFrame
    baseline: KeyFrame
    logo_appear: KeyFrame
    logo_disappear: KeyFrame
    first_frame: KeyFrame
    motion_start: KeyFrame
    loaded_psnr: float
    pre_loaded_psnr: float
    object_count_length: int
    first_non_blank_object_count: int
    feature_matching_count: int

    @property
    def found(self) -> bool:
        return not math.isnan(self.launch_time)


def _candidates():
    env = os.environ.get("VYRA_LIBRARY")
    if env:
        yield env
        return
    found = ctypes.util.find_library("vyra")
    if found:
        yield found
    yield "libvyra.so.0"
    yield "libvyra.so"


def _load():
    errors = []
    for name in _candidates():
        try:
            lib = ctypes.CDLL(name)
            break
        except OSError as e:
            errors.append(f"{name}: {e}")
    else:
        raise ImportError("libvyra not found (set VYRA_LIBRARY to its path): " + "; ".join(errors))
    lib.vyra_default_settings.argtypes = [ctypes.POINTER(_Settings)]
    lib.vyra_default_settings.restype = None
    lib.vyra_status_string.argtypes = [ctypes.c_int]
    lib.vyra_status_string.restype = ctypes.c_char_p
    lib.vyra_measure.argtypes = [ctypes.c_char_p, ctypes.POINTER(_Settings), ctypes.POINTER(_Result),
                                 ctypes.c_char_p, ctypes.c_size_t]
    lib.vyra_measure.restype = ctypes.c_int
    lib.vyra_version.argtypes = []
    lib.vyra_version.restype = ctypes.c_char_p
    lib.vyra_abi_version.argtypes = []
    lib.vyra_abi_version.restype = ctypes.c_uint
    if lib.vyra_abi_version() != _ABI_VERSION:
        raise ImportError(f"libvyra ABI {lib.vyra_abi_version()} found, this binding needs {_ABI_VERSION}")
    return lib


_lib = _load()


def version() -> str:
    """The library's version, "MAJOR.MINOR.PATCH"."""
    return _lib.vyra_version().decode()


def abi_version() -> int:
    """VYRA_ABI_VERSION of the loaded library."""
    return int(_lib.vyra_abi_version())


def _region(value: Sequence[int]) -> _Region:
    x, y, w, h = (int(v) for v in value)
    return _Region(x, y, w, h)


def _key(k: _KeyFrame) -> KeyFrame:
    return KeyFrame(int(k.index), float(k.time))


def _choice(table, value, what):
    if value not in table:
        raise ValueError(f"{what} must be one of {sorted(table)}, not {value!r}")
    return table[value]


def _name(table, number):
    return next(name for name, value in table.items() if value == number)


def measure(path, *, fps: Optional[float] = None, start: int = 0, end: int = 0, dynamic: bool = False,
            stable_baseline: bool = False, crop: Optional[Sequence[int]] = None,
            ignore: Iterable[Sequence[int]] = (), launch_time: str = "frame",
            save_frames: Optional[str] = None,
            progress: Optional[Callable[[str, int, int], None]] = None) -> Measurement:
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
    Raises VyraError on bad input, ValueError for an unknown launch_time.
    """
    settings = _Settings()
    _lib.vyra_default_settings(ctypes.byref(settings))
    if fps is not None:
        settings.timing = _TIMING["frame-rate"]
        settings.fps = float(fps)
    settings.start = int(start)
    settings.end = int(end)
    settings.page_type = _PAGE["dynamic" if dynamic else "static"]
    settings.stable_baseline = 1 if stable_baseline else 0
    if crop is not None:
        settings.has_crop = 1
        settings.crop = _region(crop)
    regions = [_region(r) for r in ignore]
    array = (_Region * len(regions))(*regions) if regions else None
    if array is not None:
        settings.ignore = ctypes.cast(array, ctypes.POINTER(_Region))
        settings.ignore_count = len(regions)
    settings.launch_time_mode = _choice(_LAUNCH_TIME, launch_time, "launch_time")
    if save_frames is not None:
        settings.save_frames_dir = os.fsencode(save_frames)
    raised = []
    if progress is not None:
        def relay(_user, stage, done, total):
            if raised:
                return
            try:
                progress(_STAGE.get(stage, str(stage)), int(done), int(total))
            except BaseException as e:  # handed back after the call
                raised.append(e)
        callback = _Progress(relay)
        settings.progress = callback

    result = _Result()
    result.struct_size = ctypes.sizeof(_Result)
    error = ctypes.create_string_buffer(1024)
    status = _lib.vyra_measure(os.fsencode(path), ctypes.byref(settings), ctypes.byref(result),
                               error, ctypes.sizeof(error))
    if raised:
        raise raised[0]
    if status != OK:
        raise VyraError(status, _lib.vyra_status_string(status).decode(),
                        error.value.decode(errors="replace"))
    return Measurement(
        launch_time=float(result.launch_time),
        launch_time_mode=_name(_LAUNCH_TIME, result.launch_time_mode),
        page_type=_name(_PAGE, result.page_type),
        timing=_name(_TIMING, result.timing),
        fps=float(result.fps) if result.timing == _TIMING["frame-rate"] else None,
        frame_count=int(result.frame_count),
        frame_width=int(result.frame_width),
        frame_height=int(result.frame_height),
        estimated_time_count=int(result.estimated_time_count),
        load_finished=_key(result.load_finished),
        baseline=_key(result.baseline),
        logo_appear=_key(result.logo_appear),
        logo_disappear=_key(result.logo_disappear),
        first_frame=_key(result.first_frame),
        motion_start=_key(result.motion_start),
        loaded_psnr=float(result.loaded_psnr),
        pre_loaded_psnr=float(result.pre_loaded_psnr),
        object_count_length=int(result.object_count_length),
        first_non_blank_object_count=int(result.first_non_blank_object_count),
        feature_matching_count=int(result.feature_matching_count),
    )
