"""Many runs on threads."""

from __future__ import annotations

import os
import threading
from concurrent.futures import ThreadPoolExecutor
from typing import Any, Callable, Iterable, Optional, TypeVar, Union

from . import _checks
from ._progress import Cancelled, in_sweep
from .errors import ArgumentTypeError

Item = TypeVar("Item")
Result = TypeVar("Result")


def sweep(
    function: Callable[[Item], Result],
    items: Iterable[Item],
    threads: Optional[int] = None,
    progress: Union[bool, None, Callable[[int, int], Any]] = None,
) -> list[Result]:
    """Calls ``function(item)`` for each item on threads. Returns the results in order.

    Runs of simulations take place side by side, each on one thread unless it was given more, and
    do not depend on the number of threads.

    Parameters
    ----------
    threads
        the number of calls at a time; None for one a processor
    progress
        True for a bar of tqdm, or a callable that takes the number of finished and of all items

    If a call raises, no further call begins, runs that are on end after their window, and the error
    of the first item that failed is raised. Ctrl-C ends a sweep in the same way.
    """
    if not callable(function):
        raise ArgumentTypeError(f"function must be callable, not {type(function).__name__}")
    work = list(items)
    if threads is not None:
        threads = _checks.count(threads, "threads", 1, 1024)
    cancelled = threading.Event()

    def enter() -> None:
        in_sweep.cancelled = cancelled

    def call(item: Item) -> Result:
        if cancelled.is_set():
            raise Cancelled
        try:
            return function(item)
        except BaseException:
            cancelled.set()
            raise

    bar: Any = None
    if progress is True:
        from tqdm.auto import tqdm

        bar = tqdm(total=len(work))
    pool = ThreadPoolExecutor(threads or _processors(), initializer=enter)
    results: list[Result] = []
    try:
        futures = [pool.submit(call, item) for item in work]
        for future in futures:
            try:
                results.append(future.result())
            except Cancelled:
                break
            if bar is not None:
                bar.update()
            elif callable(progress):
                progress(len(results), len(work))
        for future in futures[len(results) :]:
            failure = future.exception()
            if failure is not None and not isinstance(failure, Cancelled):
                raise failure
        return results
    finally:
        cancelled.set()
        pool.shutdown(wait=True, cancel_futures=True)
        if bar is not None:
            bar.close()


def _processors() -> int:
    if hasattr(os, "sched_getaffinity"):
        return len(os.sched_getaffinity(0)) or 1
    return os.cpu_count() or 1
