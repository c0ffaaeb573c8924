"""The parts of a simulation: each setting acts, and each array has its meaning."""

import numpy as np
import pytest

import kelm
from kelm import errors
from kelm.units import ms


def learning_sim(**settings):
    """Neuron 0 drives neurons 1 and 2, which learn by the pair rule."""
    net = kelm.Network(window=1 * ms, firing={"base_rate": 20.0, "gain": 1.0})
    net.spike_source("driver", 1, np.arange(1, 100) * 10 * ms)
    net.population("learners", 2)
    net.connect_arrays([0, 0], [1, 2], 0.5, 2 * ms)
    rule = {"kind": "pair", "potentiation": 0.05, "depression": 0.01}
    return kelm.Simulation(net, seed=4, plasticity={"excitatory": rule}, journal=True, **settings)


def test_the_journal_holds_the_way_of_each_weight():
    sim = learning_sim().run(500 * ms)
    journal = sim.learning.journal
    assert len(journal) > 20
    for synapse in (0, 1):
        own = journal[journal["edge"] == synapse]
        assert own["weight_before"][0] == 0.5
        assert np.array_equal(own["weight_before"][1:], own["weight_after"][:-1])
        assert np.float32(own["weight_after"][-1]) == sim.weights()[synapse]
    assert sim.learning.traces.shape == (3,) and sim.learning.states.shape == (2,)
    sim.learning.set_journal("off")
    assert sim.learning.journal_mode == "off"
    assert len(sim.run(500 * ms).learning.journal) == len(journal)


@pytest.mark.parametrize("setting", [
    lambda sim: setattr(sim.learning, "enabled", False),
    lambda sim: setattr(sim.learning, "allowed_groups", [5]),
    lambda sim: sim.learning.freeze(0),
    lambda sim: sim.learning.set_gate(lambda window_end: False),
    lambda sim: sim.learning.set_change_hook(lambda change: 0.0),
    lambda sim: sim.interventions.set_off("plasticity"),
    lambda sim: sim.learning.set_group_enabled(0, False),
])
def test_each_way_to_stop_learning_stops_it(setting):
    sim = learning_sim()
    setting(sim)
    assert np.all(sim.run(200 * ms).weights() == 0.5)


def test_callbacks_of_learning_get_their_arguments():
    sim, windows, changes = learning_sim(), [], []
    sim.learning.set_gate(lambda end: windows.append(end) or end > 100 * ms)
    sim.learning.set_change_hook(lambda change: changes.append(change) or 1.0)
    sim.run(200 * ms)
    assert windows == sorted(windows) and 180 * ms < windows[-1] <= 200 * ms
    assert sim.learning.gate_history["open"].tolist() == [0, 1]
    assert sim.learning.gate_history["time"][1] == next(end for end in windows if end > 100 * ms)
    assert sim.learning.journal["time"].min() >= 100 * ms - 1 * ms
    assert {change["source"] for change in changes} == {0}
    assert {change["target_fired"] for change in changes} == {False, True}
    fork = sim.fork()  # shares the callbacks, also after its origin has gone
    del sim
    before = len(changes)
    fork.run(100 * ms)
    assert len(changes) > before


def test_fast_weights_fade_and_groups_may_be_switched():
    sim = learning_sim()
    sim.learning.set_group([2], 1)
    sim.learning.allowed_groups = [1]
    assert (sim.learning.group_of(2), sim.learning.allowed_groups) == (1, [1])
    sim.learning.set_fast_weights(True, 20 * ms, 0.0)
    sim.learning.weight_cap = 0.6
    sim.run(300 * ms)
    assert sim.weights()[0] == 0.5 and sim.learning.pending.tolist() == [1]
    assert sim.learning.fast_weights == {
        "enabled": True, "tau": 20 * ms, "consolidation_rate": 0.0}
    assert sim.learning.journal["weight_after"].max() <= np.float32(sim.learning.weight_cap)
    sim.learning.freeze(0)
    fast = abs(sim.learning.states["fast"][1])
    assert abs(sim.run(300 * ms).learning.states["fast"][1]) < fast
    assert sim.learning.frozen == (True, False, False)
    sim.learning.allowed_groups = None
    assert sim.learning.allowed_groups is None


