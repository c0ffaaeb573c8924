#!/usr/bin/env python3
"""A second implementation of the kernel's mathematics and neuron formulas, for golden test values.

Python rounds every floating-point operation by itself and neither contracts nor reassociates, so
the operations run exactly as written. Prints the digests and tables that are literals in
tests/core/PortableMathTest.cpp and tests/kernel/NeuronModelTest.cpp.

    python3 scripts/reference/kernel.py
"""

import struct

MASK = (1 << 64) - 1
INFINITY = float("inf")


def bits(x):
    return struct.unpack("<Q", struct.pack("<d", x))[0]


def double(pattern):
    return struct.unpack("<d", struct.pack("<Q", pattern & MASK))[0]


def high(x):
    return bits(x) >> 32


# Coefficients and limits as bit patterns; the names follow fdlibm.
EXP_MAX, EXP_MIN = double(0x40862E42FEFA39EF), double(0xC0874910D52D3051)
LN2_HI, LN2_LO = double(0x3FE62E42FEE00000), double(0x3DEA39EF35793C76)
INV_LN2 = double(0x3FF71547652B82FE)
E = [double(p) for p in (0x3FC555555555553E, 0x3F66C16C16BEBD93, 0x3F11566AAF25DE2C,
                         0x3EBBBD41C5D26BF1, 0x3E66376972BEA4D0)]
L = [double(p) for p in (0x3FE5555555555593, 0x3FD999999997FA04, 0x3FD2492494229359,
                         0x3FCC71C51D8E78AF, 0x3FC7466496CB03DE, 0x3FC39A09D078C69F,
                         0x3FC2F112DF3E5244)]
S = [double(p) for p in (0x3FC5555555555549, 0x3F8111111110F8A6, 0x3F2A01A019C161D5,
                         0x3EC71DE357B1FE7D, 0x3E5AE5E68A2B9CEB, 0x3DE5D93A5ACFD57C)]
C = [double(p) for p in (0x3FA555555555554C, 0x3F56C16C16C15177, 0x3EFA01A019CB1590,
                         0x3E927E4F809C52AD, 0x3E21EE9EBDB4B1C4, 0x3DA8FAE9BE8838D4)]
PI_4, PI_2 = double(0x3FE921FB54442D18), double(0x3FF921FB54442D18)
PI, TWO_PI = double(0x400921FB54442D18), double(0x401921FB54442D18)


def kernel_exp(x, reduced_above=0x3FD62E4200000000, divided_from=0x3FF0A2B200000000):
    if x != x:
        return x
    if x > EXP_MAX:
        return INFINITY
    if x < EXP_MIN:
        return 0.0
    a = bits(abs(x))
    if a < 0x3E30000000000000:
        return x + 1.0
    k, hi, lo, r = 0, 0.0, 0.0, x
    if a > reduced_above:
        if a < divided_from:
            k = 1 if x > 0 else -1
            hi = x - LN2_HI if x > 0 else x + LN2_HI
            lo = LN2_LO if x > 0 else -LN2_LO
        else:
            k = int(x * INV_LN2 + (0.5 if x > 0 else -0.5))
            hi = x - float(k) * LN2_HI
            lo = float(k) * LN2_LO
        r = hi - lo
    z = r * r
    p = ((((z * E[4] - E[3]) * z + E[2]) * z - E[1]) * z + E[0]) * z
    c = r - p
    q = c * r
    if k == 0:
        return 1.0 - (q / (c - 2.0) - r)
    y = 1.0 - ((lo - q / (2.0 - c)) - hi)
    if k > 1023:
        y, k = y * double(0x7FE0000000000000), k - 1023
        if k > 1023:
            y, k = y * double(0x7FE0000000000000), min(k - 1023, 1023)
    elif k < -1022:
        y, k = y * double(0x0010000000000000), k + 1022
        if k < -1022:
            y, k = y * double(0x0010000000000000), max(k + 1022, -1022)
    return y * double((k + 1023) << 52)


