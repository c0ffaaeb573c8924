"""Runs: the GIL, progress, calls at the wrong time, and what is left after an error."""

import subprocess
import sys
import threading
import time

import numpy as np
import pytest
from conftest import make_balanced

import kelm
from kelm.errors import RefusedCall
from kelm.units import ms, s

YEARS = 10**9 * s


def test_a_program_may_end_while_a_daemon_thread_runs(tmp_path):
    program = f"""
import sys, threading, time
sys.path.insert(0, {str(__file__.rpartition("/")[0])!r})
from conftest import make_balanced, kelm
sim = kelm.Simulation(make_balanced(), seed=1)
threading.Thread(target=sim.run, args=({YEARS},), daemon=True).start()
while "running" not in repr(sim):
    time.sleep(0.001)
"""
    run = subprocess.run([sys.executable, "-c", program], capture_output=True, text=True)
    assert (run.returncode, run.stderr) == (0, "")


def test_other_threads_run_python_and_are_refused_meanwhile(net):
    sim = kelm.Simulation(net, seed=1)
    thread = threading.Thread(target=sim.run, args=(YEARS,))
    thread.start()
    while "running" not in repr(sim):
        time.sleep(0.001)
    calls = [
        lambda: sim.run(1 * ms), lambda: sim.position, lambda: sim.spikes, sim.checkpoint,
        sim.fork, lambda: sim.weights(), lambda: sim.perturb(0, [1], 1.0), lambda: sim.learning,
    ]
    for call in calls:
        with pytest.raises(kelm.BusyError, match="the simulation is running"):
            call()
    sim.request_stop()
    thread.join()
    assert sim.stopped
    end = sim.earliest_input + 20 * ms
    assert sim.run_until(end).digest == kelm.Simulation(net, seed=1).run_until(end).digest


def test_progress_reports_and_may_end_a_run_but_not_call_it(net, capsys):
    sim = kelm.Simulation(net, seed=1)
    reports = []

    def watch(report):
        reports.append(report)
        with pytest.raises(kelm.BusyError):
            sim.run(1 * ms)
        if len(reports) == 3:
            raise LookupError("enough")

    with pytest.raises(LookupError, match="enough"):
        sim.run(YEARS, watch)
    assert [report.position for report in reports] == sorted({r.position for r in reports})
    assert 0 < reports[-1].fraction < 1 and reports[-1].spikes > 0
    assert sim.position == reports[-1].position and not sim.failed
    end = sim.position + 100 * ms
    last = []
    sim.run(100 * ms, last.append)
    assert last[-1].fraction == 1.0 and last[-1].position == end
    assert sim.digest == kelm.Simulation(net, seed=1).run_until(end, progress=True).digest
    assert "100%" in capsys.readouterr().err


def test_after_an_error_out_of_a_run_only_reading_is_left():
    net = kelm.Network(window=100 * ms, firing={"base_rate": 5000.0, "gain": 0.0},
                       neuron={"refractory_period": 0})
    net.population("fast", 2)
    sim = kelm.Simulation(net)
    with pytest.raises(kelm.errors.WindowEngineError, match=r"more spikes in one window.*load"):
        sim.run(1 * s)
    assert sim.failed and len(sim.spikes) == 0
    for call in (lambda: sim.run(1 * s), sim.checkpoint, sim.fork, lambda: sim.reseed(1)):
        with pytest.raises(RefusedCall, match=r"may only be read.*new simulation.*load\(net, path"):
            call()


def test_callbacks_of_a_run(net):
    sim = kelm.Simulation(net, seed=1)
    windows = []
    sim.on_commit(lambda start, end, spikes: windows.append((start, end, spikes)))
    sim.run(50 * ms)
    sim.on_commit(None)
    assert windows[0][0] == 0 and windows[-1][1] == 50 * ms
    spikes = np.concatenate([found for _, _, found in windows])
    assert np.array_equal(np.sort(spikes, order=["time", "neuron"]), sim.spikes.array)
    sim.on_commit(lambda start, end, spikes: 1 / 0)
    with pytest.raises(ZeroDivisionError):
        sim.run(10 * ms)
    assert sim.failed


def test_arrays_outlive_their_simulation():
    sim = kelm.Simulation(make_balanced(), seed=2)
    probe = sim.probe([0, 1], interval=1 * ms)
    sim.run(100 * ms)
    taken, states = sim.take_spikes(), sim.states()
    copies = taken.array.copy(), states.copy(), probe["membrane"]
    samples = probe.take()
    assert len(probe.times) == 0 and samples["membrane"].shape == (100, 2)
    del sim, probe
    make_balanced().build()  # reuses freed memory
    assert np.array_equal(taken.array, copies[0]) and len(taken.array) > 0
    assert np.array_equal(states, copies[1])
    assert np.array_equal(samples["membrane"], copies[2])
