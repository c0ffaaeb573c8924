"""Checks and conversions of arguments. Every refusal names the argument, the value and the rule."""

from __future__ import annotations

import difflib
import math
import numbers
from dataclasses import MISSING, fields
from typing import Any, Iterable, Optional, Type, TypeVar

import numpy as np

from .errors import ArgumentError, ArgumentTypeError

_HINT = "times are ns: write 2*ms"
_LARGEST_TIME = 2**63 - 1
T = TypeVar("T")


def whole_number(value: Any, name: str, hint: str = "") -> int:
    """The int that an int, a NumPy integer or a whole float is."""
    tail = f"; {hint}" if hint else ""
    if isinstance(value, (bool, np.bool_)) or not isinstance(value, numbers.Real):
        kind = type(value).__name__
        raise ArgumentTypeError(f"{name} must be a whole number, not {kind}{tail}")
    if isinstance(value, numbers.Integral):
        return int(value)
    number = _float(value)
    if not number.is_integer():  # also refuses nan and infinity
        raise ArgumentError(f"{name} is {value}, which is no whole number{tail}")
    return int(number)


def _float(value: Any) -> float:
    try:
        return float(value)
    except OverflowError:
        return math.inf


def time(value: Any, name: str, least: int = 0) -> int:
    """A time in ns, an int of at least `least` that fits into 64 bits."""
    ns = whole_number(value, name, _HINT)
    if not least <= ns <= _LARGEST_TIME:
        raise ArgumentError(f"{name} is {ns} ns, must lie in [{least}, 2^63); {_HINT}")
    return ns


def duration(value: Any, name: str, window: Optional[int]) -> int:
    """A duration in ns that is no shorter than the window."""
    ns = time(value, name, least=1)
    if window is not None and ns < window:
        raise ArgumentError(
            f"{name}: {ns} ns is below the window of {window} ns; {_HINT}"
        )
    return ns


def count(value: Any, name: str, least: int = 0, most: int = 2**64 - 1) -> int:
    """An int in [least, most]."""
    number = whole_number(value, name)
    if not least <= number <= most:
        raise ArgumentError(f"{name} is {number}, must lie in [{least}, {most}]")
    return number


def real(value: Any, name: str) -> float:
    """A finite float."""
    if isinstance(value, (bool, np.bool_)) or not isinstance(value, numbers.Real):
        raise ArgumentTypeError(f"{name} must be a number, not {type(value).__name__}")
    number = _float(value)
    if not math.isfinite(number):
        raise ArgumentError(f"{name} is {number}, must be finite")
    return number


def flag(value: Any, name: str) -> bool:
    """A bool, or 0 or 1."""
    if isinstance(value, (bool, np.bool_)):
        return bool(value)
    if isinstance(value, numbers.Real) and value in (0, 1):
        return bool(value)
    raise ArgumentTypeError(f"{name} is {value!r}, must be True or False")


def items(value: Any, name: str) -> list[Any]:
    """The items of a list, a tuple or another iterable that is no text and no dict."""
    try:
        if not isinstance(value, (str, bytes, dict)):
            return list(value)
    except TypeError:
        pass
    raise ArgumentTypeError(f"{name} must be a list, not {type(value).__name__}")


def text(value: Any, name: str) -> str:
    """A text that is not empty."""
    if not isinstance(value, str):
        raise ArgumentTypeError(f"{name} must be a text, not {type(value).__name__}")
    if not value:
        raise ArgumentError(f"{name} is empty, must be a text")
    try:
        value.encode()
    except UnicodeEncodeError:
        raise ArgumentError(f"{name} is {value!r}, which is no Unicode text") from None
    return value


def choice(value: Any, name: str, allowed: Iterable[str]) -> str:
    """One of the allowed texts."""
    options = list(allowed)
    if isinstance(value, str) and value in options:
        return str(value)
    close = difflib.get_close_matches(str(value), options, 1)
    hint = f"; did you mean {close[0]!r}?" if close else ""
    raise ArgumentError(f"{name} is {value!r}, must be one of {', '.join(options)}{hint}")


