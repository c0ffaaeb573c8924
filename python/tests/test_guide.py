"""The guide: its blocks of code run and print what its pages say, and its tutorials show facts."""

import contextlib
import io
import re
import runpy
import shlex
import subprocess
import sys
import textwrap
from pathlib import Path

import numpy as np
import pytest

import kelm

GUIDE = Path(__file__).parents[2] / "docs" / "guide"
PAGES = sorted(page.stem for page in GUIDE.glob("*.rst"))
BLOCK = re.compile(r"^\.\. code-block:: *(\w+)\n\n((?:   .*\n|\n)+)", re.MULTILINE)


def _blocks(page):
    """The language, code and first line of each block of a page."""
    text = (GUIDE / f"{page}.rst").read_text(encoding="utf-8") + "\n"
    blocks = []
    for match in BLOCK.finditer(text):
        line = text.count("\n", 0, match.start(2)) + 1
        blocks.append((match[1], textwrap.dedent(match[2]).strip() + "\n", line))
    assert len(blocks) == text.count("code-block::")
    return blocks


def _require(expected, printed, where):
    """`…` in the page is any text."""
    pattern = ".*".join(map(re.escape, expected.strip().split("…")))
    assert re.fullmatch(pattern, printed.strip(), re.DOTALL), f"{where} prints:\n{printed}"


def _run_commands(text, where):
    for command in re.split(r"^\$ ", text, flags=re.MULTILINE)[1:]:
        line, _, expected = command.partition("\n")
        program, *arguments = shlex.split(line)
        assert program == "kelm"
        process = subprocess.run(
            [sys.executable, "-m", "kelm", *arguments], capture_output=True, text=True
        )
        assert process.returncode == 0, f"{where}, $ {line}: {process.stderr}"
        _require(expected, process.stdout, f"{where}, $ {line}")


@pytest.mark.parametrize("page", PAGES)
def test_the_blocks_of_a_page_run_and_print_what_it_says(page, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    names = {}
    printed = ""
    for language, code, line in _blocks(page):
        where = f"{page}.rst:{line}"
        if language == "python":
            assert not printed.strip(), f"the page does not show what it prints before {where}"
            output = io.StringIO()
            with contextlib.redirect_stdout(output):
                exec(compile("\n" * (line - 1) + code, str(GUIDE / f"{page}.rst"), "exec"), names)
            printed = output.getvalue()
        elif language == "text":
            _require(code, printed, where)
            printed = ""
        elif language == "console":
            _run_commands(code, where)
        else:
            assert (page, language) == ("cpp", "sh")  # builds the reference, not run here
    assert not printed.strip(), f"{page} does not show:\n{printed}"


def _tutorial(name, monkeypatch):
    plt = pytest.importorskip("matplotlib.pyplot")
    monkeypatch.setattr(plt, "show", lambda: None)
    names = runpy.run_path(str(GUIDE / "tutorials" / f"{name}.py"))
    plt.close("all")
    return names


def test_the_tutorials_show_what_they_say(monkeypatch):
    intervals = _tutorial("balanced", monkeypatch)["spikes"].intervals("E")
    assert 0.8 < intervals.std() / intervals.mean() < 1.2  # irregular

    rates = _tutorial("rate_response", monkeypatch)
    deviation = np.abs(rates["measured"] - rates["predicted"]) / rates["error"]
    assert np.all(deviation < 4)  # standard errors

    rhythm = _tutorial("rhythm", monkeypatch)
    for population, direction in (("crest", 1), ("trough", -1)):
        phase = rhythm["sim"].spikes.of(population).time % 125_000_000 * (2 * np.pi / 125e6)
        # The mean sine of a phase with the density of the tutorial is I1(1.5) / I0(1.5).
        assert direction * np.sin(phase).mean() == pytest.approx(0.596, abs=0.03)

    weights = _tutorial("learning", monkeypatch)["weights"][-1]
    assert weights[:4].min() > 0.4 and weights[4:].max() < 0.2


def test_the_python_reference_has_every_public_name():
    reference = (GUIDE / "python.rst").read_text(encoding="utf-8")
    modules = {name for name in kelm.__all__ if isinstance(getattr(kelm, name), type(kelm))}
    missing = {name for name in kelm.__all__ if f" kelm.{name}\n" not in reference}
    documented = {name for name, value in vars(kelm.errors).items() if isinstance(value, type)}
    assert missing - modules <= documented
    assert all(f".. automodule:: kelm.{module}\n" in reference for module in modules)