def test_weights_and_switches_of_synapses():
    sim = learning_sim()
    sim.set_weights([0.25], [True, False])
    assert sim.weights().tolist() == [0.25, 0.5] and sim.weights([1]).tolist() == [0.5]
    sim.set_weights(np.array([1, 2], np.int8))
    assert sim.weights().dtype == np.float32 and sim.weights().tolist() == [1, 2]
    sim.set_enabled(False, 1 == np.arange(2))
    assert sim.enabled().tolist() == [True, False]
    before = sim.fork()
    sim.set_transmission(inhibitory=False, enabled=False)
    assert (sim.transmission(False), sim.transmission(True)) == (False, True)
    # Without transmission no event arrives, so only candidates are evaluated.
    sim.run(100 * ms), before.run(100 * ms)
    assert sim.profile["updates"] == sim.profile["candidates"]
    assert before.profile["updates"] > before.profile["candidates"]


def phase_sim(**more):
    net = kelm.Network(window=1 * ms, firing={"base_rate": 30.0, "gain": 3.0},
                       neuron={"adaptation_increment": 0.0})
    E = net.population("E", 40)
    phase = kelm.Phase(
        [kelm.Oscillator(5, 10.0), kelm.Oscillator(9, 11.0, phase=1.0)],
        [kelm.Binding(E, 5, 0.8)],
    )
    return kelm.Simulation(net, seed=1, phase=phase, **more)


def test_spikes_lock_to_an_oscillator_whose_phases_are_logged():
    sim = phase_sim()
    oscillators = sim.oscillators
    assert oscillators.ids == (5, 9)
    assert oscillators.phases(25 * ms) == pytest.approx([np.pi / 2, 1 + 2 * np.pi * 0.275])
    oscillators.report(sim.network["E"][:10], [5])
    sim.run(1000 * ms)
    log = oscillators.log
    assert set(log["oscillator"]) == {5} and set(log["neuron"]) == set(range(10))
    assert np.count_nonzero(sim.spikes.array["neuron"] < 10) == len(log)
    expected = 2 * np.pi * (log["time"] / 1e9 * 10 % 1)
    assert np.allclose(np.exp(1j * log["phase"]), np.exp(1j * expected))
    assert np.mean(np.sin(log["phase"])) > 0.3
    silent = phase_sim()
    silent.interventions.set_gain("oscillators", 0.0)
    silent.oscillators.report(sim.network["E"])
    assert abs(np.mean(np.sin(silent.run(1000 * ms).oscillators.log["phase"]))) < 0.1


def test_coupling_pulls_phases_together():
    sim = phase_sim()
    sim.oscillators.set_coupling([kelm.Coupling(5, 9, 50.0)], 1 * ms)
    assert not sim.oscillators.coupling_enabled
    sim.run(100 * ms)
    assert sim.oscillators.offsets.tolist() == [0, 0]
    sim.oscillators.coupling_enabled = True
    sim.run(900 * ms)
    assert sim.oscillators.coupling_steps in (999, 1000)  # steps at the starts of windows
    first, second = sim.oscillators.phases(sim.position)
    # The lag at which the pull makes up for the difference of 1 cycle/s: sin(lag) = 2 pi / 50.
    assert np.sin(second - first) == pytest.approx(2 * np.pi / 50, rel=0.05)


def test_recorder_samples_and_causes():
    sim = phase_sim(recorder=kelm.RecorderSettings(
        causal=True, sample_interval=10 * ms, samples=["membrane", "spike_counts",
                                                        "oscillator_phases", "active_synapses"]))
    sim.run(100 * ms)
    samples = sim.recorder.samples
    assert samples["time"].tolist() == [k * 10 * ms for k in range(1, 10)]
    assert samples["membrane"].shape == samples["spike_counts"].shape == (9, 40)
    assert samples["oscillator_phases"].shape == (9, 2) and samples["adaptation"].size == 0
    spikes = sim.recorder.spikes
    assert np.array_equal(np.sort(spikes), sim.spikes.array)
    times = spikes["time"]
    assert samples["spike_counts"].sum() == np.count_nonzero(times <= 90 * ms)
    assert isinstance(sim.recorder.causes, dict)


def test_probes_agree_with_states():
    sim = learning_sim()
    probe = sim.probe([2, 1], ["membrane", "hazard"], interval=5 * ms)
    sim.run(50 * ms)
    assert probe.times.tolist() == [k * 5 * ms for k in range(10)]
    assert probe["hazard"].shape == (10, 2)
    again = learning_sim().run(25 * ms)
    state = again.states(25 * ms, [2, 1])
    assert probe["membrane"][5].tolist() == state["membrane"].tolist()
    assert state["hazard"] == pytest.approx(20 * np.exp(state["membrane"] - state["adaptation"]))
    assert again.last_states()["last_update"].max() <= 25 * ms
    with pytest.raises(kelm.ArgumentError, match="must be one of membrane, hazard"):
        probe["adaptation"]