def record(cls: Type[T], value: Any, name: str) -> T:
    """`value` as a `cls`, which is a dataclass: one of it, a dict of its fields, or None."""
    if isinstance(value, cls):
        return value
    if value is None:
        value = {}
    if not isinstance(value, dict):
        raise ArgumentTypeError(
            f"{name} must be a kelm.{cls.__name__} or a dict of its fields, "
            f"not {type(value).__name__}"
        )
    for key in value:
        choice(key, f"a field of {name}", cls.__dataclass_fields__)  # type: ignore[attr-defined]
    for field in fields(cls):  # type: ignore[arg-type]
        if field.default is MISSING and field.name not in value:
            raise ArgumentError(f"{name} has no {field.name}")
    return cls(**value)


def array(values: Any, name: str) -> np.ndarray:
    """Numbers as an array, which may be `values` itself. Its type is not checked."""
    try:
        result = np.asarray(values)
        masked = np.ma.is_masked(values)
    except Exception as failure:
        raise ArgumentTypeError(f"{name} is no array of numbers: {failure}") from failure
    if masked:
        raise ArgumentError(f"{name} has masked elements")
    return result


def column(
    values: Any,
    name: str,
    dtype: Any,
    size: Optional[int] = None,
    low: Optional[float] = None,
    below: Optional[int] = None,
    rule: str = "",
) -> np.ndarray:
    """A contiguous one-dimensional array of exactly `dtype`, from any integers or floats.

    It may be `values` itself. A single number is repeated where `size` is
    given. Refuses another shape, values that `dtype` cannot hold (fractions for an integer type),
    NaN, infinity, values below `low` and values not below `below`.
    """
    given = array(values, name)
    if given.size == 0:
        given = given.astype(dtype)
    if given.dtype.kind not in "iuf" and not (given.dtype.kind == "b" and dtype == np.uint8):
        raise ArgumentTypeError(f"{name} must hold numbers, not {given.dtype}")
    if given.ndim == 0 and size is not None:
        given = np.broadcast_to(given, (size,))
    if given.ndim != 1:
        raise ArgumentError(f"{name} has shape {given.shape}, must have one dimension")
    if size is not None and len(given) != size:
        raise ArgumentError(f"{name} has {len(given)} values, must have {size}")
    target = np.dtype(dtype)
    tail = f"; {rule}" if rule else ""

    def refuse(wrong: np.ndarray, must: str) -> None:
        k = int(np.argmax(wrong))
        raise ArgumentError(f"{name}[{k}] is {given[k]}, {must}{tail}")

    # The extremes tell whether a value is wrong, in one pass each and without a temporary array.
    if given.size:
        least, most = given.min().item(), given.max().item()
        if given.dtype.kind == "f":
            if not (np.isfinite(least) and np.isfinite(most)):
                refuse(~np.isfinite(given), "must be finite")
            if target.kind in "iu":
                if not np.array_equal(given, np.floor(given)):
                    refuse(given != np.floor(given), "must be a whole number")
                # NumPy does not compare a longdouble with a large int.
                least, most = int(least), int(most)
        if low is not None and least < low:
            refuse(given < low, f"must be at least {low}")
        if below is not None and most >= below:
            refuse(given >= below, f"must be below {below}")
        if target.kind in "iu":
            bounds = np.iinfo(target)
            if least < bounds.min:
                refuse(given == given.min(), f"must be at least {bounds.min}")
            if most > bounds.max:
                refuse(given == given.max(), f"must be at most {bounds.max}")
        with np.errstate(over="ignore"):
            if target.kind == "f" and not np.isfinite(np.array([least, most], target)).all():
                precision = "single precision" if target == np.float32 else "double precision"
                refuse(~np.isfinite(given.astype(target)), f"is too large for {precision}")
    return np.ascontiguousarray(given, target)


def times(values: Any, name: str, size: Optional[int] = None, low: int = 0) -> np.ndarray:
    """Times in ns as int64."""
    return column(values, name, np.int64, size=size, low=low, rule=_HINT)


def ascending(values: np.ndarray, name: str) -> None:
    """Refuses values that fall."""
    falls = np.flatnonzero(values[1:] < values[:-1])
    if falls.size:
        k = int(falls[0]) + 1
        raise ArgumentError(
            f"{name}[{k}] is {values[k]}, which is before {name}[{k - 1}], {values[k - 1]}: "
            f"must ascend"
        )
