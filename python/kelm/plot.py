"""Pictures of spikes, rates, intervals, weights, traces and phases.

Every function takes an `ax` of matplotlib, draws into it and returns it. Without one it draws a
figure of its own and returns that, so `raster(spikes).savefig("raster.png")` works. A figure of its
own is not one of pyplot: to see it in a window, pass an `ax` that pyplot has made.

`net` is a network, or anything with `populations`; without it, the populations are those of the
spikes. matplotlib is imported when the first picture is drawn.
"""

from __future__ import annotations

import sys
from typing import TYPE_CHECKING, Any, NamedTuple

import numpy as np

from . import _checks
from ._page import page
from ._spikes import COLOURS, PopulationRange, Spikes, default_bin
from .errors import ArgumentError

if TYPE_CHECKING:
    from matplotlib.axes import Axes
    from matplotlib.figure import Figure

__all__ = ["raster", "rate", "isi", "weights", "traces", "phase", "page"]

_DOTS = 20_000  # spikes that are drawn one by one; more are counted into the cells of an image


class _Group(NamedTuple):
    population: Any
    colour: str


def _groups(spikes: Spikes, net: Any) -> list[_Group]:
    populations = spikes.populations if net is None else tuple(net.populations)
    populations = populations or (PopulationRange("neurons", 0, spikes.neuron_count),)
    return [_Group(p, COLOURS[i % len(COLOURS)]) for i, p in enumerate(populations)]


def _spikes(spikes: Any) -> Spikes:
    return spikes if isinstance(spikes, Spikes) else Spikes(spikes)


def _figure(height: float = 3.0) -> Figure:
    from matplotlib.figure import Figure

    if "IPython" in sys.modules:
        __import__("matplotlib.pyplot")  # a notebook then shows figures
    return Figure(figsize=(7.0, height), layout="constrained")


def _axes(ax: Axes | None) -> tuple[Axes, Any]:
    """The axes to draw into, and what to return."""
    if ax is not None:
        return ax, ax
    figure = _figure()
    return figure.add_subplot(), figure


def _unit(start: int, end: int) -> tuple[float, str]:
    """The unit of a time axis: its length in ns and its name."""
    for size, name in ((1e9, "s"), (1e6, "ms"), (1e3, "us")):
        if end - start >= size:
            return size, name
    return 1.0, "ns"


def _time_axis(ax: Axes, start: int, end: int) -> float:
    size, name = _unit(start, end)
    ax.set_xlim(start / size, max(end, start + 1) / size)
    ax.set_xlabel(f"time ({name})")
    return size


def raster(spikes: Any, net: Any = None, *, ax: Axes | None = None, start: int | None = None,
           end: int | None = None, bin: int | None = None, rates: bool = True) -> Any:
    """A raster: one row a neuron, in the colours of the populations, above a panel of rates.

    Draws the spikes from `start` up to `end` (ns), all of them without these. `bin` (ns) is that of
    the rates, and `rates=False` leaves their panel out, as an `ax` does. More than 20000 spikes are
    drawn as an image, in which a cell is the darker the more spikes it has.
    """
    spikes = _spikes(spikes)
    if start is not None or end is not None:
        spikes = spikes.between(spikes.start if start is None else start,
                                spikes.end if end is None else end)
    groups = _groups(spikes, net)
    if ax is not None:
        _draw_raster(ax, spikes, groups)
        return ax
    figure = _figure(4.5 if rates else 3.0)
    if not rates:
        _draw_raster(figure.add_subplot(), spikes, groups)
        return figure
    above, below = figure.subplots(2, 1, sharex=True, height_ratios=(3, 1))
    _draw_raster(above, spikes, groups)
    above.set_xlabel("")
    _draw_rates(below, spikes, groups, bin)
    return figure


def _draw_raster(ax: Axes, spikes: Spikes, groups: list[_Group]) -> None:
    low = min(group.population.first for group in groups)
    high = max(group.population.first + group.population.size for group in groups)
    unit = _time_axis(ax, spikes.start, spikes.end)
    ax.set_ylim(low - 0.5, max(high, low + 1) - 0.5)
    ax.set_ylabel("neuron")
    if len(spikes) > _DOTS:
        ax.imshow(_image(ax, spikes, groups, low, high), origin="lower", aspect="auto",
                  interpolation="nearest", zorder=0,
                  extent=(spikes.start / unit, spikes.end / unit, low - 0.5, high - 0.5))
    rows = ax.get_window_extent().height * 72 / ax.figure.dpi / max(high - low, 1)  # points a row
    for population, colour in groups:
        part = spikes.of(population) if len(spikes) <= _DOTS else spikes.between(0, 0)
        ax.plot(part.time / unit, part.neuron, linestyle="none", marker="|", color=colour,
                markersize=min(max(rows, 1.0), 8.0), markeredgewidth=0.8, label=population.name)
    if len(groups) > 1:
        _legend(ax, groups)


