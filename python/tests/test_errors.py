"""Refusals: class, argument, value and rule."""

import copy
import gc
import pickle
import weakref

import numpy as np
import pytest

import kelm
from kelm import errors
from kelm.units import ms, s

HINT = r"times are ns: write 2\*ms"
delay = 2 * ms


def sim_of(net, **settings):
    return kelm.Simulation(net, seed=1, **settings)


def connect(net, weight=0.1, delay=delay, rule=kelm.bernoulli(0.1), source=None, **more):
    net.connect(source or net.all, net.all, rule, weight=weight, delay=delay, **more)
    net.build()


def light(net):
    return sim_of(net, input_channels=[kelm.InputChannel("light", [1], 1)]).run(5 * ms)


nan, inf = float("nan"), float("inf")
masked = np.ma.masked_array([1, 2], [0, 1])
CASES = [
    # times and numbers
    (lambda n: sim_of(n).run(2), ValueError,
     f"duration: 2 ns is below the window of 1000000 ns; {HINT}"),
    (lambda n: sim_of(n).run(1.5), ValueError,
     f"duration is 1.5, which is no whole number; {HINT}"),
    (lambda n: sim_of(n).run(nan), ValueError, "duration is nan, which is no whole number"),
    (lambda n: sim_of(n).run("2s"), TypeError, "duration must be a whole number, not str"),
    (lambda n: sim_of(n).run(True), TypeError, "duration must be a whole number, not bool"),
    (lambda n: sim_of(n).run(2**63), ValueError, r"duration is 9223372036854775808 ns"),
    (lambda n: sim_of(n, horizon=5), ValueError, "horizon: 5 ns is below the window"),
    (lambda n: sim_of(n).run(), ValueError, "duration is None, and the simulation has no horizon"),
    (lambda n: connect(n, delay=3), ValueError, "delay: 3 ns is below the window of 1000000 ns"),
    (lambda n: connect(n, delay=kelm.uniform(2, 3)), ValueError, "delay: 2 ns is below the window"),
    (lambda n: connect(n, delay=[delay, 7]), ValueError,
     r"delay\[1\] is 7, must be at least 1000000"),
    (lambda n: connect(n, weight=nan), ValueError, "weight is nan, must be finite"),
    (lambda n: kelm.Network(seed=-1), ValueError,
     r"seed is -1, must lie in \[0, 18446744073709551615"),
    # names and records
    (lambda n: kelm.Network(firing={"gian": 1}), ValueError, "'gian'.*did you mean 'gain'"),
    (lambda n: kelm.Network(neuron=3), TypeError, "neuron must be a kelm.Neuron or a dict"),
    (lambda n: sim_of(n, prediction=[{"name": "x"}]), ValueError,
     r"prediction\[0\] has no targets"),
    (lambda n: sim_of(n, input_channels=5), TypeError, "input_channels must be a list, not int"),
    (lambda n: kelm.Network(neuron={"non_leaky": "no"}), TypeError,
     "neuron.non_leaky is 'no', must be True or False"),
    (lambda n: kelm.Network(firing={"gain": 10**400}), ValueError, "gain is inf, must be finite"),
    (lambda n: connect(n, source=kelm.Neurons("x", -1, 3)), ValueError, "first is -1, must lie in"),
    (lambda n: n.population("E", 3), ValueError, "name is 'E', which another population has"),
    (lambda n: n["F"], ValueError, "a population is 'F', must be one of E, I"),
    (lambda n: n["E"][200], IndexError, "E has 160 neurons, so none has index 200"),
    (lambda n: n["E"][::2], ValueError, "the step of a slice is 2, must be 1"),
    (lambda n: n.parameters(3), ValueError, "a population is 3, must be one of E, I"),
    (lambda n: n.set_parameters([1, 2]), ValueError, r"a population is \[1, 2\], must be one of"),
    # wiring
    (lambda n: connect(n, rule=80), TypeError, "rule must be a kelm.Rule"),
    (lambda n: connect(n, source=[1, 2]), TypeError, "source must be a population or a range"),
    (lambda n: connect(n, weight=[1, -1]), ValueError, "weight has values of both signs"),
    (lambda n: connect(n, weight=[[1], [2, 3]]), TypeError, "weight is no array of numbers: "),
    (lambda n: connect(n, delay=[[1], [2, 3]]), TypeError, "delay is no array of numbers: "),
    (lambda n: connect(n, weight=masked), ValueError, "weight has masked elements"),
    (lambda n: n.connect_arrays(np.arange(2), masked, 1, delay), ValueError,
     "target has masked elements"),
    (lambda n: connect(n, weight=-1, inhibitory=False), ValueError, "weight is negative"),
    (lambda n: connect(n, name="E->all"), ValueError, "name is 'E->all', which another connection"),
    (lambda n: connect(n, rule=kelm.one_to_one, source=n["E"]), ValueError, "projection"),
    (lambda n: connect(n, rule=kelm.bernoulli(2)), ValueError, "probability"),
    (lambda n: connect(n, weight=lambda s, t, i: 1 / 0), ZeroDivisionError, "division"),
    (lambda n: connect(n, weight=lambda s, t, i: None), TypeError,
     "returned None, must return a number"),
    (lambda n: n.connect_arrays([0, 200], [1, 1], 1, delay), ValueError,
     r"source\[1\] is 200, must be below 200; the network has 200 neurons"),
    (lambda n: n.connect_arrays([0], [1, 1], 1, delay), ValueError,
     "target has 2 values, must have 1"),
    (lambda n: n.connect_arrays([[0]], [1], 1, delay), ValueError, r"source has shape \(1, 1\)"),
    (lambda n: n.connect_arrays([0.5], [1], 1, delay), ValueError,
     r"source\[0\] is 0.5, must be a whole"),
    (lambda n: n.connect_arrays(["a"], [1], 1, delay), TypeError, "source must hold numbers"),
    (lambda n: n.connect_arrays([1], [1], -1, delay, [1]), ValueError, r"weight\[0\].*at least 0"),
    (lambda n: n.connect_arrays([1], [1], 1e300, delay), ValueError,
     "too large for single precision"),
    (lambda n: n.spike_source("x", 2, [5, 5], [1, 1]), ValueError,
     "neuron 1 has two spikes at 5 ns"),
    (lambda n: n.spike_source("x", 2, [5], [2]), ValueError, r"neurons\[0\] is 2, must be below 2"),
    (lambda n: n.spike_source("x", 2, [2**63], [0]), ValueError,
     r"times\[0\] is 9223372036854775808"),
    (lambda n: n.poisson("x", 2, 0), ValueError, "rate is 0.0 spikes/s, must be positive"),
    # models and calls that the library refuses
    (lambda n: sim_of(n, backend="gpu"), errors.UnknownBackend, "there is no backend 'gpu' here"),
    (lambda n: sim_of(n, threads=10**9), errors.InvalidThreadCount, "at most"),
    (lambda n: (n.population("bad", 1, firing={"max_rate": 1}), sim_of(n)), errors.InvalidModel,
     "population 'bad' .neuron 200."),
    (lambda n: sim_of(n, plasticity={"excitatory": {"kind": "pair", "potentiation": -1}}),
     errors.InvalidPlasticity, "must be non-negative .*potentiation"),
    (lambda n: sim_of(n, phase={"oscillators": [kelm.Oscillator(1, -1)]}),
     errors.InvalidOscillator, "invalid KELM oscillator parameters .*frequency"),
    (lambda n: sim_of(n, input_channels=[kelm.InputChannel("a", [1, 1])]),
     errors.InvalidModality, "repeats a target"),
    (lambda n: sim_of(n, prediction=[kelm.ErrorChannel("global", 1)]), errors.InvalidPrediction,
     "global error scalar is forbidden"),
    (lambda n: sim_of(n).run(9 * ms).run_until(ms), errors.RefusedCall, "goes backwards"),
    (lambda n: sim_of(n, horizon=5 * ms).run(6 * ms), errors.RefusedCall, "past the horizon"),
    (lambda n: sim_of(n).states(at=3 * s), errors.InvalidMoment, "states are known from 0 ns"),
    (lambda n: sim_of(n).states(neurons=[200]), ValueError, r"neurons\[0\] is 200, must be below"),
    (lambda n: sim_of(n).probe([], interval=ms), errors.InvalidProbe, "names no neuron"),
    (lambda n: sim_of(n).set_weights(-1), ValueError, r"weights\[0\] is -1, must be at least 0"),
    (lambda n: sim_of(n).set_weights([1], [10**6]), ValueError, "must be below .* synapses"),
    (lambda n: sim_of(n).learning, errors.PartMissing, "make it with plasticity="),
    # inputs: nothing is posted
    (lambda n: light(n).inject("dark", 0, 1), ValueError,
     "an input channel is 'dark', must be one of light"),
    (lambda n: light(n).inject("light", 0, 1), errors.RefusedCall,
     "comes too early: the earliest time is 5000000"),
    (lambda n: light(n).inject("light", [9 * ms, 8 * ms], 1), ValueError,
     r"time\[1\].*must ascend"),
    (lambda n: light(n).post([9 * ms], [1], [inf]), ValueError,
     r"values\[0\] is inf, must be finite"),
    (lambda n: light(n).post([9 * ms], [1], [np.longdouble("1e4000")]), ValueError,
     "too large for double precision"),
    (lambda n: light(n).inject("light", [[1], [2, 3]], 1), TypeError, "time is no array of"),
    (lambda n: light(n).post([9 * ms, 0], 1, 1), ValueError, r"times\[1\] is 0.*earliest input"),
    (lambda n: light(n).perturb(0, [1], 1.0), errors.RefusedCall, "comes too early"),
    (lambda n: light(n).interventions.set_gain("gain", 1), ValueError, "mechanism is 'gain'"),
    # checkpoints
    (lambda n: sim_of(n).restore(b"bytes"), errors.RefusedCheckpoint, "this is no checkpoint"),
    (lambda n: sim_of(n).save("a\0b"), ValueError, "path is 'a.x00b', must have no null"),
    (lambda n: sim_of(n).restore("text"), TypeError, "checkpoint must be bytes, not str"),
    (lambda n: kelm.Simulation(n, seed=2).restore(sim_of(n).checkpoint()),
     errors.RefusedCheckpoint, "the checkpoint has seed 1, and this runtime has 2"),
]


