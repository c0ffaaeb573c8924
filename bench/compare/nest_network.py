#!/usr/bin/env python3
"""Runs a network in NEST 3 and prints a line of JSON.

    nest_network.py NETWORK [--scale F]

The neuron is pp_psc_delta, in units of mV. A step of dt has a spike with probability
1 - exp(-hazard * dt). The hazard has no ceiling; no network here reaches it.
"""

import measuring
import networks

nest = measuring.require("nest")
import numpy  # noqa: E402, after the check that NEST is there


def build(network, targets):
    """The network and its spike recorder."""
    nest.ResetKernel()
    nest.set_verbosity("M_ERROR")
    nest.SetKernelStatus(
        {"resolution": networks.STEP_MS, "local_num_threads": 1, "rng_seed": 1})
    neurons = nest.Create("pp_psc_delta", network.neurons, {
        "tau_m": networks.TAU_MEMBRANE_MS, "dead_time": networks.REFRACTORY_MS,
        "c_1": 0.0, "c_2": network.base_rate_hz, "c_3": networks.GAIN, "with_reset": True,
        "tau_sfa": [networks.TAU_ADAPTATION_MS], "q_sfa": [networks.INCREMENT]})
    recorder = nest.Create("spike_recorder")
    nest.Connect(neurons, recorder)
    sources = networks.sources(network)
    weights = networks.weights(network)
    # The identifiers of the neurons start with 1.
    for begin, end in networks.pieces(network.synapses):
        piece = slice(begin, end)
        nest.Connect(sources[piece].astype(numpy.uint64) + 1,
                     targets[piece].astype(numpy.uint64) + 1, "one_to_one",
                     {"synapse_model": "static_synapse",
                      "weight": weights[piece].astype(numpy.float64),
                      "delay": numpy.full(end - begin, network.delay_ms)})
    return recorder


def main():
    _, network = measuring.parse_network(__doc__)
    targets = networks.targets(network)
    clock = measuring.Clock()
    recorder = build(network, targets)
    nest.Prepare()
    building_s = clock.wall_s()
    clock = measuring.Clock()
    nest.Run(network.duration_ms)
    figures = {"wall_s": clock.wall_s(), "processor_s": clock.processor_s(),
               "building_s": building_s, "peak_bytes": measuring.peak_bytes()}
    nest.Cleanup()
    # A spike carries the time of the end of its step.
    spike_steps = numpy.rint(recorder.events["times"] / networks.STEP_MS) - 1
    measuring.report(network, targets, spike_steps, version=nest.__version__,
                     precision="double", **figures)


if __name__ == "__main__":
    main()
