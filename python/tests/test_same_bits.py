"""The same model gives the same bits through Python and through C++, in every way of running."""

import functools
import json
import multiprocessing
import os
import pickle
import random
import signal
import subprocess
import threading
from concurrent.futures import ProcessPoolExecutor

import numpy as np
import pytest

import kelm
from kelm._command import main
from kelm.units import ms, s, us


class Draws:
    """Draws from a seed, as in reference.cpp."""

    def __init__(self, seed):
        self.state = seed

    def __call__(self, below):
        self.state = (self.state * 6364136223846793005 + 1442695040888963407) % 2**64
        return (self.state >> 33) % below

    def eighths(self, below):
        return self(below) / 8


def weight_of(draw):
    size = 0.125 + draw.eighths(3)
    return [
        size,
        kelm.uniform(0, size),
        kelm.normal(size, 0.1).within(0, 1),
        kelm.lognormal(-2, size).within(0, 1),
        kelm.exponential(size),
    ][draw(5)]


def computed_delay(window, source, target, k):
    return window + (source + k) % 7 * us


def delay_of(draw, window):
    kind = draw(4)
    if kind == 0:
        return window + draw(4) * 250 * us
    return {
        1: kelm.uniform(window, window + 2 * ms),
        2: kelm.normal(2 * ms, 1 * ms).within(window, 5 * ms),
        3: functools.partial(computed_delay, window),
    }[kind]


def connect(draw, net, a, b, noise, train):
    """Synapses by up to seven rules."""
    for k in range(3 + draw(5)):
        number = draw(4)
        source = (a, b, noise, train)[number]
        target = (a, b, net.all)[draw(3)]
        degree = 1 + draw(4)
        kind = draw(6)
        rule = [kelm.all_to_all, kelm.one_to_one, kelm.fixed_indegree(degree),
                kelm.fixed_outdegree(degree), kelm.fixed_total(20 * degree),
                kelm.bernoulli(degree / 16)][kind]
        if kind == 1:
            source, target = a[:10], b[:10]
        net.connect(source, target, rule, allow_self=draw(2) == 0, allow_multiple=draw(2) == 0,
                    weight=weight_of(draw), delay=delay_of(draw, net.window),
                    inhibitory=number == 1, name=str(k))


def connect_arrays(draw, net):
    """Synapses that are not sorted by source."""
    rows = [(draw(net.size), draw(net.size), draw.eighths(5), net.window + draw(4) * 250 * us,
             draw(4) == 0) for _ in range(500)]
    net.connect_arrays(*map(np.array, zip(*rows)))


def generated(seed):
    """The network, the seed and the settings of a simulation."""
    draw = Draws(seed)
    wiring_seed = draw(1000)
    window = 500 * us + draw(2) * 500 * us
    neuron = {"tau_membrane": (5 + draw(20)) * ms, "adaptation_increment": draw.eighths(8)}
    firing = {"base_rate": 20 + draw.eighths(400), "gain": 1 + draw.eighths(16), "max_rate": 400}
    net = kelm.Network(wiring_seed, window, neuron, firing)
    other = {"non_leaky": draw(2) == 1}
    a = net.population("a", 20 + draw(50))
    b = net.population("b", 20 + draw(30), other, {"base_rate": 3})
    noise = net.poisson("noise", 5 + draw(10), 10)
    seed = draw(1000)
    times, neurons = zip(*((k * 15 * ms + draw(15) * ms, draw(6)) for k in range(12)))
    train = net.spike_source("train", 6, times, neurons)
    if draw(4) == 0:
        connect_arrays(draw, net)
    else:
        connect(draw, net, a, b, noise, train)
    settings = {}
    if draw(2) == 1:
        settings["plasticity"] = {
            "tau_pre": (10 + draw(10)) * ms,
            "excitatory": {"kind": "pair", "potentiation": 0.02, "depression": 0.01},
            "inhibitory": {"kind": "coincidence", "coincidence": 0.01, "scale": 0.5},
            "homeostasis_cap": 0.25 if draw(2) == 1 else None,
        }
    if draw(2) == 1:
        oscillator = {"id": 1, "frequency": 5 + draw.eighths(80), "phase": 0.5}
        binding = {"neurons": list(range(a.size)), "oscillator": 1, "strength": draw.eighths(8),
                   "phase_offset": 0.25}
        settings["phase"] = {"oscillators": [oscillator], "bindings": [binding]}
    return net, seed, settings


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


