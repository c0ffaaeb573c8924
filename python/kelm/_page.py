"""The page: a raster and rates in one HTML file, which needs no network access.

The folder _static has its parts. uPlot, which draws the rates, is the release 1.6.32 as its authors
distribute it, under the MIT licence.
"""

from __future__ import annotations

import base64
import html
import json
import zlib
from importlib import resources
from typing import Any

import numpy as np

from . import _checks, _files
from .errors import ArgumentError
from ._spikes import COLOURS, PopulationRange, Spikes, default_bin

_EACH = 2_000_000  # spikes that a page has one by one
_COLUMNS, _ROWS = 4000, 500  # the cells that more spikes are counted into
_LABELS = {"kelm_version": "kelm", "position_ns": "position (ns)"}


def page(spikes: Any, net: Any, path: Any, *, bin: int | None = None, title: str = "kelm") -> None:
    """Writes one HTML file with a raster that zooms and pans, rates, populations and provenance.

    `net` is a network or None, as in the other pictures; `bin` (ns) is that of the rates. Up to 2
    million spikes are in the page one by one. More are counted into cells of time and neurons, and
    the page says so. A browser from 2023 or later shows it, also from a folder.
    """
    spikes = spikes if isinstance(spikes, Spikes) else Spikes(spikes)
    populations = spikes.populations if net is None else tuple(net.populations)
    populations = populations or (PopulationRange("neurons", 0, spikes.neuron_count),)
    bin = default_bin(spikes) if bin is None else _checks.time(bin, "bin", least=1)
    low = min(population.first for population in populations)
    high = max(population.first + population.size for population in populations)
    if high - low > 2**32:
        raise ArgumentError(f"a page shows at most 2^32 neurons, not {high - low}: pass the "
                            "network, or spikes with populations")
    seconds = (spikes.end - spikes.start) / 1e9
    about: dict[str, Any] = {
        "start": spikes.start, "end": max(spikes.end, spikes.start + 1), "low": low,
        "high": max(high, low + 1), "spikes": len(spikes), "bin": bin, "populations": [],
        "provenance": _provenance(spikes)}
    for index, population in enumerate(populations):
        starts, rates = spikes.rates(bin, population)
        number = len(spikes.of(population))
        about["populations"].append({
            "name": population.name, "first": int(population.first), "size": int(population.size),
            "colour": COLOURS[index % len(COLOURS)], "spikes": number,
            "rate": number / (seconds * population.size) if seconds and population.size else 0.0,
            "rates": np.round(rates, 4).tolist()})
        about["bins"] = len(starts)
    arrays = _spikes_one_by_one(spikes, low, high, about) if len(spikes) <= _EACH else \
        _cells(spikes, low, high, about)
    _files.write_atomically(path, _document(about, arrays, title).encode())


def _spikes_one_by_one(spikes: Spikes, low: int, high: int,
                       about: dict[str, Any]) -> dict[str, np.ndarray]:
    """The steps from time to time, and the neurons from `low` on."""
    spikes = spikes.of_neurons(low, high)
    steps = np.diff(spikes.time, prepend=spikes.start)
    wide = bool(len(steps) and steps.max() >= 2**32)
    about["wide"] = wide
    return {"steps": steps.astype("<f8" if wide else "<u4"),
            "neurons": (spikes.neuron - np.uint64(low)).astype("<u4")}


def _cells(spikes: Spikes, low: int, high: int, about: dict[str, Any]) -> dict[str, np.ndarray]:
    """The number of spikes in each cell, row after row from `low` up."""
    columns, rows = _COLUMNS, min(high - low, _ROWS)
    about["columns"], about["rows"] = columns, rows
    spikes = spikes.of_neurons(low, high)
    # Multiplied before it is divided, so that a border between cells is met exactly.
    column = (spikes.time - spikes.start) * float(columns) / (spikes.end - spikes.start)
    row = (spikes.neuron - np.uint64(low)) * float(rows) / (high - low)
    cell = row.astype(np.int64) * columns + np.minimum(column.astype(np.int64), columns - 1)
    return {"cells": np.bincount(cell, minlength=rows * columns).astype("<u4")}


def _provenance(spikes: Spikes) -> list[list[str]]:
    """Names and values as text. 64-bit numbers are in hexadecimal, as the library prints them."""
    rows = []
    for key, value in {**spikes.provenance, "digest": spikes.digest}.items():
        if value is not None:
            is_hash = key in ("fingerprint", "digest") and isinstance(value, int)
            rows.append([_LABELS.get(key, key), f"{value:016x}" if is_hash else str(value)])
    return rows


def _document(about: dict[str, Any], arrays: dict[str, np.ndarray], title: str) -> str:
    static = resources.files(__package__) / "_static"
    text = {name: (static / name).read_text(encoding="utf-8")
            for name in ("page.html", "page.css", "page.js", "uPlot.min.css", "uPlot.iife.min.js",
                         "uPlot.LICENSE")}
    blocks = "\n".join(
        f'<script type="text/plain" id="{name}">'
        f"{base64.b64encode(zlib.compress(array.tobytes(), 6)).decode()}</script>"
        for name, array in arrays.items())
    parts = {**text, "title": html.escape(title), "arrays": blocks,
             # No text of a population ends the script that holds it.
             "about": json.dumps(about).replace("<", "\\u003c")}
    document = text["page.html"].split("{{")
    return document[0] + "".join(parts[name] + rest
                                 for name, rest in (part.split("}}", 1) for part in document[1:]))