@pytest.mark.parametrize("case", CASES, ids=lambda case: case[2][:40])
def test_refusal(case, net):
    call, builtin, text = case
    with pytest.raises(builtin, match=text) as raised:
        call(net)
    assert isinstance(raised.value, kelm.Error) or builtin is ZeroDivisionError


@pytest.mark.parametrize("size, rule, synapses", [
    (2**31, None, 0), (8, kelm.fixed_indegree(2**28), 2**31), (8, kelm.fixed_total(2**40), 2**40),
    (8, kelm.fixed_outdegree(2**44), 2**47), (2**24, kelm.all_to_all, 2**48 - 2**24),
    (2**24, kelm.bernoulli(0.5), 2**46), (2**24, kelm.one_to_one, 2**24)])
def test_a_network_that_cannot_fit_is_refused_before_it_is_built(monkeypatch, size, rule, synapses):
    net = kelm.Network()
    neurons = net.population("many", size)
    net.connect_arrays([0], [1], 1, delay)
    if rule is not None:
        net.connect(neurons, neurons, rule, weight=1, delay=delay)
    needed = 80 * size + 20 * (synapses + 1)
    pages = {"SC_PHYS_PAGES": 1, "SC_PAGE_SIZE": needed - 1}
    monkeypatch.setattr("os.sysconf", pages.__getitem__)
    for call in (net.build, lambda: sim_of(net)):
        with pytest.raises(errors.NetworkTooLarge, match=(
                f"{size} neurons and at least {synapses + 1} synapses and needs at least {needed} "
                f"bytes of memory; this machine has {needed - 1} bytes")) as refused:
            call()
        assert isinstance(refused.value, MemoryError) and isinstance(refused.value, ValueError)
    with pytest.raises(kelm.ArgumentError, match="makes more than 281474976710656 synapses"):
        connect(net, rule=kelm.fixed_total(2**60))
    pages["SC_PHYS_PAGES"] = -1  # not known
    kelm.Network().build()


