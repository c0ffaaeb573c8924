#!/usr/bin/env python3
"""Runs a network in GeNN 5 on its single-threaded CPU backend and prints a line of JSON.

    genn_network.py NETWORK [--precision float|double] [--scale F]

A step of dt has a spike with probability 1 - exp(-hazard * dt).
"""

import tempfile

import measuring
import networks

pygenn = measuring.require("pygenn")
import numpy  # noqa: E402, after the check that GeNN is there

NEURON = pygenn.create_neuron_model(
    "escape_rate",
    params=["base_rate", "gain", "cap", "increment", "refractory"],
    derived_params=[
        ("membrane_decay", lambda params, dt: numpy.exp(-dt / networks.TAU_MEMBRANE_MS)),
        ("adaptation_decay", lambda params, dt: numpy.exp(-dt / networks.TAU_ADAPTATION_MS)),
    ],
    vars=[("v", "scalar"), ("a", "scalar"), ("wait", "scalar")],
    sim_code="""
        v = v * membrane_decay + Isyn;
        a *= adaptation_decay;
        wait -= dt;
        """,
    # After the last subtraction the rest of the refractory time is 0 but for rounding.
    threshold_condition_code="""
        wait < 0.5 * dt && gennrand_uniform() <
            1.0 - exp(-base_rate * exp(fmin(gain * (v - a), cap)) * dt * 0.001)
        """,
    reset_code="""
        v = 0;
        a += increment;
        wait = refractory;
        """)


def build(network, targets, precision):
    """The model and its neurons."""
    model = pygenn.GeNNModel(precision, "compared", backend="single_threaded_cpu")
    model.dt = networks.STEP_MS
    model.seed = 1
    neurons = model.add_neuron_population(
        "neurons", network.neurons, NEURON,
        {"base_rate": network.base_rate_hz, "gain": networks.GAIN,
         "cap": float(numpy.log(networks.MAX_RATE_HZ / network.base_rate_hz)),
         "increment": networks.INCREMENT, "refractory": networks.REFRACTORY_MS},
        {"v": 0.0, "a": 0.0, "wait": 0.0})
    neurons.spike_recording_enabled = True
    synapses = model.add_synapse_population(
        "synapses", "SPARSE", neurons, neurons,
        pygenn.init_weight_update("StaticPulse", {}, {"g": networks.weights(network)}),
        pygenn.init_postsynaptic("DeltaCurr"))
    synapses.set_sparse_connections(networks.sources(network).astype(numpy.uint32),
                                    targets.astype(numpy.uint32))
    # A spike without delay arrives in the next step.
    synapses.axonal_delay_steps = networks.steps(network.delay_ms) - 1
    return model, neurons


def main():
    options, network = measuring.parse_network(__doc__, lambda parser: parser.add_argument(
        "--precision", choices=("float", "double"), default="float"))
    targets = networks.targets(network)
    steps = networks.steps(network.duration_ms)
    with tempfile.TemporaryDirectory() as folder:
        clock = measuring.Clock()
        model, neurons = build(network, targets, options.precision)
        building_s = clock.wall_s()
        model.build(folder)
        generation_s = clock.wall_s() - building_s
        clock = measuring.Clock()
        model.load(num_recording_timesteps=steps)
        building_s += clock.wall_s()
        clock = measuring.Clock()
        while model.timestep < steps:
            model.step_time()
        figures = {"wall_s": clock.wall_s(), "processor_s": clock.processor_s(),
                   "building_s": building_s, "generation_s": generation_s,
                   "peak_bytes": measuring.peak_bytes()}
        model.pull_recording_buffers_from_device()
        times, _ = neurons.spike_recording_data[0]
    spike_steps = numpy.rint(times / networks.STEP_MS)
    measuring.report(network, targets, spike_steps, version=pygenn.__version__,
                     precision="single" if options.precision == "float" else "double", **figures)


if __name__ == "__main__":
    main()
