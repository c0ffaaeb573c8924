#!/usr/bin/env python3
"""Runs a network in Brian2 and prints a line of JSON.

    brian2_network.py NETWORK [--mode standalone|cython] [--scale F]

Mode standalone makes a C++ program and measures that program, on one thread. Mode cython runs in
this process. In both, the compiler gets Brian2's default options (-O3 -ffast-math -march=native).
A step of dt has a spike with probability 1 - exp(-hazard * dt).
"""

import tempfile
from pathlib import Path

import measuring
import networks

brian2 = measuring.require("brian2")
ms, hertz = brian2.ms, brian2.hertz

EQUATIONS = """
dv/dt = -v / tau_membrane : 1
da/dt = -a / tau_adaptation : 1
hazard = base_rate * exp(clip(gain * (v - a), -700, cap)) : Hz
"""

# C++ around the run of a standalone program. It writes wall and processor seconds of the run, wall
# seconds before it, and the peak memory in KiB.
STANDALONE_CODE = {
    "before_start": """
        const auto seconds = [](clockid_t clock) {
            timespec time;
            clock_gettime(clock, &time);
            return time.tv_sec + time.tv_nsec / 1e9;
        };
        const double program_start = seconds(CLOCK_MONOTONIC);
        """,
    "before_network_run": """
        const double wall_start = seconds(CLOCK_MONOTONIC);
        const double processor_start = seconds(CLOCK_PROCESS_CPUTIME_ID);
        """,
    "after_network_run": """
        const double wall_end = seconds(CLOCK_MONOTONIC);
        const double processor_end = seconds(CLOCK_PROCESS_CPUTIME_ID);
        rusage usage;
        getrusage(RUSAGE_SELF, &usage);
        std::ofstream("results/figures.txt")
            << wall_end - wall_start << ' ' << processor_end - processor_start << ' '
            << wall_start - program_start << ' ' << usage.ru_maxrss;
        """,
}


def build(network, targets):
    """The network and its spike monitor."""
    neurons = brian2.NeuronGroup(
        network.neurons, EQUATIONS, method="exact", threshold="rand() < 1 - exp(-hazard * dt)",
        reset="v = 0; a += increment", refractory=networks.REFRACTORY_MS * ms,
        namespace={
            "tau_membrane": networks.TAU_MEMBRANE_MS * ms,
            "tau_adaptation": networks.TAU_ADAPTATION_MS * ms,
            "base_rate": network.base_rate_hz * hertz,
            "gain": networks.GAIN,
            "cap": float(brian2.log(networks.MAX_RATE_HZ / network.base_rate_hz)),
            "increment": networks.INCREMENT,
        })
    synapses = brian2.Synapses(neurons, neurons, "w : 1", on_pre="v_post += w",
                               delay=network.delay_ms * ms)
    synapses.connect(i=networks.sources(network), j=targets)
    synapses.w = networks.weights(network)
    monitor = brian2.SpikeMonitor(neurons)
    return brian2.Network(neurons, synapses, monitor), monitor


def run_standalone(network, targets):
    brian2.prefs.codegen.cpp.headers += ["<sys/resource.h>"]
    with tempfile.TemporaryDirectory() as folder:
        brian2.set_device("cpp_standalone", build_on_run=False)
        for slot, code in STANDALONE_CODE.items():
            brian2.device.insert_code(slot, code)
        brian2.seed(1)
        clock = measuring.Clock()
        simulation, monitor = build(network, targets)
        simulation.run(network.duration_ms * ms)
        brian2.device.build(directory=folder, compile=True, run=False)
        generation_s = clock.wall_s()
        brian2.device.run(folder, False, [])
        figures = Path(folder, "results/figures.txt").read_text().split()
        wall_s, processor_s, building_s, peak_kib = map(float, figures)
        return steps_of(monitor), {
            "wall_s": wall_s, "processor_s": processor_s, "building_s": building_s,
            "generation_s": generation_s, "peak_bytes": int(peak_kib) * 1024}


def run_cython(network, targets):
    brian2.prefs.codegen.target = "cython"
    brian2.seed(1)
    clock = measuring.Clock()
    simulation, monitor = build(network, targets)
    building_s = clock.wall_s()
    simulation.run(0 * ms)
    generation_s = clock.wall_s() - building_s
    clock = measuring.Clock()
    simulation.run(network.duration_ms * ms)
    figures = {"wall_s": clock.wall_s(), "processor_s": clock.processor_s(),
               "building_s": building_s, "generation_s": generation_s,
               "peak_bytes": measuring.peak_bytes()}
    return steps_of(monitor), figures


def steps_of(monitor):
    """The step of each spike."""
    return brian2.around(brian2.asarray(monitor.t / ms) / networks.STEP_MS)


def main():
    options, network = measuring.parse_network(__doc__, lambda parser: parser.add_argument(
        "--mode", choices=("standalone", "cython"), default="standalone"))
    brian2.defaultclock.dt = networks.STEP_MS * ms
    targets = networks.targets(network)
    run = run_cython if options.mode == "cython" else run_standalone
    spike_steps, figures = run(network, targets)
    measuring.report(network, targets, spike_steps, version=brian2.__version__,
                     precision="double", **figures)


if __name__ == "__main__":
    main()
