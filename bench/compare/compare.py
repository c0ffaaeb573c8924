#!/usr/bin/env python3
"""Runs the same networks in kelm and in other simulators and prints a table.

    compare.py --kelm build/release/bench/kelm-whole-run --python /usr/bin/python3 --repeat 3
    compare.py --networks dense --simulators kelm,kelm-lanes,brian2

Each run has its own process. The rows of a network take turns, so that a busy machine slows all of
them alike; the figures are medians over the turns. Ratios are taken within each turn. A simulator
that is not installed is left out. A network of another wiring is an error.
"""

import argparse
import json
import statistics
import subprocess
import sys
from pathlib import Path

import measuring
import networks

HERE = Path(__file__).resolve().parent
KELM = HERE.parents[1] / "build/release/bench/kelm-whole-run"

# The options of kelm-whole-run, or a script and its options.
KELM_ROWS = {
    "kelm": [],
    "kelm-lanes": ["--lanes", "LANES"],
    "kelm-lanes-2": ["--lanes", "LANES", "--threads", "2"],
}
SCRIPTS = {
    "brian2": ["brian2_network.py"],
    "brian2-cython": ["brian2_network.py", "--mode", "cython"],
    "nest": ["nest_network.py"],
    "genn": ["genn_network.py"],
}

COLUMNS = ("Network", "Simulator", "Wall s", "to the first", "Processor s", "to the first",
           "Million deliveries/s", "Building s", "Compiling s", "Bytes a synapse", "Spikes")


class LeftOut(Exception):
    """A simulator that cannot run here."""


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--kelm", type=Path, default=KELM, help="the program kelm-whole-run")
    parser.add_argument("--python", default=sys.executable,
                        help="the interpreter that has NumPy and the other simulators")
    parser.add_argument("--networks", default=",".join(networks.NETWORKS))
    parser.add_argument("--simulators", default=",".join([*KELM_ROWS, *SCRIPTS]))
    parser.add_argument("--repeat", type=int, default=3, help="turns")
    parser.add_argument("--scale", type=float, default=1.0,
                        help="factor of the number of neurons, for a short run")
    options = parser.parse_args()
    options.networks = chosen(parser, options.networks, networks.NETWORKS)
    options.simulators = chosen(parser, options.simulators, KELM_ROWS | SCRIPTS)
    return options


def chosen(parser, text, known):
    names = text.split(",")
    for name in names:
        if name not in known:
            parser.error(f"unknown name {name}; known: {', '.join(known)}")
    return names


def run(command):
    """The line of JSON that a process prints last."""
    process = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    last_words = process.stderr.strip().splitlines()[-1:] or ["no message"]
    if process.returncode == measuring.MISSING:
        raise LeftOut(last_words[0])
    if process.returncode != 0:
        sys.exit(f"{' '.join(map(str, command))}\nfailed: {process.stderr.strip()}")
    return json.loads(process.stdout.splitlines()[-1])


def widest_lanes(kelm):
    """The name of the processor's widest lanes."""
    for name in ("avx512", "avx2"):
        trial = [kelm, "--json", "--repeat", "1", "--neurons", "200", "--horizon", "1", "--lanes"]
        if subprocess.run([*trial, name], stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL).returncode == 0:
            return name
    raise LeftOut("the processor has no vector lanes")


def measure(simulator, name, options):
    """The figures of one run."""
    if simulator in SCRIPTS:
        script, *arguments = SCRIPTS[simulator]
        return run([options.python, "-W", "ignore", HERE / script, name, "--scale",
                    str(options.scale), *arguments])
    arguments = [widest_lanes(options.kelm) if argument == "LANES" else argument
                 for argument in KELM_ROWS[simulator]]
    network = networks.NETWORKS[name].scaled(options.scale)
    figures = run([options.kelm, "--json", "--repeat", "1", *network.kelm_arguments(),
                   *arguments])
    return figures | {"version": arguments[1] if arguments else "scalar"}


def turns_of(name, options):
    """The figures of a network: a list of turns for each simulator that is here. The others are
    removed from the options."""
    turns = {simulator: [] for simulator in options.simulators}
    for _ in range(options.repeat):
        for simulator in list(turns):
            try:
                turns[simulator].append(measure(simulator, name, options))
            except LeftOut as reason:
                print(f"{simulator} is left out: {reason}", file=sys.stderr)
                del turns[simulator]
                options.simulators.remove(simulator)
    sums = {turn["wiring_sum"] for row in turns.values() for turn in row}
    if len(sums) > 1:
        sys.exit(f"{name}: the simulators ran different wirings: {sums}")
    if not turns:
        sys.exit("no simulator is here")
    hashes = {turn["log_hash"] for row in turns.values() for turn in row if "log_hash" in turn}
    if len(hashes) > 1:
        sys.exit(f"{name}: kelm's rows left different logs: {hashes}")
    return turns


def median(row, field):
    return statistics.median(turn[field] for turn in row)


def ratio(row, base, field):
    """The median over the turns of a figure's ratio to the first row."""
    ratios = [turn[field] / other[field] for turn, other in zip(row, base)]
    return f"{statistics.median(ratios):.2f}"


def table_rows(name, turns):
    base = next(iter(turns.values()))
    for simulator, row in turns.items():
        difference = median(row, "spikes") / median(base, "spikes") - 1
        if abs(difference) > 0.02:
            print(f"{name}: {difference:+.1%} spikes in {simulator}; few spikes differ by chance, "
                  "many should not", file=sys.stderr)
        precision = row[0].get("precision", "double")
        compiling = median(row, "generation_s") if "generation_s" in row[0] else 0.0
        yield (name, f"{simulator} {row[0]['version']}, {precision}",
               f"{median(row, 'wall_s'):.2f}", ratio(row, base, "wall_s"),
               f"{median(row, 'processor_s'):.2f}", ratio(row, base, "processor_s"),
               f"{median(row, 'synaptic_deliveries') / median(row, 'wall_s') / 1e6:.2f}",
               f"{median(row, 'building_s'):.2f}", f"{compiling:.0f}",
               f"{median(row, 'peak_bytes') / row[0]['synapses']:.0f}",
               f"{median(row, 'spikes'):.0f}")


def print_row(cells):
    print("| " + " | ".join(cells) + " |", flush=True)


def main():
    options = parse_arguments()
    print_row(COLUMNS)
    print("|" + "---|" * len(COLUMNS))
    for name in options.networks:
        for row in table_rows(name, turns_of(name, options)):
            print_row(row)


if __name__ == "__main__":
    main()
