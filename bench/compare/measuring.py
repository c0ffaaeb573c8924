"""What the simulators' scripts share: their options, the clocks and the line of JSON."""

import argparse
import importlib
import json
import resource
import sys
import time

import networks

# The exit status of a script whose simulator is not installed.
MISSING = 77


def require(module):
    """Imports a simulator. Ends the script with one line if it is not installed."""
    try:
        return importlib.import_module(module)
    except ImportError as error:
        print(f"{module} is not available to {sys.executable}: {error}", file=sys.stderr)
        sys.exit(MISSING)


def parse_network(doc, add_options=lambda parser: None):
    """The options of the command line and the network that they name."""
    parser = argparse.ArgumentParser(description=doc.splitlines()[0])
    parser.add_argument("network", choices=networks.NETWORKS)
    parser.add_argument("--scale", type=float, default=1.0, help="factor of the number of neurons")
    add_options(parser)
    options = parser.parse_args()
    return options, networks.NETWORKS[options.network].scaled(options.scale)


class Clock:
    """Wall and processor time of this process since the clock was made, in s."""

    def __init__(self):
        self.start = time.perf_counter(), time.process_time()

    def wall_s(self):
        return time.perf_counter() - self.start[0]

    def processor_s(self):
        return time.process_time() - self.start[1]


def peak_bytes():
    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss * 1024


def report(network, targets, spike_steps, **figures):
    """Prints the figures of a run as a line of JSON. `spike_steps`: the step of each spike."""
    # The inputs of later spikes would arrive after the end.
    last = networks.steps(network.duration_ms) - networks.steps(network.delay_ms)
    print(json.dumps({
        **figures, "step_ms": networks.STEP_MS, "synapses": network.synapses,
        "wiring_sum": networks.wiring_sum(targets), "spikes": len(spike_steps),
        "synaptic_deliveries": int((spike_steps < last).sum()) * network.fanout}))
