"""The C interface of libvyra as ctypes declarations: the structures of
vyra.h (their layout is checked against the C header by the test suite),
finding and loading the library, and the library's table of key frames."""

import ctypes
import ctypes.util
import os
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


def load():
    """The library: VYRA_LIBRARY, else what the loader finds as "vyra", libvyra.so.0 or libvyra.so."""
    errors = []
    for name in _candidates():
        try:
            lib = ctypes.CDLL(name)
            break
        except OSError as e:
            errors.append(f"{name}: {e}")
    else:
        raise ImportError("libvyra not found (set VYRA_LIBRARY to its path): " + "; ".join(errors))
    return lib


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


lib = _declare(load())


def key_frame_fields() -> Tuple[KeyFrameField, ...]:
    """The library's key frames that lie within the Result declared here, in its order."""
    count = ctypes.c_size_t()
    table = lib.vyra_key_frame_fields(ctypes.byref(count))
    fields = (KeyFrameField(table[k].label.decode(), table[k].key.decode(), int(table[k].group), int(table[k].offset))
              for k in range(count.value))
    return tuple(f for f in fields if f.offset + ctypes.sizeof(KeyFrame) <= ctypes.sizeof(Result))
