#!/usr/bin/env python3
"""A second implementation of the fingerprint of a runtime, for golden test values.

Writes the bytes that the head of kelm/runtime/Fingerprint.h lists, for the settings of
tests/runtime/FingerprintTest.cpp, and prints their digests.

    python3 scripts/reference/fingerprint.py
"""

from struct import pack


def digest(data):
    value = 0x14650FB0739D0383
    for byte in data:
        value = ((value ^ byte) * 0x100000001B3) % 2**64
    return value


def text(name):
    return pack("<Q", len(name)) + name.encode()


def ids(*values):
    return pack(f"<Q{len(values)}Q", len(values), *values)


def run(settings_of_parts):
    out = b"KELMFPR1"
    # Network: neurons, window, switches, synapses.
    out += pack("<QBqBB", 3, 1, 1_000_000, 1, 1)
    out += pack("<Q", 2)
    out += pack("<QQfqB", 0, 1, 0.25, 2_000_000, 2 | 4)
    out += pack("<QQfqB", 1, 2, 0.5, 1_500_000, 1 | 2 | 4)
    # One run of three equal neurons, with the default parameters.
    out += pack("<Q", 3)
    out += pack("<qqqddddBB", 10_000_000, 100_000_000, 2_000_000, 1.0, 0.0, 0.0, 1e-15, 1, 0)
    out += pack("<dddddd", 0.5, 4.0, 0.0, 1.0, 1.0, 1_000_000.0)
    out += pack("<Q", 0)
    out += pack("<q", 20_000_000)
    return digest(out + settings_of_parts)


def all_parts():
    out = pack("<Bqqqd", 1, 20_000_000, 20_000_000, 20_000_000, 1e-15)
    out += pack("<Bdddd", 1, 0.01, 0.012, 0.5, 1.0)
    out += pack("<Bdddd", 2, 0.1, 0.2, 0.3, 2.0)
    out += pack("<Bd", 1, 0.75)
    out += pack("<B", 1)
    out += pack("<Q", 2) + pack("<Iddd", 7, 40.0, 0.5, 1.0) + pack("<Iddd", 9, 8.0, 0.0, 0.5)
    out += pack("<Q", 3)
    out += pack("<QIBdd", 1, 7, 0, 0.3, 0.1)
    out += pack("<Q", 0)
    out += pack("<QIBddIBdd", 2, 9, 1, 0.2, 0.0, 7, 0, 0.1, 0.0)
    out += pack("<QIId", 1, 7, 9, 2.0)
    out += pack("<q", 5_000_000)
    out += pack("<BBBqI", 1, 1, 0, 2_000_000, 1 << 0 | 1 << 3)
    out += pack("<Q", 1) + text("left") + ids(0, 2) + pack("<qd", 1_000, 0.5)
    out += pack("<B", 1)
    out += pack("<Q", 1) + text("height") + ids(1) + pack("<ddd", 2.0, -0.25, 1.5)
    out += pack("<QBB", 1, 1, 0) + ids(0) + pack("<Qdd", 1, 0.5, 0.125)
    return out


# Plasticity, phase, recorder, channels, prediction.
NO_PARTS = pack("<BBBQB", 0, 0, 0, 0, 0)

print(f"all parts  0x{run(all_parts()):016x}")
print(f"no parts   0x{run(NO_PARTS):016x}")
