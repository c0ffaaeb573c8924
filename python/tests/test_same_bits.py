"""The same model gives the same bits through Python and through C++, in every way of running."""

import os
import pickle
import random
import subprocess
import sys

import numpy as np
import pytest

import kelm
from kelm.units import ms, us


def wired() -> kelm.Simulation:
    net = kelm.Network(
        seed=11,
        window=1 * ms,
        neuron={"tau_membrane": 15 * ms, "adaptation_increment": 0.1},
        firing=kelm.Firing(base_rate=12.0, gain=2.0, max_rate=300.0),
    )
    a = net.population("a", 60)
    b = net.population("b", 40, neuron=kelm.Neuron(non_leaky=True), firing={"base_rate": 3.0})
    noise = net.poisson("noise", 30, rate=20)
    times = np.array([120, 5, 7, 7], np.uint32) * np.uint32(ms)
    train = net.spike_source("train", 2, times, [0.0, 1.0, 1.0, 0.0])
    delay = kelm.uniform(1 * ms, 4 * ms)
    connect = net.connect
    connect(a, net.all, kelm.fixed_indegree(5), weight=0.2, delay=delay, allow_self=False,
            name="in")
    connect(b, net.all[:100], kelm.fixed_outdegree(7), weight=-kelm.exponential(0.3), delay=delay,
            allow_multiple=False, name="out")
    connect(noise, a, kelm.fixed_total(90), weight=kelm.lognormal(-1, 0.5).within(0, 2),
            delay=2 * ms, name="total")
    connect(a, b, kelm.bernoulli(0.2), weight=kelm.normal(0.3, 0.1).within(0, 1),
            delay=kelm.normal(2 * ms, ms).within(1 * ms, 5 * ms), name="some")
    connect(train, b, kelm.all_to_all, weight=0.5, delay=np.float32(1e6), name="every")
    connect(a[:40], b, kelm.one_to_one, weight=np.full(40, 0.1),
            delay=lambda source, target, index: ms + source, name="one")
    return kelm.Simulation(net, seed=5, horizon=400 * ms).run()


def composed(backend: str = "auto", watch=lambda sim: sim) -> kelm.Simulation:
    k = np.arange(400)
    net = kelm.Network(window=1 * ms, firing={"base_rate": 15, "gain": 2})
    everyone = net.population("everyone", 50)
    net.connect_arrays(
        source=k * 7 % 50,
        target=(k * k + 3) % 50,
        weight=np.float32(0.01) * (k % 30).astype(np.float32),
        delay=1 * ms + k % 5 * 500 * us,
        inhibitory=k % 4 == 0,
    )
    sim = kelm.Simulation(
        net,
        seed=9,
        backend=backend,
        plasticity={
            "tau_pre": 15 * ms,
            "tau_post": 25 * ms,
            "excitatory": {"kind": "pair", "potentiation": 0.02, "depression": 0.01},
            "inhibitory": kelm.PlasticityRule("coincidence", coincidence=0.01, scale=0.5),
            "homeostasis_cap": 0.2,
        },
        journal=True,
        phase=kelm.Phase(
            [kelm.Oscillator(3, 8.0, 0.5), {"id": 7, "frequency": 40, "amplitude": 0.5}],
            [
                kelm.Binding(everyone[:20], 3, 0.8, phase_offset=0.1 * np.arange(20)),
                kelm.Binding(everyone[10:30], 7, 0.3, inhibitory=True),
            ],
            [kelm.Coupling(3, 7, 5.0)],
            coupling_period=2 * ms,
        ),
        recorder={"causal": True, "sample_interval": 10 * ms,
                  "samples": ["membrane", "spike_counts"]},
        input_channels=[kelm.InputChannel("light", everyone[1:4], 1 * ms, 0.5, modality=2)],
        prediction=[
            kelm.ErrorChannel("touch", [4, 5], 2.0, 0.7, 1.5),
            {"name": "heat", "targets": 6, "predictor": kelm.Predictor([7, 8], [0.1, 0.2], 0.3)},
        ],
        label="composed",
    )
    sim.oscillators.coupling_enabled = True
    sim.oscillators.report(everyone[:20], [3])
    sim.learning.set_group(9, 1)
    sim.learning.set_group_enabled(1, False)
    sim.learning.set_fast_weights(True, 100 * ms, 0.1)
    sim.inject("light", 3 * ms, 1.0)
    sim = watch(sim.run(60 * ms))
    sim.prediction.observe("touch", 1.0, 0.25, 60 * ms)
    sim.perturb(70 * ms, [1, 40], 0.5, inhibition=True, cause=17)
    sim.interventions.set_gain("plasticity", 0.5)
    return sim.run_until(200 * ms)