def kernel_log(x, rounding=0x95F64, short_series=(0xFFFFE, 0xFFFFF, 0)):
    if x != x:
        return x
    if x == 0:
        return -INFINITY
    if bits(x) >> 63:
        return double(0x7FF8000000000000)
    if x == INFINITY:
        return x
    e = 0
    if high(x) < 0x100000:
        x, e = x * double(0x4350000000000000), -54
    h = high(x)
    m = h & 0xFFFFF
    i = (m + rounding) & 0x100000
    k = (h >> 20) - 1023 + (i >> 20) + e
    f = double(((m | (i ^ 0x3FF00000)) << 32) | (bits(x) & 0xFFFFFFFF)) - 1.0
    d = float(k)
    if m in short_series:
        if f == 0:
            return 0.0 if k == 0 else d * LN2_LO + d * LN2_HI
        r = (0.5 - f * double(0x3FD5555555555555)) * (f * f)
        return f - r if k == 0 else d * LN2_HI - ((r - d * LN2_LO) - f)
    g = (f * 0.5) * f
    s = f / (f + 2.0)
    z = s * s
    v = z * z
    t2 = (((v * L[6] + L[4]) * v + L[2]) * v + L[0]) * z
    t1 = ((v * L[5] + L[3]) * v + L[1]) * v
    r = ((t2 + t1) + g) * s
    return f - (g - r) if k == 0 else d * LN2_HI - ((g - (d * LN2_LO + r)) - f)


def kernel_sin(x):
    if x != x:
        return x
    n = int(x / TWO_PI + (0.5 if x >= 0 else -0.5))
    r = x - float(n) * TWO_PI
    if r > PI_2:
        r = PI - r
    elif r < -PI_2:
        r = -PI - r
    if abs(r) > PI_4:
        y = PI_2 - abs(r)
        z = y * y
        p = ((((C[4] - z * C[5]) * z - C[3]) * z + C[2]) * z - C[1]) * z + C[0]
        c = 1.0 - (z * 0.5 - (p * z) * z)
        return -c if r < 0 else c
    z = r * r
    p = ((((z * S[5] - S[4]) * z + S[3]) * z - S[2]) * z + S[1]) * z - S[0]
    return p * (z * r) + r


def decay_trace(value, interval, tau, epsilon):
    if value == 0 or interval == 0:
        return value
    y = kernel_exp(-interval / float(tau)) * value
    return 0.0 if epsilon > abs(y) else y


def traces(neuron, t):
    """Membrane and adaptation at time t."""
    interval = float(t) - float(neuron["last_update"])
    m = neuron["membrane"]
    if not neuron["non_leaky"]:
        m = decay_trace(m, interval, neuron["tau_membrane"], neuron["epsilon"])
    return m, decay_trace(neuron["adaptation"], interval, neuron["tau_adaptation"],
                          neuron["epsilon"])


def net_drive(neuron, t):
    m, a = traces(neuron, t)
    return 0.0 + (m - a * neuron["weight"])


def hazard_of(neuron, x):
    if neuron["base_rate"] == 0 or neuron["rate_scale"] == 0:
        return 0.0
    c = neuron["base_rate"] * neuron["rate_scale"]
    e = x * neuron["gain"]
    cap = kernel_log(neuron["max_rate"] / c)
    return kernel_exp(e if e < cap else cap) * c


def hazard_at(neuron, t, drive):
    if neuron["hard_refractory"] and t < neuron["refractory_until"]:
        return 0.0
    m, a = traces(neuron, t)
    return hazard_of(neuron, ((m - a * neuron["weight"]) + drive) - neuron["threshold"])