@pytest.mark.parametrize("use", [
    lambda net: net.synapse_count, kelm.Network.build, kelm.Simulation,
    lambda net: net.population("more", 1), lambda net: net.connect_arrays([0], [1], 1, delay),
    lambda net: connect(net)])
def test_a_function_of_a_build_may_read_a_network_but_not_build_or_change_it(net, use):
    def weight(source, target, index):
        assert net.copy().connections == net.connections  # this may be read
        use(net)

    size, connections = net.size, len(net.connections)
    net.connect(net.all, net.all, kelm.one_to_one, weight=weight, delay=delay)
    for _ in range(2):  # the first failure leaves the network as it was
        with pytest.raises(kelm.BusyError, match="the network is being built"):
            net.build()
    assert (net.size, len(net.connections)) == (size, connections + 1)


def test_a_refused_input_leaves_nothing_behind(net):
    sim, other = light(net), light(net)
    for times, values in (([9 * ms, 2**40 * 1.5], [1, nan]), ([9 * ms, 1 * ms], [1, 1])):
        with pytest.raises(kelm.ArgumentError):
            sim.inject("light", times, values)
        with pytest.raises(kelm.ArgumentError):
            sim.post(times, [1, 2], values)
    with pytest.raises(kelm.ArgumentError, match="arrives after"):
        sim.inject("light", [9 * ms, 2**63 - 1], 1)
    assert sim.checkpoint() == other.checkpoint()