def _image(ax: Axes, spikes: Spikes, groups: list[_Group], low: int, high: int) -> np.ndarray:
    """The spikes as an image of the size of `ax`: uint8, shape (rows, columns, 4)."""
    from matplotlib.colors import to_rgb

    extent = ax.get_window_extent()
    columns, rows = max(int(extent.width), 1), max(min(int(extent.height), high - low), 1)
    spikes = spikes.of_neurons(low, high)
    across, up = columns / (spikes.end - spikes.start), rows / (high - low)
    column = ((spikes.time - spikes.start) * across).astype(np.int32)
    row = ((spikes.neuron - np.uint64(low)) * up).astype(np.int32)
    cell = np.minimum(row, rows - 1) * columns + np.minimum(column, columns - 1)
    counts = np.bincount(cell, minlength=rows * columns).reshape(rows, columns)
    dark = max(np.quantile(counts[counts > 0], 0.99), 1.0) if counts.any() else 1.0
    image = np.zeros((rows, columns, 4), np.uint8)
    first = low + np.ceil(np.arange(rows) * ((high - low) / rows))  # the first neuron of each row
    for population, colour in groups:
        here = (first >= population.first) & (first < population.first + population.size)
        image[here, :, :3] = np.round(np.multiply(to_rgb(colour), 255))
    shade = 0.2 + 0.8 * np.sqrt(np.minimum(counts / dark, 1.0))
    image[..., 3] = np.where(counts > 0, np.round(255 * shade), 0)
    return image


def _legend(ax: Axes, groups: list[_Group]) -> None:
    from matplotlib.lines import Line2D

    ax.legend(handles=[Line2D([], [], color=colour, label=population.name, linewidth=3)
                       for population, colour in groups],
              loc="lower right", bbox_to_anchor=(1, 1), ncols=min(len(groups), 6), frameon=False)


def rate(spikes: Any, net: Any = None, *, bin: int | None = None, ax: Axes | None = None) -> Any:
    """The mean rate of the neurons of each population over time, in bins of `bin` ns."""
    spikes = _spikes(spikes)
    ax, drawn = _axes(ax)
    groups = _groups(spikes, net)
    _draw_rates(ax, spikes, groups, bin)
    if len(groups) > 1:
        _legend(ax, groups)
    return drawn


def _draw_rates(ax: Axes, spikes: Spikes, groups: list[_Group], bin: int | None) -> None:
    unit = _time_axis(ax, spikes.start, spikes.end)
    bin = default_bin(spikes) if bin is None else _checks.time(bin, "bin", least=1)
    for population, colour in groups:
        starts, rates = spikes.rates(bin, population)
        if len(starts):
            ax.stairs(rates, np.append(starts, spikes.end) / unit, color=colour,
                      label=population.name)
    ax.set_ylim(bottom=0)
    ax.set_ylabel("rate (spikes/s)")


def isi(spikes: Any, net: Any = None, *, bins: int = 60, ax: Axes | None = None) -> Any:
    """Histograms of the intervals between spikes of the same neuron, on a logarithmic axis.

    The legend has the coefficient of variation of all intervals of a population: 1 for a Poisson
    process of one rate, 0 for a clock.
    """
    spikes = _spikes(spikes)
    ax, drawn = _axes(ax)
    groups = _groups(spikes, net)
    intervals = [spikes.intervals(group.population) / 1e6 for group in groups]
    intervals = [values[values > 0] for values in intervals]
    every = np.concatenate(intervals)
    low, high = (every.min(), every.max()) if len(every) else (1.0, 1.0)
    edges = np.geomspace(low, high if high > low else low * 10, bins + 1)
    edges[0], edges[-1] = min(edges[0], low), max(edges[-1], high)  # geomspace rounds
    for (population, colour), values in zip(groups, intervals):
        variation = f"{values.std() / values.mean():.2f}" if len(values) else "unknown"
        ax.stairs(np.histogram(values, edges)[0] / max(len(values), 1), edges, color=colour,
                  label=f"{population.name}, CV {variation}")
    ax.set_xscale("log")
    ax.set_xlabel("interval (ms)")
    ax.set_ylabel("share of intervals")
    ax.legend(frameon=False)
    return drawn


def _samples(time: Any, values: Any) -> tuple[np.ndarray, np.ndarray, float, str]:
    """Checked samples as (samples,) and (samples, columns), and the unit of the time axis."""
    time, values = np.asarray(time), np.asarray(values, dtype=float)
    if values.ndim == 1:
        values = values[:, None]
    if time.ndim != 1 or values.ndim != 2 or len(time) != len(values):
        raise ArgumentError("time must have shape (samples,) and values (samples,) or (samples, n),"
                            f" not {time.shape} and {values.shape}")
    first, last = (int(time[0]), int(time[-1])) if len(time) else (0, 0)
    return time, values, *_unit(first, last)