def channel_sim():
    net = kelm.Network(window=1 * ms, firing={"base_rate": 10.0, "gain": 2.0})
    net.population("E", 4)
    return kelm.Simulation(
        net,
        seed=1,
        input_channels=[kelm.InputChannel("light", net["E"][1:3], delay=2 * ms, gain=0.5)],
        prediction=[kelm.ErrorChannel("touch", [0, 1], precision=2.0, strength=0.5, clamp=1.0)],
    )


def test_input_channels_inject_and_count():
    sim = channel_sim()
    sim.trace_injections()
    channel = sim.input_channels["light"]
    assert (list(sim.input_channels), channel.gain, channel.connected) == (["light"], 0.5, True)
    events = sim.inject("light", [1 * ms, 3 * ms], [1.0, 2])
    assert len(set(events.tolist())) == 4
    channel.gain = 0.0
    sim.inject("light", 4 * ms, 1)
    channel.connected = False
    assert len(sim.inject("light", 5 * ms, 1)) == 0
    assert channel.stats == {"injections": 4, "events": 6, "dropped": 1, "last_time": 5 * ms}
    assert sim.injections == [("light", 1 * ms, 1.0), ("light", 3 * ms, 2.0),
                              ("light", 4 * ms, 1.0), ("light", 5 * ms, 1.0)]
    before = sim.run(3 * ms).states(neurons=[0, 1, 3])
    assert before["membrane"][0] == 0.0
    # The first event arrives at 3 ms, after the state of that time.
    assert sim.run(1 * ms).states(neurons=1)["membrane"][0] == pytest.approx(0.5 * np.exp(-0.1))


def test_prediction_errors_drive_their_neurons():
    sim = channel_sim()
    prediction = sim.prediction
    assert prediction.names == ("touch",)
    prediction.observe("touch", observed=1.0, predicted=0.75, time=3 * ms)
    assert (prediction.drive(1), prediction.drive(3)) == (0.25, 0.0)
    prediction.set_precision("touch", 10.0)
    prediction.observe("touch", 1.0, 0.75)
    assert (prediction.precision("touch"), prediction.drive(0)) == (10.0, 0.5)  # clamped
    assert prediction.observations["weighted_error"].tolist() == [0.5, 1.0]
    prediction.set_predictor("touch", kelm.Predictor([1, 2], [0.5, 0.5]))
    with pytest.raises(errors.InvalidPrediction, match="source population"):
        prediction.set_predictor("touch", kelm.Predictor([], []))


def test_perturbations_and_posts_act_on_the_membrane():
    sim = channel_sim()
    sim.perturb(0, [0, 0], 1.0, cause=4)
    sim.perturb(0, sim.network.all[1:2], 1.0, inhibition=True)
    sim.post([0, 0], [2, 2], [0.5, -0.125])
    assert sim.earliest_input == 0
    sim.run(1 * ms)
    decay = np.exp(-0.1)
    assert sim.states()["membrane"] == pytest.approx([2 * decay, -decay, 0.375 * decay, 0])
    sim.interventions.note(3)
    assert sim.interventions.log == [3]
    assert not sim.interventions.is_off("plasticity") and sim.interventions.gain("plasticity") == 1


def test_a_tape_of_a_stream_replays_and_notices_another_run():
    sim = learning_sim()
    start = sim.checkpoint()
    sim.streams.record("spontaneous", 1)
    sim.run(100 * ms)
    tape = sim.streams.tape("spontaneous", 1)
    state = sim.streams.state("spontaneous", 1)
    assert tape.dtype == np.uint64 and len(tape) > 3

    def replayed(values):
        again = learning_sim().restore(start)
        again.streams.replay("spontaneous", 1, values)
        return again.run(100 * ms)

    assert replayed(tape).streams.state("spontaneous", 1) == state
    with pytest.raises(errors.ReplayExhausted, match="replay exhausted: spontaneous"):
        replayed(tape[:-1])
    with pytest.raises(errors.EngineError):
        replayed(tape ^ np.uint64(1))
    sim.streams.stop("spontaneous", 1)
    assert len(sim.streams.tape("spontaneous", 1)) == 0
