#!/usr/bin/env python3
"""A second implementation of the wiring rules, for golden test values.

Written from the docstrings of Wiring and SynapseValues, with Python's integers for the products
and with the logarithm and the exponential of kernel.py. Prints a digest of each network in
tests/network/WiringTest.cpp: the synapses in the order of their EdgeIds, each as source (8),
target (8), weight (4), delay (8) and sign (1).

    python3 scripts/reference/wiring.py
"""

import math
import struct

from kernel import kernel_exp, kernel_log

MASK = (1 << 64) - 1
SEED = 77
MIN_DELAY = 1000000


def fnv(data):
    h = 0x14650FB0739D0383
    for byte in data:
        h = (h ^ byte) * 0x100000001B3 & MASK
    return h


def mix(z):
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9 & MASK
    z = (z ^ (z >> 27)) * 0x94D049BB133111EB & MASK
    return z ^ (z >> 31)


class Stream:
    STEP = 0x9E3779B97F4A7C15

    def __init__(self, name, index):
        root = mix((SEED + self.STEP) & MASK)
        self.state = mix(mix(fnv(name.encode()) ^ root) ^ index)

    def next(self):
        self.state = (self.state + self.STEP) & MASK
        return mix(self.state)

    def below(self, end):
        while True:
            product = self.next() * end
            if product % 2**64 >= 2**64 % end:
                return product // 2**64

    def unit(self):
        return (self.next() // 2**11 + 1) / 2**53

    def normal(self):
        while True:
            u = self.unit()
            v = 1.7156 * (self.unit() - 0.5)
            x, y = u - 0.449871, abs(v) + 0.386595
            q = x * x + y * (0.196 * y - 0.25472 * x)
            if q < 0.27597 or (q <= 0.27846 and v * v <= (-4.0 * kernel_log(u)) * (u * u)):
                return v / u


def value(stream, kind, a, b=None, low=-math.inf, high=math.inf):
    while True:
        if kind == "constant":
            return a
        if kind == "uniform":
            x = a + (b - a) * (stream.unit() - 2**-53)
        elif kind == "exponential":
            x = a * (0.0 - kernel_log(stream.unit()))
        elif kind == "normal":
            x = a + b * stream.normal()
        else:
            x = kernel_exp(a + b * stream.normal())
        if low <= x <= high:
            return x


def choose(stream, candidates, count, multiple):
    n = len(candidates)
    if multiple:
        return [candidates[stream.below(n)] for _ in range(count)]
    taken = []
    for j in range(n - count, n):
        i = stream.below(j + 1)
        taken.append(j if i in taken else i)
    return [candidates[i] for i in taken]


def total_counts(name, sizes, column_count, number, everything, multiple):
    rest = not multiple and 2 * number > sum(sizes)
    counts = [0] * len(sizes)
    stream = Stream("wiring/%s/counts" % name, 0)
    for _ in range(sum(sizes) - number if rest else number):
        while True:
            row = stream.below(len(sizes))
            if everything:
                break
            candidate = stream.below(column_count)
            if candidate < sizes[row] and (multiple or candidate >= counts[row]):
                break
        counts[row] += 1
    return [n - c for n, c in zip(sizes, counts)] if rest else counts


def bernoulli(stream, candidates, p):
    w = 1.0 - p
    log_failure = -p if w == 1.0 else kernel_log(w) * (p / (1.0 - w))
    chosen, i = [], 0
    while i < len(candidates):
        i += math.floor(kernel_log(stream.unit()) / log_failure)
        if i < len(candidates):
            chosen.append(candidates[i])
        i += 1
    return chosen


def connect(name, rule, sources, targets, weight, delay, inhibitory=False, count=0, p=0.0,
            self_connections=True, multiple=True):
    rows, columns = (sources, targets) if rule == "out" else (targets, sources)
    candidates = {row: [c for c in columns if self_connections or c != row] for row in rows}
    if rule == "total":
        counts = total_counts(name, [len(candidates[row]) for row in rows], len(columns), count,
                              self_connections and multiple, multiple)
    synapses = []
    for place, row in enumerate(rows):
        pairs = Stream("wiring/%s/pairs" % name, row)
        if rule == "one":
            chosen = [columns[place]]
        elif rule == "all":
            chosen = candidates[row]
        elif rule == "bernoulli":
            chosen = bernoulli(pairs, candidates[row], p)
        else:
            degree = counts[place] if rule == "total" else count
            chosen = choose(pairs, candidates[row], degree, multiple)
        if rule == "out":
            chosen = sorted(chosen)
        weights = Stream("wiring/%s/weight" % name, row)
        delays = Stream("wiring/%s/delay" % name, row)
        for other in chosen:
            w = value(weights, *weight)
            d = math.floor(value(delays, *delay) + 0.5)
            source, target = (row, other) if rule == "out" else (other, row)
            synapses.append((source, target, w, d, inhibitory))
    synapses.sort(key=lambda synapse: synapse[0])  # a stable sort
    image = b"".join(struct.pack("<QQfq?", *synapse) for synapse in synapses)
    print("%-24s %5d synapses 0x%016x" % (name, len(synapses), fnv(image)))


def main():
    everything = range(60)
    weight, delay = ("constant", 0.25), ("constant", 1500000)
    connect("one to one", "one", range(20), range(30, 50), ("uniform", 0.5, 1.5),
            ("uniform", 1e6, 4e6), inhibitory=True)
    connect("all to all", "all", range(12), range(6, 20), weight,
            ("normal", 2e6, 1e6, 1e6, 5e6), self_connections=False)
    connect("in-degree", "in", range(40), range(10, 60), ("normal", 0.5, 0.3, 0.0, 1.0),
            ("exponential", 1.5e6, None, 1e6, 1e7), count=7)
    connect("distinct in-degree", "in", range(40), range(10, 60), ("log-normal", -1.0, 0.5),
            delay, count=25, self_connections=False, multiple=False)
    connect("out-degree", "out", range(40), range(30, 60), ("exponential", 0.5), delay, count=9)
    connect("distinct out-degree", "out", everything, everything, ("uniform", 0.0, 1.0), delay,
            count=40, self_connections=False, multiple=False)
    connect("total", "total", range(40), range(10, 60), weight, delay, count=500)
    connect("total, others", "total", range(5), range(3, 9), weight, delay, count=500,
            self_connections=False)
    connect("distinct total", "total", range(40), range(10, 60), weight, delay, count=600,
            self_connections=False, multiple=False)
    connect("dense total", "total", range(40), range(10, 60), weight, delay, count=1500,
            self_connections=False, multiple=False)
    connect("Bernoulli", "bernoulli", everything, everything, weight, delay, p=0.3,
            self_connections=False)
    connect("rare Bernoulli", "bernoulli", everything, range(10, 60), weight, delay, p=0.01)


if __name__ == "__main__":
    main()