def interior_extremum(neuron, m, wa, start, to):
    """The time between start and to at which the net drive has an extremum, or None."""
    if neuron["non_leaky"] or m == 0 or wa == 0:
        return None
    k1, k2 = 1.0 / float(neuron["tau_membrane"]), 1.0 / float(neuron["tau_adaptation"])
    if k1 == k2:
        return None
    ratio = (m * k1) / (wa * k2)
    if not ratio > 0:
        return None
    s = kernel_log(ratio) / (k1 - k2)
    if s != s or s == INFINITY or not s > 0:
        return None
    p = float(start) + s
    return p if float(start) < p < float(to) else None


def hazard_upper_bound(neuron, begin, to, drive_bound):
    start = begin
    if neuron["hard_refractory"] and neuron["refractory_until"] > begin:
        start = neuron["refractory_until"]
    if start > to:
        return 0.0
    m, a = traces(neuron, start)
    wa = a * neuron["weight"]
    u = (m - wa) + 0.0
    v = net_drive(neuron, to)
    u = u if u > v else v
    p = interior_extremum(neuron, m, wa, start, to)
    if p is not None:
        for t in (int(p), int(p) + 1)[: 2 if int(p) < to else 1]:
            w = net_drive(neuron, t)
            u = u if u > w else w
    twice = (neuron["weight"] + 1.0) + (neuron["weight"] + 1.0)
    return hazard_of(neuron, ((twice * neuron["epsilon"] + u) + drive_bound) - neuron["threshold"])


class Draws:
    """SplitMix64, and the functions by which the tests make arguments from its values."""

    def __init__(self, seed):
        self.state = seed

    def next(self):
        self.state = (self.state + 0x9E3779B97F4A7C15) & MASK
        z = self.state
        z = ((z ^ (z >> 30)) * 0xBF58476D1CE4E5B9) & MASK
        z = ((z ^ (z >> 27)) * 0x94D049BB133111EB) & MASK
        return z ^ (z >> 31)

    def between(self, low, end):
        return low + (end - low) * (float(self.next() >> 11) * double(0x3CA0000000000000))

    def below(self, end):
        return self.next() % end

    def positive(self):
        return double(self.next() % 0x7FF0000000000000)


def digest(data, start=0x14650FB0739D0383):
    for byte in data:
        start = ((start ^ byte) * 0x100000001B3) & MASK
    return start


def digest_of(values):
    return digest(struct.pack("<%dQ" % len(values), *[bits(v) for v in values]))


def random_neuron(draws):
    return {
        "membrane": draws.between(-3.0, 5.0),
        "adaptation": draws.between(-1.0, 4.0),
        "last_update": draws.below(1 << 55),
        "refractory_until": 0,
        "tau_membrane": 1000 + draws.below(20000000),
        "tau_adaptation": 1000 + draws.below(200000000),
        "epsilon": 1e-15 if draws.below(2) else draws.between(0.0, 0.05),
        "hard_refractory": draws.below(2) == 1,
        "non_leaky": draws.below(8) == 0,
        "base_rate": draws.between(0.1, 300.0),
        "gain": draws.between(0.1, 4.0),
        "threshold": draws.between(-1.0, 1.0),
        "weight": draws.between(0.0, 2.0),
        "rate_scale": draws.between(0.5, 2.0),
        "max_rate": draws.between(100.0, 1e6),
    }


def neuron_values(count):
    draws, values, extrema = Draws(2), [], 0
    for _ in range(count):
        n = random_neuron(draws)
        begin = n["last_update"] + draws.below(1000000)
        to = begin + 1 + draws.below(100000000)
        n["refractory_until"] = begin - 1000000 + draws.below(3000000)
        drive = draws.between(-1.0, 1.0)
        t = begin + draws.below(100000000)
        coupling, value = draws.between(-0.5, 0.5), draws.between(-2.0, 2.0)
        m, a = traces(n, begin)
        extrema += interior_extremum(n, m, a * n["weight"], begin, to) is not None
        values += [m, a, net_drive(n, to), hazard_at(n, t, drive),
                   hazard_upper_bound(n, begin, to, drive), ((m * coupling) * value + value) + m]
    return values, extrema


