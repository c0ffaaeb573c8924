"""Units of times and rates: ``5 * ms``, ``250 * us``, ``40 * Hz``.

A time is a whole number of nanoseconds. The units are exact integers, so sums and whole multiples
are exact. A product with a float is accepted where it is a whole number: ``1.5 * ms``.
"""

from typing import Final

__all__ = ["ns", "us", "ms", "s", "Hz"]

ns: Final[int] = 1
us: Final[int] = 1_000 * ns
ms: Final[int] = 1_000 * us
s: Final[int] = 1_000 * ms
Hz: Final[float] = 1.0
