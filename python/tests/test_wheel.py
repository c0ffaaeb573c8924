"""The installed package and its wheel, outside the build folder."""

import os
import re
import subprocess
import sys
from pathlib import Path
from zipfile import ZipFile

import pytest
from packaging.version import Version

import kelm
from kelm.units import ms

tomllib = pytest.importorskip("tomllib")
SOURCE = Path(os.environ["KELM_SOURCE_DIR"])
INSTALLED = Path(os.environ["KELM_INSTALLED"])  # the folder that holds the installed package
(WHEEL,) = Path(os.environ["KELM_WHEEL_DIR"]).glob("*.whl")
PROJECT = tomllib.loads((SOURCE / "pyproject.toml").read_text())
FIRST_NETWORK = (SOURCE / "examples/first_network.py").read_text()
PROGRAM = FIRST_NETWORK.replace("2*s", "100*ms").replace("range(20)", "range(2)") + (
    "print(digests)\nprint(kelm.__file__)\n")


def out(*command, **environment):
    kept = {k: v for k, v in os.environ.items() if not k.startswith("PYTHON")}
    run = subprocess.run(command, capture_output=True, text=True, env={**kept, **environment})
    assert run.returncode == 0, run.stderr
    return run.stdout


@pytest.fixture
def expected(tmp_path, monkeypatch):
    """What the program prints with the package of the build folder."""
    monkeypatch.chdir(tmp_path)
    return out(sys.executable, "-c", PROGRAM, PYTHONPATH=os.environ["PYTHONPATH"]).splitlines()[:-1]


def test_the_wheel_installs_without_an_index_and_gives_the_same_bits(tmp_path, expected):
    pytest.importorskip("ensurepip")
    out(sys.executable, "-m", "venv", "--system-site-packages", "fresh")  # for NumPy
    python, command = (str(tmp_path / "fresh/bin" / name) for name in ("python", "kelm"))
    out(python, "-m", "pip", "install", "--no-index", "--disable-pip-version-check", str(WHEEL))
    *printed, file = out(python, "-c", PROGRAM).splitlines()
    assert printed == expected and Path(file).is_relative_to(tmp_path)
    out(command, "new", "model")
    config = "model/simulation_config.json"
    printed = out(command, "run", config, "-o", "out", "--until", "100ms", "-q")
    sim = kelm.Simulation(kelm.from_sonata(config), seed=1).run(100 * ms)
    assert printed == f"{sim.spike_count} spikes, digest {sim.digest}\n"


def test_the_installed_package_gives_the_same_bits_without_the_build_folder(expected):
    *printed, file = out(sys.executable, "-c", PROGRAM, PYTHONPATH=str(INSTALLED)).splitlines()
    assert printed == expected and Path(file).parent == INSTALLED / "kelm"
    (module,) = (INSTALLED / "kelm").glob("_kelm.*.so")
    dynamic = out("readelf", "-d", str(module))
    assert "libstdc++" in dynamic and not re.search("PATH|kelm", dynamic)


def test_the_wheel_is_what_pyproject_says():
    project = PROJECT["project"]
    assert Version(project["version"]) == Version(kelm.__version__)
    with ZipFile(WHEEL) as wheel:
        names = set(wheel.namelist())
        info = f"kelm-{project['version']}.dist-info"
        entry_points = wheel.read(f"{info}/entry_points.txt").decode()
        metadata = wheel.read(f"{info}/METADATA").decode()
    assert f"kelm = {project['scripts']['kelm']}" in entry_points
    assert f"Requires-Python: {project['requires-python']}" in metadata
    files = {f"kelm/{p.relative_to(SOURCE / 'python/kelm')}"
             for p in (SOURCE / "python/kelm").rglob("*") if p.is_file() and p.suffix != ".pyc"}
    compiled = {f"kelm/{p.name}" for p in (INSTALLED / "kelm").glob("_kelm.*.so")}
    assert len(compiled) == 1
    assert {n for n in names if n.startswith("kelm/")} == files | compiled
    cmake = "".join((SOURCE / folder / "CMakeLists.txt").read_text() for folder in ("", "python"))
    build = PROJECT["tool"]["scikit-build"]
    for name in [*build["cmake"]["define"], *build["build"]["targets"]]:
        assert re.search(rf"\(\s*{name}\b", cmake), name
    tag = f"cp{sys.version_info.major}{sys.version_info.minor}"
    assert WHEEL.name.startswith(f"kelm-{project['version']}-{tag}-{tag}-linux_")
