"""The command, in processes of its own."""

import csv
import fcntl
import json
import os
import resource
import signal
import subprocess
import sys
import time

import h5py
import numpy as np
import pytest

import kelm
from kelm._command import main
from kelm.units import ms, s


def _kelm(*arguments, **options):
    return subprocess.run([sys.executable, "-m", "kelm", *map(str, arguments)], text=True,
                          capture_output=True, **options)


def _ok(*arguments):
    process = _kelm(*arguments)
    assert process.returncode == 0, process.stderr
    return process.stdout


@pytest.fixture(scope="module")
def model(tmp_path_factory):
    """A new model with a report, and the result of a straight run."""
    folder = tmp_path_factory.mktemp("model")
    line = _ok("new", folder / "net")
    assert line.startswith("kelm run ")
    config = folder / "net" / "simulation_config.json"
    value = json.loads(config.read_text())
    value["reports"] = {"m": {"cells": {"population": "I", "node_id": [3, 1]},
                              "variable_name": "membrane", "dt": 0.7}}
    config.write_text(json.dumps(value))
    out = folder / "straight"
    text = _ok("run", config, "-o", out, "-q")
    network = kelm.from_sonata(config)
    simulation = kelm.Simulation(network, seed=1).run(2 * s)
    assert text == f"{simulation.spike_count} spikes, digest {simulation.digest}\n"
    return config, out, simulation


def test_the_files_of_a_run_say_what_the_library_says(model):
    config, out, simulation = model
    spikes = kelm.Spikes.load(out / "spikes.h5")
    assert spikes == simulation.spikes
    assert spikes.digest == simulation.digest
    description = json.loads((out / "run.json").read_text())
    assert description["digest"] == str(simulation.digest)
    assert description["fingerprint"] == str(simulation.fingerprint)
    probe = kelm.Simulation(kelm.from_sonata(config), seed=1)
    chosen = probe.network["I"]
    samples = probe.probe([chosen[3], chosen[1]], interval=700_000)
    probe.run(2 * s)
    with h5py.File(out / "m.h5") as file:
        np.testing.assert_array_equal(file["report/I/data"][:], samples["membrane"])
        assert [file.attrs[name] for name in ("fingerprint", "seed", "digest")] == [
            simulation.fingerprint, 1, simulation.digest]
    info = _ok("info", out / "run.kelm")
    assert str(simulation.fingerprint) in info
    assert "2 s" in _ok("info", out / "spikes.h5")
    assert "500 neurons" in _ok("info", config)


@pytest.mark.parametrize("stop, code", [(signal.SIGINT, 130), (signal.SIGKILL, -9)])
def test_a_run_that_is_stopped_goes_on_to_the_same_files(model, tmp_path, stop, code):
    config, straight, simulation = model
    arguments = ["run", str(config), "-o", str(tmp_path), "-q", "--checkpoint-every", "10ms"]
    for _ in range(40):  # on a busy machine, a run may end before the signal
        process = subprocess.Popen([sys.executable, "-m", "kelm", *arguments],
                                   stderr=subprocess.PIPE, text=True)
        while not (tmp_path / "run.kelm").exists():
            assert process.poll() is None, process.stderr.read()
            time.sleep(0.005)
        process.send_signal(stop)
        errors = process.communicate()[1]
        if kelm.Spikes.load(tmp_path / "spikes.h5").end < 2 * s:
            break
        (tmp_path / "run.kelm").unlink()
    assert process.returncode == code, errors
    if stop == signal.SIGINT:
        line = errors.strip().splitlines()[-1]
        assert line.startswith("kelm run ") and line.endswith(" --resume")
    assert _ok(*arguments, "--resume") == (
        f"{simulation.spike_count} spikes, digest {simulation.digest}\n")
    assert kelm.Spikes.load(tmp_path / "spikes.h5") == simulation.spikes
    with h5py.File(straight / "m.h5") as a, h5py.File(tmp_path / "m.h5") as b:
        for name in ("data", "mapping/time", "mapping/node_ids"):
            np.testing.assert_array_equal(a[f"report/I/{name}"][:], b[f"report/I/{name}"][:])
    assert _ok("diff", straight / "run.kelm", tmp_path / "run.kelm") == "no difference\n"


def test_ctrl_c_while_files_are_written_loses_nothing(model, tmp_path, monkeypatch, capsys):
    config, straight, simulation = model
    append = kelm.SpikeWriter.append

    def interrupted(writer, spikes):
        if len(spikes) == 0 or spikes.end < 2 * s:  # not at the end
            os.kill(os.getpid(), signal.SIGINT)
        append(writer, spikes)

    arguments = ["run", str(config), "-o", str(tmp_path), "-q"]
    with monkeypatch.context() as patch:
        patch.setattr(kelm.SpikeWriter, "append", interrupted)
        assert main([*arguments, "--checkpoint-every", "0s"]) == 130
    assert 0 < kelm.Spikes.load(tmp_path / "spikes.h5").end < 2 * s
    lock = os.open(tmp_path, os.O_RDONLY)
    fcntl.flock(lock, fcntl.LOCK_EX)
    assert main([*arguments, "--resume"]) == 1
    assert f"another run writes to '{tmp_path}'" in capsys.readouterr().err
    os.close(lock)
    assert main([*arguments, "--resume"]) == 0
    assert kelm.Spikes.load(tmp_path / "spikes.h5") == simulation.spikes
    assert signal.getsignal(signal.SIGINT) is signal.default_int_handler