def test_files_that_are_no_checkpoints_of_the_network_are_refused(net, tmp_path):
    path = tmp_path / "run.kelm"
    sim_of(net).run(20 * ms).save(path)
    assert kelm.Simulation.load(net, path).position == 20 * ms
    other = net.copy()
    other.population("more", 1)
    with pytest.raises(kelm.FileError, match="run.kelm.*neurons"):
        kelm.Simulation.load(other, path)
    with pytest.raises(kelm.FileError, match="plasticity"):
        kelm.Simulation.load(net, path, plasticity={})
    path.write_bytes(path.read_bytes()[:-1])
    with pytest.raises(kelm.FileError, match="cut short"):
        kelm.Simulation.load(net, path)
    with pytest.raises(errors.CheckpointFileError, match="cannot .* 'none/run.kelm'"):
        sim_of(net).save("none/run.kelm")
    with pytest.raises(FileNotFoundError):
        kelm.Simulation.load(net, tmp_path / "none")


@pytest.mark.parametrize("duplicate", [kelm.Network.copy, copy.copy, copy.deepcopy,
                                       lambda net: pickle.loads(pickle.dumps(net))])
def test_a_copy_of_a_network_is_equal_and_independent(net, duplicate):
    other = duplicate(net)
    assert sim_of(other).run(50 * ms).digest == sim_of(net).run(50 * ms).digest
    sim = sim_of(other)
    other.population("more", 5)
    other.connect_arrays([0], [1], 1, delay)
    assert net.size == 200 and net.synapse_count == other.synapse_count - 1
    # A simulation keeps the network that it was made with.
    assert pickle.loads(pickle.dumps(sim)).run(50 * ms).digest == sim_of(net).run(50 * ms).digest


