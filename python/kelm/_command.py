"""The command ``kelm``: runs, scans and inspects SONATA configurations and their files.

Exit codes: 0; 1 if a command fails or ``diff`` finds a difference; 2 for a wrong call; 130 for a
run that Ctrl-C has ended.
"""

from __future__ import annotations

import argparse
import contextlib
import csv
import fcntl
import inspect
import itertools
import json
import os
import shlex
import signal
import sys
import time
from decimal import Decimal
from typing import Any, Iterator, Optional, Sequence

import numpy as np

from . import __version__, _checks, _kelm, sonata
from ._files import SpikeWriter, write_atomically
from ._network import Network
from ._progress import Progress
from ._simulation import Simulation
from ._spikes import Spikes, time_text
from ._sweep import sweep
from ._wiring import fixed_indegree, uniform
from .errors import Error, FileError
from .units import ms, ns, s, us

_ARGUMENTS = list(inspect.signature(Simulation).parameters)[1:]  # without the network
_UNITS = {"ns": ns, "us": us, "ms": ms, "s": s}
_INTERRUPTED = 130


class UsageError(Exception):
    """A wrong call. The text says what is wrong."""


def main(arguments: Optional[Sequence[str]] = None) -> int:
    """Runs the command with these arguments, or those of the process. Returns the exit code."""
    name = "kelm"
    try:
        options = _parser().parse_args(arguments)
        name = f"kelm {options.name}"
        code = options.command(options)
        if sys.stdout is not None:
            sys.stdout.flush()
        return code
    except UsageError as failure:
        print(f"{name}: {failure}", file=sys.stderr)
        return 2
    except BrokenPipeError:  # the reader of the output has ended, such as `head`
        os.dup2(os.open(os.devnull, os.O_WRONLY), 1)
        return 1
    except (Error, OSError, ValueError) as failure:
        print(f"{name}: {failure}", file=sys.stderr)
        return 1
    except MemoryError:
        print(f"{name}: there is not enough memory", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        return _INTERRUPTED


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(
        prog="kelm", description="Networks of stochastic spiking neurons, to the same bits "
        "everywhere.")
    parser.add_argument("--version", action="version", version=f"kelm {__version__}")
    commands = parser.add_subparsers(required=True, metavar="COMMAND")

    def add(name: str, function: Any, help: str) -> argparse.ArgumentParser:
        command = commands.add_parser(name, help=help, description=help)
        command.set_defaults(command=function, name=name)
        return command

    def add_model(command: argparse.ArgumentParser, values: str) -> None:
        command.add_argument("config", help="configuration of a SONATA simulation or circuit")
        command.add_argument("-o", "--output", metavar="DIR",
                             help="folder of the results (default: that of the configuration)")
        command.add_argument("--until", type=_time, metavar="TIME",
                             help="end of the run, such as 2s (default: run.tstop)")
        command.add_argument("--backend", help="auto, cpu, lanes, threads or cuda")
        command.add_argument("--set", action="append", default=[], metavar=values,
                             help="a parameter of all neurons (firing.gain), of one population "
                             "(E.firing.gain), or an argument of kelm.Simulation "
                             "(simulation.label)")
        command.add_argument("-q", "--quiet", action="store_true", help="no progress")

    run = add("run", _run, "Runs a model, and goes on with a run.")
    add_model(run, "KEY=VALUE")
    run.add_argument("--seed", type=_whole)
    run.add_argument("--threads", type=_whole)
    run.add_argument("--checkpoint-every", type=_time, default=10 * s, metavar="TIME",
                     help="wall time between checkpoints (default: 10s)")
    run.add_argument("--resume", nargs="?", const="", metavar="FILE",
                     help="go on from a checkpoint (default: run.kelm of the output)")
    run.add_argument("--dry-run", action="store_true",
                     help="build the model and tell its size and suspicious values only")

    scan = add("scan", _scan, "Runs a model for several seeds and values.")
    add_model(scan, "KEY=A,B,C")
    scan.add_argument("--seeds", type=_seeds, required=True, help="such as 1..20 or 1,5,7")
    scan.add_argument("-j", "--jobs", type=_whole, default=1, help="runs side by side")

    plot = add("plot", _plot, "Draws the spikes of a file.")
    plot.add_argument("spikes")
    plot.add_argument("-o", "--output", default="raster.png", metavar="FILE",
                      help="a file .png, .svg, .pdf or .html")
    plot.add_argument("--bin", type=_time, metavar="TIME", help="of the rates")
    plot.add_argument("--range", type=_range, metavar="TIME..TIME")

    info = add("info", _info, "Tells what a file of spikes, a checkpoint or a configuration holds.")
    info.add_argument("file")
    diff = add("diff", _diff, "Tells the first difference of two files of spikes or checkpoints.")
    diff.add_argument("a")
    diff.add_argument("b")
    new = add("new", _new, "Writes a small model that runs.")
    new.add_argument("folder")
    return parser


# --- Texts --------------------------------------------------------------------------------------


def _time(text: str) -> int:
    """A time with its unit, such as 2s or 1.5ms, in ns."""
    number = text.rstrip("nums")
    unit = text[len(number):]
    try:
        time_ns = Decimal(number) * _UNITS[unit]  # a float would round 1.001 ms
        if 0 <= time_ns < 2**63 and time_ns == int(time_ns):
            return int(time_ns)
    except (KeyError, ArithmeticError):
        pass
    raise argparse.ArgumentTypeError(f"{text!r} is no time of whole ns with a unit, such as 2s")


def _whole(text: str) -> int:
    if not text.isdecimal():
        raise argparse.ArgumentTypeError(f"{text!r} is no whole number")
    return int(text)


def _seeds(text: str) -> list[int]:
    seeds: list[int] = []
    for part in text.split(","):
        first, dots, last = part.partition("..")
        low = _whole(first)
        high = _whole(last) if dots else low
        if high < low or high - low >= 1_000_000:
            raise argparse.ArgumentTypeError(f"{part!r} must ascend, by fewer than 1000000")
        seeds.extend(range(low, high + 1))
    return seeds


def _range(text: str) -> tuple[int, int]:
    first, dots, last = text.partition("..")
    if not dots:
        raise argparse.ArgumentTypeError(f"{text!r} is no range, such as 0s..2s")
    return _time(first), _time(last)


def _value(text: str) -> Any:
    """A number, a flag, or a text; a text with a unit of time is ns."""
    with contextlib.suppress(ValueError):
        return json.loads(text)
    with contextlib.suppress(argparse.ArgumentTypeError):
        return _time(text)
    return text


def _setting(text: str) -> tuple[str, str]:
    key, equals, value = text.partition("=")
    if not equals or "." not in key:
        raise UsageError(f"--set {text} must be KEY=VALUE, such as firing.gain=2.5")
    return key, value


# --- Models -------------------------------------------------------------------------------------


def _apply(net: Network, simulation: dict[str, Any], key: str, value: Any) -> None:
    """Sets one value of a model."""
    *owner, kind, name = key.split(".")
    if kind == "simulation" and not owner:
        simulation[_checks.choice(name, "an argument of the simulation", _ARGUMENTS)] = value
        return
    if kind not in ("neuron", "firing"):
        raise UsageError(f"--set {key}: a key is [POPULATION.]neuron.NAME, "
                         "[POPULATION.]firing.NAME or simulation.NAME")
    names = [".".join(owner)] if owner else [
        population.name for population in net.populations if population.kind == "neurons"]
    for population in names:
        net.set_parameters(population, **{kind: {name: value}})


def _arguments(config: sonata.Config, options: Any) -> dict[str, Any]:
    """The arguments of the simulation, without those of --set."""
    arguments = {_checks.choice(name, "an argument of the simulation", _ARGUMENTS): value
                 for name, value in config.simulation.items()}
    for name in ("seed", "backend", "threads"):
        if getattr(options, name, None) is not None:
            arguments[name] = getattr(options, name)
    return arguments


def _until(config: sonata.Config, options: Any) -> int:
    until = config.until if options.until is None else options.until
    if until is None:
        raise UsageError(f"'{options.config}' has no run.tstop; pass --until")
    return until


# --- kelm run -----------------------------------------------------------------------------------


class _Line:
    """Tells how far a run is: one line that changes on a terminal, a line every ten seconds
    elsewhere."""

    def __init__(self, quiet: bool) -> None:
        self._quiet = quiet or sys.stderr is None
        self._live = not self._quiet and sys.stderr.isatty()
        self._next = 0.0
        self._began = time.monotonic()
        self._first: Optional[int] = None

    def __call__(self, progress: Progress) -> None:
        now = time.monotonic()
        if self._first is None:
            self._first = progress.start
        if self._quiet or (now < self._next and progress.position < progress.end):
            return
        self._next = now + (0.1 if self._live else 10.0)
        done = progress.position - self._first
        wall = max(now - self._began, 1e-9)
        speed = done / s / wall
        left = f", {(progress.end - progress.position) / s / speed:.0f} s left" if done else ""
        text = (f"{progress.position / s:.3f} of {progress.end / s:g} s, {speed:.3g} times real "
                f"time, {progress.spikes} spikes{left}")
        print(f"\r{text:<78}" if self._live else text, end="" if self._live else "\n",
              file=sys.stderr, flush=True)

    def close(self) -> None:
        if self._live and self._first is not None:
            print(file=sys.stderr)


class _Results:
    """The files of a run in its folder: spikes and reports that grow, checkpoint, run.json."""

    def __init__(self, folder: str, config: sonata.Config, simulation: Simulation,
                 description: dict[str, Any], resumed: bool) -> None:
        os.makedirs(folder, exist_ok=True)
        # Two runs would mix their files. The end of the process unlocks the folder.
        self._lock = os.open(folder, os.O_RDONLY)
        try:
            fcntl.flock(self._lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            raise BlockingIOError(f"another run writes to '{folder}'") from None
        self._simulation = simulation
        self._description = description
        self.checkpoint = os.path.join(folder, "run.kelm")
        self._json = os.path.join(folder, "run.json")
        provenance = {"kelm_version": __version__, "fingerprint": simulation.fingerprint,
                      "seed": simulation.seed}
        spikes = os.path.join(folder, os.path.basename(config.spikes_file or "spikes.h5"))
        begin = simulation.earliest_input
        if resumed:
            self._spikes = SpikeWriter.resume(spikes, begin, provenance=provenance)
        else:
            self._spikes = SpikeWriter(spikes, populations=simulation.network.populations,
                                       provenance=provenance)
        self._reports = []
        for report in config.reports:
            chosen = np.concatenate(list(report.neurons.values()))
            probe = simulation.probe(chosen, report.variable, interval=report.interval)
            path = os.path.join(folder, os.path.basename(report.path))
            writer = sonata.ReportWriter(path, report, config.nodes, begin, resumed, provenance)
            self._reports.append((report.variable, probe, writer))

    def write(self) -> None:
        """Writes what is new, then the checkpoint, so that no file lacks what it counts on."""
        simulation = self._simulation
        self._spikes.append(simulation.take_spikes())
        self._spikes.flush(simulation.earliest_input)
        for variable, probe, writer in self._reports:
            samples = probe.take()
            writer.append(samples["times"], samples[variable])
        simulation.save(self.checkpoint)
        self._describe()

    def _describe(self) -> None:
        simulation = self._simulation
        text = json.dumps({
            **self._description,
            "kelm_version": __version__,
            "fingerprint": str(simulation.fingerprint),
            "seed": simulation.seed,
            "position_ns": simulation.position,
            "spikes": simulation.spike_count,
            "digest": str(simulation.digest),
        }, indent=2)
        write_atomically(self._json, f"{text}\n".encode())

    def close(self) -> None:
        digest = self._simulation.digest
        self._spikes.close(self._simulation.earliest_input, digest)
        for _, _, writer in self._reports:
            writer.close(digest)
        os.close(self._lock)


def _run(options: Any) -> int:
    config = sonata.read(options.config)
    settings = [_setting(text) for text in options.set]
    arguments = _arguments(config, options)
    for key, text in settings:
        _apply(config.network, arguments, key, _value(text))
    if options.dry_run:
        return _dry_run(config, arguments, options)
    until = _until(config, options)
    folder = options.output or config.output_dir
    if options.resume is None:
        simulation = Simulation(config.network, **arguments)
    else:
        file = options.resume or os.path.join(folder, "run.kelm")
        simulation = Simulation.load(config.network, file, **arguments)
    description = {"config": os.path.abspath(options.config), "settings": dict(settings),
                   "arguments": arguments, "until_ns": until}
    results = _Results(folder, config, simulation, description, options.resume is not None)
    try:
        with _ended_by_signal(simulation) as signals:
            _run_to(simulation, results, until, options, signals)
            results.close()
    except OSError as failure:
        print(f"kelm run: {failure}", file=sys.stderr, flush=True)
        os._exit(1)  # HDF5 may crash when it closes a file that it could not write
    if simulation.position < until:
        print(f"stopped at {time_text(simulation.position)}; go on with:\n"
              f"kelm {_resume_line(options)}", file=sys.stderr)
        return _INTERRUPTED
    print(f"{simulation.spike_count} spikes, digest {simulation.digest}")
    return 0


@contextlib.contextmanager
def _ended_by_signal(simulation: Simulation) -> Iterator[list[int]]:
    """Ctrl-C ends the run after a window, and no file is left half written. A second one kills the
    process. Gives the list of the signals so far."""
    signals: list[int] = []

    def end(number: int, frame: Any) -> None:
        signals.append(number)
        signal.signal(signal.SIGINT, signal.SIG_DFL)
        simulation.request_stop()

    previous = signal.signal(signal.SIGINT, end)
    try:
        yield signals
    finally:
        signal.signal(signal.SIGINT, previous)


def _run_to(simulation: Simulation, results: _Results, until: int, options: Any,
            signals: list[int]) -> None:
    line = _Line(options.quiet)
    try:
        while True:
            due = time.monotonic() + options.checkpoint_every / s

            def report(progress: Progress) -> None:
                line(progress)
                if time.monotonic() >= due:
                    simulation.request_stop()

            if simulation.position < until:
                simulation.run_until(until, report)
            results.write()
            if signals or simulation.position >= until:
                return
    finally:
        line.close()


def _resume_line(options: Any) -> str:
    words = ["run", options.config]
    for name in ("output", "until", "seed", "threads", "backend"):
        value = getattr(options, name)
        if value is not None:
            words += [f"--{name}", f"{value}ns" if name == "until" else str(value)]
    for text in options.set:
        words += ["--set", text]
    return shlex.join([*words, "--resume"])


def _dry_run(config: sonata.Config, arguments: dict[str, Any], options: Any) -> int:
    import resource

    net = config.network
    simulation = Simulation(net, **arguments)
    until = config.until if options.until is None else options.until
    print(f"neurons      {net.size}")
    for population in net.populations:
        print(f"  {population.name:<10} {population.size} ({population.kind})")
    print(f"synapses     {net.synapse_count}")
    print(f"window       {time_text(net.window)}")
    if until is not None:
        print(f"windows      {-(-until // net.window)} at most, to {time_text(until)}")
    peak = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
    print(f"memory       {peak / 1024:.0f} MiB, the peak so far")
    print(f"fingerprint  {simulation.fingerprint}")
    for warning in simulation.warnings:
        print(f"suspicious   {warning.text}")
    return 0


# --- kelm scan ----------------------------------------------------------------------------------


def _scan(options: Any) -> int:
    choices = []
    for text in options.set:
        key, values = _setting(text)
        choices.append([(key, value) for value in values.split(",")])
    cases = [(seed, settings) for settings in itertools.product(*choices)
             for seed in options.seeds]
    config = sonata.read(options.config)
    until = _until(config, options)
    folder = options.output or config.output_dir
    os.makedirs(folder, exist_ok=True)

    def run(case: tuple[int, tuple[tuple[str, str], ...]]) -> tuple[Any, ...]:
        seed, settings = case
        net = config.network.copy()
        arguments = _arguments(config, options)
        arguments["seed"] = seed
        for key, text in settings:
            _apply(net, arguments, key, _value(text))
        simulation = Simulation(net, **arguments).run_until(until)
        name = "_".join([f"seed-{seed}", *(f"{key}-{text}" for key, text in settings)])
        name = name.replace("/", "_")
        simulation.spikes.save(os.path.join(folder, f"{name}.h5"))
        return (f"{name}.h5", seed, *(text for _, text in settings), simulation.spike_count,
                simulation.digest)

    rows = sweep(run, cases, threads=max(options.jobs, 1), progress=not options.quiet)
    head = ["file", "seed", *(pairs[0][0] for pairs in choices), "spikes", "digest"]
    path = os.path.join(folder, "scan.csv")
    with open(path, "w", newline="", encoding="utf-8") as file:
        csv.writer(file, lineterminator="\n").writerows([head, *rows])
    print(f"{len(rows)} runs in '{path}'")
    return 0


# --- The other commands -------------------------------------------------------------------------


def _plot(options: Any) -> int:
    from . import plot

    spikes = Spikes.load(options.spikes)
    if options.range is not None:
        spikes = spikes.between(*options.range)
    if options.output.lower().endswith(".html"):
        plot.page(spikes, None, options.output, bin=options.bin)
    else:
        plot.raster(spikes, bin=options.bin).savefig(options.output)
    return 0


def _is_checkpoint(path: str) -> bool:
    return path.endswith(".kelm")


def _checkpoint(path: str) -> tuple[bytes, dict[str, Any]]:
    """The bytes of a checkpoint, and what it holds."""
    with open(path, "rb") as file:
        content = file.read()
    about = dict(_kelm.examine_checkpoint(content))
    fault = about.pop("fault")
    if fault:
        raise FileError(f"'{path}': {fault}")
    return content, about


def _info(options: Any) -> int:
    path = options.file
    if path.endswith(".json"):
        config = sonata.read(path)
        print(config.network)
        rows: dict[str, Any] = {"until": config.until and time_text(config.until)}
    elif _is_checkpoint(path):
        rows = _checkpoint(path)[1]
    else:
        spikes = Spikes.load(path)
        rows = {"spikes": len(spikes), "from": time_text(spikes.start), "to": time_text(spikes.end),
                **{f"population {p.name}": f"{p.size} neurons from {p.first} on"
                   for p in spikes.populations}, **spikes.provenance}
    for name, value in rows.items():
        if name in ("fingerprint", "digest") and isinstance(value, int):
            value = f"{value:016x}"
        print(f"{name:<20} {value}")
    return 0


def _diff(options: Any) -> int:
    if _is_checkpoint(options.a) != _is_checkpoint(options.b):
        raise UsageError("one file is a checkpoint (.kelm), the other is not")
    if _is_checkpoint(options.a):
        text = _kelm.first_difference(_checkpoint(options.a)[0], _checkpoint(options.b)[0])
    else:
        text = _spike_difference(Spikes.load(options.a), Spikes.load(options.b))
    if not text:
        print("no difference")
        return 0
    print(text)
    return 1


def _spike_difference(a: Spikes, b: Spikes) -> str:
    common = min(len(a), len(b))
    differ = np.flatnonzero(a.array[:common] != b.array[:common])
    if not len(differ) and len(a) == len(b):
        return ""
    first = int(differ[0]) if len(differ) else common

    def told(spikes: Spikes) -> str:
        if first >= len(spikes):
            return "no spike"
        return f"{spikes.time[first]} ns, neuron {spikes.neuron[first]}"

    return f"spike {first} differs: {told(a)}; {told(b)}"


def _new(options: Any) -> int:
    if os.path.exists(options.folder) and os.listdir(options.folder):
        raise UsageError(f"'{options.folder}' is not empty")
    net = Network(seed=7, window=1 * ms, neuron={"adaptation_increment": 0.0},
                  firing={"base_rate": 6.0, "gain": 3.0, "max_rate": 400.0})
    excitatory, inhibitory = net.population("E", 400), net.population("I", 100)
    delay = uniform(1 * ms, 3 * ms)
    net.connect(excitatory, net.all, fixed_indegree(80), weight=0.1, delay=delay)
    net.connect(inhibitory, net.all, fixed_indegree(20), weight=-0.45, delay=delay)
    path = sonata.to_sonata(net, options.folder, until=2 * s, simulation={"seed": 1})
    print("kelm run", shlex.quote(os.path.relpath(path)))
    return 0