@pytest.mark.parametrize("model", [wired, composed])
def test_python_and_cpp_write_the_same_checkpoint(model, tmp_path):
    file = tmp_path / "reference.kelm"
    program = os.environ["KELM_PYTHON_REFERENCE"]
    printed = subprocess.run([program, model.__name__, file], check=True, capture_output=True)
    sim = model()
    assert f"{sim.fingerprint} {sim.digest}" == printed.stdout.decode().strip()
    assert sim.checkpoint() == file.read_bytes()
    assert sim.spike_count > 90
    # Python goes on from the checkpoint of C++.
    settings = {k: v for k, v in sim._settings.items() if k != "label"}
    other = kelm.Simulation.load(sim.network, file, **settings)
    assert other.spikes.array.tobytes() == sim.spikes.array.tobytes()


@pytest.mark.parametrize("backend", kelm.available_backends())
def test_backends_forks_pickles_and_probes_leave_the_bits_alone(backend):
    def watch(sim):
        sim.probe([1, 2], ["membrane", "hazard"], interval=300 * us)
        return pickle.loads(pickle.dumps(sim.fork()))

    def reported(sim):  # neither a checkpoint nor a pickle holds what is reported
        sim = watch(sim)
        sim.oscillators.report(sim.network["everyone"][:20], [3])
        return sim

    assert composed(backend, reported).checkpoint() == composed("cpu").checkpoint()


# The ring's digest comes from an implementation that shares no code with the engine.
def test_the_ring_has_the_known_digest():
    net = kelm.Network(
        window=1 * ms,
        neuron={"tau_membrane": 5 * ms, "tau_adaptation": 50 * ms, "refractory_period": 1 * ms,
                "adaptation_increment": 0.2},
        firing={"base_rate": 150, "gain": 1.5},
    )
    net.population("ring", 6)
    n = np.arange(6)
    weight = np.float32(0.25) + np.float32(0.05) * ((n + 1) % 5).astype(np.float32)
    net.connect_arrays(n, (n + 1) % 6, weight, 2 * ms)
    sim = kelm.Simulation(net, seed=1, horizon=20 * ms).run()
    assert str(sim.digest) == "d4962290def24958"


def test_pieces_stops_and_another_process_end_with_the_same_digest(net, tmp_path):
    whole = kelm.Simulation(net, seed=3).run(300 * ms)
    draw = random.Random(8)
    sim = kelm.Simulation(net, seed=3, threads=2)
    taken = []
    while sim.position < 200 * ms:
        if draw.random() < 0.3:
            sim.request_stop()
        sim.run(draw.randint(1 * ms, 20 * ms))
        if draw.random() < 0.5:
            taken.append(sim.take_spikes())
    assert sum(map(len, taken)) > 0
    for before, after in zip(taken, taken[1:]):
        assert np.all((before.time >= before.start) & (before.time < before.end))
        assert before.end == after.start
    sim.save(tmp_path / "run.kelm")
    (tmp_path / "net.pickle").write_bytes(pickle.dumps(net))
    code = f"""
import kelm, pathlib, pickle
folder = pathlib.Path({str(tmp_path)!r})
net = pickle.loads((folder / "net.pickle").read_bytes())
sim = kelm.Simulation.load(net, folder / "run.kelm").run_until(300_000_000)
print(sim.digest, sim.spike_count)
"""
    printed = subprocess.run([sys.executable, "-c", code], check=True, capture_output=True)
    assert printed.stdout.decode().split() == [str(whole.digest), str(whole.spike_count)]


def test_arrays_and_rules_together_ascend_by_source(net):
    """Rules come first for each source, then the arrays in the order of the calls."""
    rules = net.build().synapses
    net.connect_arrays([150, 3, 3], [1, 2, 2], [0.5, -0.25, 0.125], 2 * ms)
    net.connect_arrays([3], [9], 0.75, [3 * ms])
    both = net.synapses
    assert np.all(both.source[1:] >= both.source[:-1])
    third = np.flatnonzero(both.source == 3)
    assert both.target[third][-3:].tolist() == [2, 2, 9]
    assert both.weight[third][-3:].tolist() == [0.25, 0.125, 0.75]
    assert both.inhibitory[third][-3:].tolist() == [True, False, False]
    kept = np.ones(len(both.source), bool)
    kept[third[-3:]] = False
    kept[np.flatnonzero(both.source == 150)[-1]] = False
    for column, before in zip(both, rules):
        assert np.array_equal(column[kept], before)


def test_reseeded_simulations_are_equal_and_may_be_pickled(net):
    sims = [kelm.Simulation(net, seed=3).run(50 * ms).reseed(21) for _ in range(2)]
    sims.append(pickle.loads(pickle.dumps(sims[0])))
    assert len({sim.run(50 * ms).digest for sim in sims}) == 1
    assert sims[0].digest != kelm.Simulation(net, seed=3).run(100 * ms).digest
