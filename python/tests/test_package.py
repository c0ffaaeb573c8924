"""The package as a whole: stubs, docstrings, defaults, and the table of the library's classes."""

import dataclasses
import inspect
import os
import re
import subprocess
import sys
from pathlib import Path

import pytest

import kelm
from kelm import _kelm, errors

SOURCE = Path(os.environ["KELM_SOURCE_DIR"])


def test_the_stubs_fit_the_module(tmp_path):
    pytest.importorskip("mypy")
    root = Path(kelm.__file__).parent.parent
    environment = {**os.environ, "PYTHONPATH": str(root), "MYPYPATH": str(root)}
    run = subprocess.run(
        [sys.executable, "-m", "mypy.stubtest", "kelm._kelm", "--concise"],
        cwd=tmp_path, env=environment, capture_output=True, text=True,
    )
    # The classes of pybind11 have a metaclass that stubs cannot name.
    found = [line for line in run.stdout.splitlines() if not line.endswith("metaclass differs")]
    assert (found, run.stderr) == ([], "")
    # Some of the libraries that the package uses have no types.
    run = subprocess.run(
        [sys.executable, "-m", "mypy", "-p", "kelm", "--ignore-missing-imports"],
        cwd=tmp_path, env=environment, capture_output=True, text=True,
    )
    assert run.returncode == 0, run.stdout


def public_classes():
    parts = vars(kelm._parts).values()
    found = [value for value in vars(kelm).values() if inspect.isclass(value)]
    return found + [v for v in parts if inspect.isclass(v) and v.__module__ == "kelm._parts"]


def test_everything_public_has_a_docstring():
    missing = []
    for name in kelm.__all__:
        if not inspect.getdoc(getattr(kelm, name)):
            missing.append(name)
    for cls in public_classes():
        for name, member in vars(cls).items():
            if not name.startswith("_") and (inspect.isfunction(member) or
                                             isinstance(member, property)):
                if not inspect.getdoc(member):
                    missing.append(f"{cls.__name__}.{name}")
    assert missing == []


@pytest.mark.parametrize("cls", [kelm.Neuron, kelm.Firing, kelm.PlasticityRule])
def test_defaults_are_those_of_the_library(cls):
    native = getattr(_kelm, cls.__name__)()
    for field in dataclasses.fields(cls):
        default = getattr(native, field.name)
        assert field.default == (default.name if field.name == "kind" else default), field.name


def test_every_failure_of_the_library_has_its_class():
    header = (SOURCE / "kelm/core/Failures.h").read_text()
    builtin = {"invalid_argument": ValueError, "out_of_range": IndexError,
               "logic_error": RuntimeError, "runtime_error": RuntimeError}
    found = re.findall(r"^class (\w+) : public std::(\w+)", header, re.M)
    assert len(found) > 20
    for name, base in found:
        cls = getattr(errors, name)
        expected = OverflowError if name == "TimeOverflow" else builtin[base]
        assert issubclass(cls, kelm.Error) and issubclass(cls, expected), name


def public_headers():
    """kelm.h and all headers that it includes."""
    found, left = set(), ["kelm/kelm.h"]
    while left:
        header = left.pop()
        if header not in found:
            found.add(header)
            left += re.findall(r'^#include "(.+)"', (SOURCE / header).read_text(), re.M)
    return found


def test_the_table_names_every_class_of_the_library():
    """docs/python.md has a row for each class of the network's and the runtime's public headers.
    The Python names in it exist."""
    table = (SOURCE / "docs/python.md").read_text()
    rows = dict(re.findall(r"^\| `(\w+)` \| (.+?) \|$", table, re.M))
    classes = set()
    for header in public_headers():
        if header.startswith(("kelm/runtime/", "kelm/network/", "kelm/backends/")):
            text = (SOURCE / header).read_text()
            classes |= set(re.findall(r"^(?:class|struct|enum class) (\w+)[^;]*?\{", text, re.M))
    assert len(classes) > 50 and classes - rows.keys() == set()
    for name, python in rows.items():
        for path in re.findall(r"`kelm\.([\w.]+)`", python):
            value = kelm
            for part in path.split("."):
                assert hasattr(value, part) or part in value.__annotations__, f"{name}: kelm.{path}"
                value = getattr(value, part, None)
        assert "`kelm." in python or python.startswith("none: "), name


def test_reprs_name_what_they_show(net):
    assert repr(net) == "<kelm.Network of 200 neurons: E (160), I (40); not built>"
    assert "<td>E</td>" in net._repr_html_()
    sim = kelm.Simulation(net, seed=1)
    assert re.match(r"<kelm.Simulation of 200 neurons, seed 1, at 0 s: 0 spikes, digest \w{16}>$",
                    repr(sim))
    assert str(sim.digest) in sim._repr_html_()
    assert repr(net["E"][2:5]) == "<Neurons 'E[2:5]': neurons 2 to 4>"
    assert f"{sim.digest}" == f"{int(sim.digest):016x}"