def test_a_full_disk_ends_a_run_with_a_sentence(model, tmp_path):
    def limit_files():
        resource.setrlimit(resource.RLIMIT_FSIZE, (100_000, 100_000))

    process = _kelm("run", model[0], "-o", tmp_path, "-q", preexec_fn=limit_files)
    path = tmp_path / "spikes.h5"
    assert process.stderr == f"kelm run: cannot write '{path}': File too large\n"
    assert process.returncode == 1


def test_settings_change_the_model_as_the_library_would(model, tmp_path):
    config, straight, simulation = model
    net = kelm.from_sonata(config)
    net.set_parameters("E", firing={"gain": 2.5})
    net.set_parameters("I", neuron={"tau_membrane": 8 * ms})
    expected = kelm.Simulation(net, seed=9, label="other").run_until(512_002_000)
    text = _ok("run", config, "-o", tmp_path, "-q", "--seed", 9, "--until", "512.002ms", "--set",
               "E.firing.gain=2.5", "--set", "I.neuron.tau_membrane=8.0ms", "--set",
               "simulation.label=other", "--backend", "cpu")
    assert text == f"{expected.spike_count} spikes, digest {expected.digest}\n"
    difference = _kelm("diff", straight / "spikes.h5", tmp_path / "spikes.h5")
    assert difference.returncode == 1
    assert difference.stdout.startswith("spike 0 differs: ")
    of_states = _kelm("diff", straight / "run.kelm", tmp_path / "run.kelm")
    assert of_states.returncode == 1 and of_states.stdout.strip()


def test_a_scan_runs_each_seed_with_each_value(model, tmp_path):
    config = model[0]
    _ok("scan", config, "--seeds", "1..2,5", "--set", "firing.gain=2.0,3.0", "--until", "200ms",
        "-j", 2, "-q", "-o", tmp_path)
    with open(tmp_path / "scan.csv", newline="") as file:
        rows = list(csv.DictReader(file))
    assert [(row["firing.gain"], row["seed"]) for row in rows] == [
        (gain, seed) for gain in ("2.0", "3.0") for seed in ("1", "2", "5")]
    for row in rows[::4]:
        net = kelm.from_sonata(config)
        for name in ("E", "I"):
            net.set_parameters(name, firing={"gain": float(row["firing.gain"])})
        run = kelm.Simulation(net, seed=int(row["seed"])).run(200 * ms)
        assert row["digest"] == str(run.digest)
        assert kelm.Spikes.load(tmp_path / row["file"]) == run.spikes


def test_a_dry_run_tells_sizes_and_suspicious_values(model, tmp_path, monkeypatch, capsys):
    text = _ok("run", model[0], "--dry-run", "-o", tmp_path / "none", "--set",
               "neuron.tau_membrane=10")
    assert "neurons      500" in text and "synapses     50000" in text
    assert "windows      2000 at most, to 2 s" in text and " MiB" in text
    assert "suspicious   " in text and "tau_membrane" in text
    assert not (tmp_path / "none").exists()
    monkeypatch.setattr("os.sysconf", lambda name: 1000)
    assert main(["run", str(model[0]), "--dry-run"]) == 1
    assert capsys.readouterr().err.startswith("kelm run: the network has 500 neurons and at least ")


def test_a_plot_of_a_range_is_drawn(model, tmp_path):
    for name in ("raster.png", "raster.svg", "raster.html"):
        _ok("plot", model[1] / "spikes.h5", "-o", tmp_path / name, "--bin", "5ms", "--range",
            "0s..1s")
        assert os.path.getsize(tmp_path / name) > 5000


@pytest.mark.parametrize("arguments, code, text", [
    (["run"], 2, "the following arguments are required: config"),
    (["run", "none.json"], 1, "No such file or directory: "),
    (["run", "CONFIG", "--until", "2"], 2, "'2' is no time of whole ns with a unit, such as 2s"),
    (["run", "CONFIG", "--set", "gain"], 2, "--set gain must be KEY=VALUE"),
    (["run", "CONFIG", "--set", "firing.gein=1"], 1, "did you mean 'gain'?"),
    (["run", "CONFIG", "--set", "X.firing.gain=1"], 1, "X"),
    (["run", "CONFIG", "--set", "simulation.nope=1"], 1, "is 'nope', must be one of seed, "),
    (["run", "CONFIG", "--resume", "none.kelm"], 1, "none.kelm"),
    (["run", "CONFIG", "--backend", "gpu"], 1, "gpu"),
    (["scan", "CONFIG", "--seeds", "3..1"], 2, "'3..1' must ascend"),
    (["info", "CONFIG.h5"], 1, "CONFIG.h5"),
    (["diff", "CUT", "CUT"], 1, "cut.kelm': the checkpoint is cut short at byte 100"),
    (["diff", "a.kelm", "b.h5"], 2, "one file is a checkpoint (.kelm), the other is not"),
])
def test_wrong_calls_end_with_a_sentence(model, tmp_path, arguments, code, text):
    (tmp_path / "cut.kelm").write_bytes((model[1] / "run.kelm").read_bytes()[:100])
    names = {"CONFIG": str(model[0]), "CUT": "cut.kelm"}
    process = _kelm(*(names.get(a, a) for a in arguments), cwd=tmp_path)
    assert process.returncode == code
    assert text in process.stderr
    assert "Traceback" not in process.stderr