def weights(time: Any, values: Any, *, lines: int = 20, ax: Axes | None = None) -> Any:
    """Weights over time: the median, the middle half, the middle 90 %, and single synapses.

    `time` in ns, shape (samples,); `values`, shape (samples, synapses). Of the synapses, `lines` at
    equal distances in their order are drawn as thin lines.
    """
    time, values, unit, name = _samples(time, values)
    ax, drawn = _axes(ax)
    time = time / unit
    if values.size:
        p5, p25, p50, p75, p95 = np.quantile(values, [0.05, 0.25, 0.5, 0.75, 0.95], axis=1)
        ax.fill_between(time, p5, p95, color=COLOURS[0], alpha=0.15, linewidth=0, label="90 %")
        ax.fill_between(time, p25, p75, color=COLOURS[0], alpha=0.3, linewidth=0, label="50 %")
        count = min(max(lines, 0), values.shape[1])
        chosen = np.linspace(0, values.shape[1] - 1, count).astype(int)
        ax.plot(time, values[:, chosen], color="#555555", linewidth=0.4, alpha=0.6)
        ax.plot(time, p50, color=COLOURS[0], label="median")
        ax.legend(frameon=False)
    ax.set_xlabel(f"time ({name})")
    ax.set_ylabel("weight")
    return drawn


def traces(time: Any, values: Any, *, neurons: Any = None, spikes: Any = None,
           label: str = "membrane trace", ax: Axes | None = None) -> Any:
    """Sampled traces, one line a neuron.

    `time` in ns, shape (samples,); `values`, shape (samples,) or (samples, neurons). `neurons` are
    the numbers of the columns, for the legend; with `spikes` too, the spikes of these neurons are
    marks above the traces. `label` names the quantity.
    """
    time, values, unit, name = _samples(time, values)
    numbers = None if neurons is None else np.atleast_1d(neurons)
    if numbers is not None and len(numbers) != values.shape[1]:
        raise ArgumentError(f"neurons must have {values.shape[1]} numbers, one for each column of "
                            f"values, not {len(numbers)}")
    if spikes is not None and numbers is None:
        raise ArgumentError("spikes are drawn for neurons: give the numbers of the columns")
    ax, drawn = _axes(ax)
    top = np.nanmax(values) if values.size else 0.0
    step = 0.06 * ((top - np.nanmin(values)) or 1.0) if values.size else 1.0
    for column in range(values.shape[1]):
        colour = COLOURS[column % len(COLOURS)]
        name_of = None if numbers is None else f"neuron {numbers[column]}"
        ax.plot(time / unit, values[:, column], color=colour, linewidth=0.9, label=name_of)
        if spikes is not None and numbers is not None and len(time):
            part = _spikes(spikes).between(int(time[0]), int(time[-1]) + 1)
            fired = part.of(PopulationRange("", int(numbers[column]), 1)).time / unit
            ax.plot(fired, np.full(len(fired), top + step * (column + 1)), linestyle="none",
                    marker="|", color=colour)
    ax.set_xlabel(f"time ({name})")
    ax.set_ylabel(label)
    if numbers is not None and len(numbers):
        ax.legend(frameon=False)
    return drawn


def phase(spikes: Any, net: Any = None, *, period: int | None = None, origin: int = 0,
          phases: Any = None, bins: int = 24, ax: Axes | None = None) -> Any:
    """Histograms of the phases of spikes, in radians, for each population.

    The phase is that of a clock of `period` ns which is at phase 0 at `origin` ns; or `phases` has
    one for each spike, shape (n,), for instance those of an oscillator that a coupling moves. The
    legend has the vector strength: 1 if all phases are equal, 0 if they cancel out. `ax` may be
    polar.
    """
    spikes = _spikes(spikes)
    if (period is None) == (phases is None):
        raise ArgumentError("phase takes either period or phases")
    if phases is None:
        period = _checks.time(period, "period", least=1)
        phases = (spikes.time - origin) % period * (2 * np.pi / period)
    phases = np.asarray(phases, dtype=float) % (2 * np.pi)
    if phases.shape != (len(spikes),):
        raise ArgumentError(f"phases must have shape ({len(spikes)},), one for each spike, not "
                            f"{phases.shape}")
    ax, drawn = _axes(ax)
    edges = np.linspace(0, 2 * np.pi, bins + 1)
    for population, colour in _groups(spikes, net):
        own = phases[spikes.neuron - np.uint64(population.first) < np.uint64(population.size)]
        strength = f"{abs(np.exp(1j * own).mean()):.2f}" if len(own) else "unknown"
        share = np.histogram(own, edges)[0] / max(len(own), 1)
        ax.bar(edges[:-1], share, edges[1], align="edge", color=colour, alpha=0.5,
               label=f"{population.name}, vector strength {strength}")
    if ax.name != "polar":
        ax.set_xlim(0, 2 * np.pi)
        ax.set_xticks(np.linspace(0, 2 * np.pi, 5), ["0", "π/2", "π", "3π/2", "2π"])
        ax.set_xlabel("phase (radians)")
        ax.set_ylabel("share of spikes")
    ax.legend(frameon=False)
    return drawn
