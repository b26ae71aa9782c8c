"""vyra.batch(): many recordings measured on a local process pool, any
concurrent.futures executor, or a Dask cluster through a distributed.Client.

Each task is one call of _measure_one(path, options) in a worker process,
which loads the library on its first task and keeps it. A task returns a
BatchResult, plain picklable data, so it crosses process and machine
boundaries; a recording that fails is a BatchResult carrying the library's
status and message, never an exception that stops the batch."""

from __future__ import annotations

import concurrent.futures
import inspect
import multiprocessing
import os
import sys
import time
from dataclasses import dataclass
from itertools import repeat
from typing import Any, Dict, Iterable, List, Optional

from . import OK, VyraError, _check, _ffi, measure


@dataclass(frozen=True)
class BatchResult:
    """One recording of a batch: its measurement, or the error that stopped it."""
    path: str                       # as given (os.fspath)
    measurement: Optional[Any]      # a vyra.Measurement, None when the recording failed
    status: int                     # vyra.OK, or the VyraStatus of the failure
    status_name: str                # "ok", "not found", ...
    error: str                      # "" or the library's message
    wall_s: float                   # seconds the measurement took in its worker

    @property
    def ok(self) -> bool:
        return self.status == OK


def _measure_one(path, options: Dict[str, Any]) -> BatchResult:
    """The task run in a worker: measure(path, **options) as a BatchResult."""
    start = time.perf_counter()
    try:
        m = measure(path, **options)
    except VyraError as e:
        return BatchResult(path, None, e.status, e.status_name, e.message, time.perf_counter() - start)
    return BatchResult(path, m, OK, _ffi.library().vyra_status_string(OK).decode(), "",
                       time.perf_counter() - start)


def _check_options(options: Dict[str, Any]) -> None:
    """Refuses, before any task starts, options that would fail every recording alike."""
    if "progress" in options:
        raise TypeError("batch() takes no progress callback: it would run in other processes")
    bound = inspect.signature(measure).bind("", **options)  # TypeError for an unknown option
    bound.apply_defaults()
    _check(bound.arguments["launch_time"], bound.arguments["noise_tolerance"])


def _dask_client(executor) -> bool:
    distributed = sys.modules.get("distributed")
    return distributed is not None and isinstance(executor, distributed.Client)


def batch(paths: Iterable, executor=None, **options) -> List[BatchResult]:
    """Measures every recording of @paths with measure(path, **options) and
    returns their BatchResults in the order of @paths.

    executor None: a local pool of os.cpu_count() processes (started by a
    fork server: a script calling batch() keeps its top level under
    `if __name__ == "__main__":`). A concurrent.futures.Executor: its map().
    A distributed.Client: one task per recording on the Dask cluster; a
    worker that dies takes its tasks to another (Dask's own retries).
    Raises TypeError for an unknown option or a progress callback,
    ValueError as measure() does for a bad launch_time or noise_tolerance.
    """
    paths = [os.fspath(p) for p in paths]
    _check_options(options)
    if not paths:
        return []
    if executor is None:
        workers = min(len(paths), os.cpu_count() or 1)
        with concurrent.futures.ProcessPoolExecutor(
                workers, mp_context=multiprocessing.get_context("forkserver")) as pool:
            return list(pool.map(_measure_one, paths, repeat(options)))
    if isinstance(executor, concurrent.futures.Executor):
        return list(executor.map(_measure_one, paths, repeat(options)))
    if _dask_client(executor):
        # pure=False: a recording may change between two batches, so no
        # result is taken from an earlier task over the same path.
        futures = executor.map(_measure_one, paths, [options] * len(paths), pure=False)
        return executor.gather(futures)
    raise TypeError(f"executor must be None, a concurrent.futures.Executor or a distributed.Client, "
                    f"not {type(executor).__name__}")