def telling(pattern, step, function, **other):
    """The first argument from `pattern` on for which the function and the same function with
    another threshold differ."""
    while bits(function(double(pattern))) == bits(function(double(pattern), **other)):
        pattern += step
    return pattern


def main():
    draws = Draws(1)
    x = [draws.between(-746.0, 711.0) for _ in range(20000)]
    x += [draws.between(-2.0, 2.0) for _ in range(20000)]
    print("exp digest    0x%016x" % digest_of([kernel_exp(v) for v in x]))
    x = [draws.positive() for _ in range(20000)] + [draws.between(0.5, 2.0) for _ in range(20000)]
    print("log digest    0x%016x" % digest_of([kernel_log(v) for v in x]))
    x = [draws.between(-20.0, 20.0) for _ in range(20000)]
    x += [draws.between(-1e6, 1e6) for _ in range(20000)]
    print("sin digest    0x%016x" % digest_of([kernel_sin(v) for v in x]))
    values, extrema = neuron_values(4000)
    print("neuron digest 0x%016x (%d interior extrema)" % (digest_of(values), extrema))

    all_bits = {"reduced_above": 0x3FD62E42FFFFFFFF}
    divided = {"divided_from": 0x3FF0A2B300000000}
    up, down = {"rounding": 0x95F64 + 1}, {"rounding": 0x95F64 - 1}
    wide, narrow = {"short_series": range(1 << 20)}, {"short_series": (0xFFFFF,)}
    odd = 0x0123457
    rows = [("exp", kernel_exp, [
        0x3E2FFFFFFFFFFFFF, 0x3E30000000000000, 0xBE2FFFFFFFFFFFFF, 0xBE30000000000000,
        0x3FD62E4200000000, telling(0x3FD62E4200000001, 1, kernel_exp, **all_bits),
        telling(0xBFD62E4200000001, 1, kernel_exp, **all_bits),
        0x3FF0A2B1FFFFFFFF, telling(0x3FF0A2B200000000, odd, kernel_exp, **divided),
        telling(0xBFF0A2B200000000, odd, kernel_exp, **divided),
        bits(EXP_MAX), bits(EXP_MAX) + 1, bits(EXP_MIN), bits(EXP_MIN) + 1,
        bits(-708.5), bits(-709.0), bits(709.5)])]
    rows += [("log", kernel_log, [
        telling(0x3FE6A09BFFFFFFFF, -odd, kernel_log, **up),
        telling(0x3FE6A09C00000000, odd, kernel_log, **down),
        telling(0x3FF6A09BFFFFFFFF, -odd, kernel_log, **up),
        telling(0x3FF6A09C00000000, odd, kernel_log, **down),
        telling(0x3FEFFFFDFFFFFFFF, -odd, kernel_log, **wide),
        telling(0x3FEFFFFE00000000, odd, kernel_log, **narrow), 0x3FEFFFFFFFFFFFFF,
        0x3FF0000000000001, telling(0x3FF00000FFFFFFFF, -odd, kernel_log, **narrow),
        telling(0x3FF0000100000000, odd, kernel_log, **wide),
        0x4010000080000000, 0x400FFFFE80000000,
        0x000FFFFFFFFFFFFF, 0x0010000000000000, 0x7FEFFFFFFFFFFFFF])]
    rows += [("sin", kernel_sin, [
        bits(PI_4), bits(PI_4) + 1, bits(PI_2), bits(PI_2) + 1, bits(PI) - 1, bits(PI) + 1,
        bits(-PI), bits(-PI_2), bits(-PI_4) + 1, bits(3 * PI), bits(TWO_PI), bits(1e9), bits(-1e15),
        bits(-0.0)])]
    for name, function, patterns in rows:
        for pattern in patterns:
            result = bits(function(double(pattern)))
            print("%s {0x%016x, 0x%016x},  // %r" % (name, pattern, result, double(pattern)))


if __name__ == "__main__":
    main()