def test_arrays_of_any_type_and_stride_give_the_same_synapses(monkeypatch):
    columns = ([7, 0, 3], [1, 7, 2], [0.5, -0.25, -0.0], [2 * ms, 3 * ms, 2 * ms])
    records = np.empty(3, [("pad", "u1"), *((str(k), t) for k, t in enumerate("qQfq"))])  # packed
    for k, column in enumerate(columns):
        records[str(k)] = column
    table = np.array(columns).T
    flags = [False, True, False]
    magnitudes = np.abs(columns[2])
    found = set()

    def add(arrays):
        net = kelm.Network(window=1 * ms)
        net.population("few", 8)
        net.connect_arrays(*arrays)
        found.add(tuple(column.tobytes() for column in net.synapses))
        net.population("more", 8)
        found.add(tuple(column.tobytes() for column in net.synapses))
        kelm.Simulation(net)

    add(columns)
    add([*table.astype(">f8").T])
    add([*columns[:2], magnitudes, columns[3], flags])
    monkeypatch.delattr("kelm._checks.column")  # C++ reads the others as they are
    add([np.array(c, t) for c, t in zip(columns, ("int32", "uint64", "float64", "int64"))])
    add([np.array(c, t) for c, t in zip(columns, ("uint16", "uint32", "float32", "int32"))])
    add([records[str(k)] for k in range(4)])
    add([*map(np.array, columns[:2]), np.array(magnitudes[::-1])[::-1], np.array(columns[3]),
         np.uint8(flags)])
    assert found == {tuple(np.array(column, t).tobytes() for column, t in zip(
        (columns[0], columns[1], [0.5, 0.25, 0.0], columns[3], flags), "QQfq?"))}


@pytest.mark.parametrize("place, value, rule", [
    (0, -1, "at least 0; the network has"), (1, 200, "below 200; the network has"),
    (1, 2**63, "below 200"), (2, np.nan, "finite"), (2, 1e39, "too large for single precision"),
    (2, -1e-60, "at least 0; inhibitory gives the sign"), (3, ms - 1, f"at least {ms}; times"),
    (3, 2**63, "at most"), (4, 2, "below 2")])
def test_values_are_refused_alike_in_any_byte_order(net, place, value, rule):
    """C++ reads arrays of the machine's order, NumPy converts the others."""
    columns = [[1, 2], [3, 4], [0.5, 0.25], [2 * ms, 2 * ms], [1, 0]]
    columns[place][1] = value
    arrays = [np.array(c, np.uint64 if 2**63 in c else None) for c in columns]
    arrays[4] = arrays[4].astype(np.uint8)
    texts = set()
    for order in "=>":
        with pytest.raises(kelm.errors.ArgumentError) as refused:
            net.connect_arrays(*(a.astype(a.dtype.newbyteorder(order)) for a in arrays))
        texts.add(str(refused.value))
    (text,) = texts
    name = ("source", "target", "weight", "delay", "inhibitory")[place]
    assert text.startswith(f"{name}[1] is {value}, ") and rule in text


def test_settings_that_change_later_and_callbacks_do_not_bind_a_simulation(net):
    settings = {"excitatory": {"kind": "pair", "potentiation": 0.01}}
    sim = sim_of(net, plasticity=settings)
    settings["excitatory"]["kind"] = "none"
    assert pickle.loads(pickle.dumps(sim)).fingerprint == sim.fingerprint
    sim.on_commit(lambda *window, sim=sim: None)
    sim = weakref.ref(sim)
    gc.collect()
    assert sim() is None


def test_inputs_of_any_numeric_type_are_the_same(net):
    digests = set()
    for kind in (np.int16, np.uint64, np.float32, np.longdouble, list):
        sim = sim_of(net)
        neurons = list(range(50)) if kind is list else np.arange(50, dtype=kind)
        sim.post(np.full(50, 3e6), neurons, kind([2] * 50) if kind is not list else [2] * 50)
        digests.add(sim.run(50 * ms).digest)
    assert len(digests) == 1 and sim_of(net).run(50 * ms).digest not in digests