def reference(file, *seed):
    """What the C++ program prints: fingerprint and digest."""
    command = [os.environ["KELM_PYTHON_REFERENCE"], file, *map(str, seed)]
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()


@pytest.fixture(scope="module")
def other_process():
    with ProcessPoolExecutor(1, multiprocessing.get_context("spawn")) as pool:
        yield lambda *call: pool.submit(*call).result()


def run_in_pieces(sim, end, draw):
    """Cuts a run anywhere, stops some pieces and takes some spikes."""
    taken = []
    while sim.position < end:
        if draw.random() < 0.3:
            sim.request_stop()
        sim.run_until(min(sim.position + draw.randint(1 * ms, 20 * ms), end))
        if draw.random() < 0.5:
            taken.append(sim.take_spikes())
    for before, after in zip(taken, taken[1:]):
        assert np.all((before.time >= before.start) & (before.time < before.end))
        assert before.end == after.start
    return sim


def run_interrupted(sim, draw):
    """Interrupts a run that would take years at any moment."""
    timer = threading.Timer(draw.uniform(0, 0.2), signal.raise_signal, [signal.SIGINT])
    with pytest.raises(KeyboardInterrupt):
        timer.start()
        sim.run(10**9 * s, progress=draw.choice([None, lambda progress: None]))
    return sim.run(20 * ms)


@pytest.mark.parametrize("seed", range(10))
def test_a_generated_model_gives_the_same_bits_in_every_way(seed, tmp_path, capsys, other_process):
    half, end = 100 * ms, 200 * ms
    net, sim_seed, settings = generated(seed)
    draw = random.Random(seed)
    expected = reference(tmp_path / "cpp.kelm", seed)

    def sim(backend=None, **more):
        backend = backend or draw.choice(kelm.available_backends())
        return kelm.Simulation(net, sim_seed, backend=backend, **settings, **more)

    begun = sim().run_until(half)
    assert begun.checkpoint() == (tmp_path / "cpp.kelm").read_bytes()
    assert sim().run_until(end).spike_count > 30
    ways = {
        **{backend: sim(backend).run_until(end) for backend in kelm.available_backends()},
        "in pieces": run_in_pieces(sim(threads=2), end, draw),
        "forked": begun.fork().run_until(end),
        "goes on from a fork": begun.run_until(end),
        "goes on from C++": kelm.Simulation.load(net, tmp_path / "cpp.kelm", **settings)
        .run_until(end),
        "goes on in another process": other_process(kelm.Simulation.run_until,
                                                    sim().run_until(half), end),
    }
    for threads in (1, 2):
        swept = kelm.sweep(lambda b: sim(b).run_until(end), kelm.available_backends(),
                           threads=threads)
        ways.update({f"sweep {threads}, {k}": run for k, run in enumerate(swept)})
    found = {way: f"{run.fingerprint} {run.digest}" for way, run in ways.items()}
    assert found == dict.fromkeys(found, expected)

    config = kelm.to_sonata(net, tmp_path, until=end, simulation={"seed": sim_seed, **settings})
    backend = draw.choice(kelm.available_backends())
    assert main(["run", config, "-o", str(tmp_path / "out"), "--backend", backend, "-q"]) == 0
    digest = capsys.readouterr().out.split()[-1]
    description = json.loads((tmp_path / "out" / "run.json").read_text())
    assert f"{description['fingerprint']} {digest}" == expected

    interrupted = run_interrupted(sim(), draw)
    whole = sim().run_until(interrupted.position)
    assert interrupted.checkpoint() == whole.checkpoint()


def test_a_composed_model_gives_the_same_checkpoint_in_cpp(tmp_path):
    sim = composed()
    assert f"{sim.fingerprint} {sim.digest}" == reference(tmp_path / "cpp.kelm")
    assert sim.checkpoint() == (tmp_path / "cpp.kelm").read_bytes()
    assert sim.spike_count > 90


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
