"""The C interface of libvyra as ctypes declarations: the structures of
vyra.h (their layout is checked against the C header by the test suite),
finding and loading the library (once per process, on first use), and the
library's table of key frames."""

import ctypes
import ctypes.util
import functools
import os
import subprocess
import threading
from typing import NamedTuple, Tuple

ABI_VERSION = 1

class Region(ctypes.Structure):
    _fields_ = [("x", ctypes.c_int32), ("y", ctypes.c_int32),
                ("width", ctypes.c_int32), ("height", ctypes.c_int32)]


Progress = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_int, ctypes.c_uint64, ctypes.c_uint64)


class Settings(ctypes.Structure):
    _fields_ = [
        ("struct_size", ctypes.c_size_t),
        ("timing", ctypes.c_int),
        ("fps", ctypes.c_double),
        ("start", ctypes.c_int32),
        ("end", ctypes.c_int32),
        ("page_type", ctypes.c_int),
        ("stable_baseline", ctypes.c_int32),
        ("has_crop", ctypes.c_int32),
        ("crop", Region),
        ("ignore", ctypes.POINTER(Region)),
        ("ignore_count", ctypes.c_size_t),
        ("launch_time_mode", ctypes.c_int),
        ("save_frames_dir", ctypes.c_char_p),
        ("progress", Progress),
        ("progress_user", ctypes.c_void_p),
        ("noise_tolerance", ctypes.c_int32),
        ("progress_out", ctypes.POINTER(ctypes.c_double)),
        ("frame_times_out", ctypes.POINTER(ctypes.c_double)),
        ("series_capacity", ctypes.c_size_t),
        ("report_path", ctypes.c_char_p),
        ("filmstrip_path", ctypes.c_char_p),
        ("report_interval_ms", ctypes.c_double),
    ]


class KeyFrame(ctypes.Structure):
    _fields_ = [("index", ctypes.c_int32), ("time", ctypes.c_double)]


class Result(ctypes.Structure):
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
        ("load_finished", KeyFrame),
        ("baseline", KeyFrame),
        ("logo_appear", KeyFrame),
        ("logo_disappear", KeyFrame),
        ("first_frame", KeyFrame),
        ("motion_start", KeyFrame),
        ("loaded_psnr", ctypes.c_double),
        ("pre_loaded_psnr", ctypes.c_double),
        ("object_count_length", ctypes.c_uint64),
        ("first_non_blank_object_count", ctypes.c_uint64),
        ("feature_matching_count", ctypes.c_uint64),
        ("first_visual_change", KeyFrame),
        ("last_visual_change", KeyFrame),
        ("visually_complete_85", KeyFrame),
        ("visually_complete_95", KeyFrame),
        ("visually_complete_99", KeyFrame),
        ("speed_index_ms", ctypes.c_double),
        ("visually_complete", KeyFrame),
        ("noise_tolerance", ctypes.c_int32),
        ("noise_tolerance_estimated", ctypes.c_int32),
    ]



class _KeyFrameField(ctypes.Structure):
    _fields_ = [("label", ctypes.c_char_p), ("key", ctypes.c_char_p), ("group", ctypes.c_int),
                ("offset", ctypes.c_size_t)]


class KeyFrameField(NamedTuple):
    """One VyraKeyFrame field of VyraResult, from vyra_key_frame_fields()."""
    label: str   # the summary's name, "load finished"
    key: str     # the field's name and JSON key, "load_finished"
    group: int   # 0: found by the analysis, 1: from the visual progress
    offset: int  # its offset in VyraResult


class LibraryNotFoundError(ImportError):
    """libvyra could not be loaded; the message lists every place tried."""


def _pkg_config_libdir():
    """The libdir of the pkg-config package "vyra" (an install under a prefix), or None."""
    try:
        run = subprocess.run(["pkg-config", "--variable=libdir", "vyra"], capture_output=True,
                             text=True, timeout=10)
    except (OSError, subprocess.SubprocessError):
        return None
    libdir = run.stdout.strip()
    return libdir if run.returncode == 0 and libdir else None


def _candidates():
    """Where to look, in order: VYRA_LIBRARY alone when it is set; else the names the
    dynamic loader resolves, then the library in the libdir pkg-config reports."""
    env = os.environ.get("VYRA_LIBRARY")
    if env:
        yield env
        return
    found = ctypes.util.find_library("vyra")
    if found:
        yield found
    yield "libvyra.so.0"
    yield "libvyra.so"
    libdir = _pkg_config_libdir()
    if libdir:
        yield os.path.join(os.path.normpath(libdir), "libvyra.so.0")


def load():
    """Loads the library from the first candidate that loads, or raises LibraryNotFoundError."""
    errors = []
    for name in _candidates():
        try:
            return ctypes.CDLL(name)
        except OSError as e:
            errors.append(f"{name}: {e}")
    hint = ("VYRA_LIBRARY names a file that does not load" if os.environ.get("VYRA_LIBRARY") else
            "set VYRA_LIBRARY to the path of libvyra.so.0, or install the library where the dynamic "
            "loader finds it (run ldconfig after installing) or where `pkg-config --variable=libdir vyra` "
            "points (PKG_CONFIG_PATH)")
    raise LibraryNotFoundError(f"libvyra not found: {hint}. Tried: " + "; ".join(errors))


def _declare(lib):
    lib.vyra_default_settings.argtypes = [ctypes.POINTER(Settings)]
    lib.vyra_default_settings.restype = None
    lib.vyra_status_string.argtypes = [ctypes.c_int]
    lib.vyra_status_string.restype = ctypes.c_char_p
    lib.vyra_measure.argtypes = [ctypes.c_char_p, ctypes.POINTER(Settings), ctypes.POINTER(Result),
                                 ctypes.c_char_p, ctypes.c_size_t]
    lib.vyra_measure.restype = ctypes.c_int
    lib.vyra_version.argtypes = []
    lib.vyra_version.restype = ctypes.c_char_p
    lib.vyra_abi_version.argtypes = []
    lib.vyra_abi_version.restype = ctypes.c_uint
    lib.vyra_key_frame_fields.argtypes = [ctypes.POINTER(ctypes.c_size_t)]
    lib.vyra_key_frame_fields.restype = ctypes.POINTER(_KeyFrameField)
    if lib.vyra_abi_version() != ABI_VERSION:
        raise ImportError(f"libvyra ABI {lib.vyra_abi_version()} found, this binding needs {ABI_VERSION}")
    return lib


_lib = None
_lib_lock = threading.Lock()


def library():
    """The library, loaded and declared on the first call in this process, then kept."""
    global _lib
    if _lib is None:
        with _lib_lock:
            if _lib is None:
                _lib = _declare(load())
    return _lib


@functools.lru_cache(maxsize=None)
def key_frame_fields() -> Tuple[KeyFrameField, ...]:
    """The library's key frames that lie within the Result declared here, in its order."""
    count = ctypes.c_size_t()
    table = library().vyra_key_frame_fields(ctypes.byref(count))
    fields = (KeyFrameField(table[k].label.decode(), table[k].key.decode(), int(table[k].group), int(table[k].offset))
              for k in range(count.value))
    return tuple(f for f in fields if f.offset + ctypes.sizeof(KeyFrame) <= ctypes.sizeof(Result))
