"""Sweeps: order, errors, threads."""

import threading

import pytest
from conftest import make_balanced

import kelm
from kelm.units import ms, s


def test_digests_do_not_depend_on_the_number_of_threads(net):
    def digest(seed):
        return kelm.Simulation(net, seed=seed).run(100 * ms).digest

    alone = [digest(seed) for seed in range(6)]
    assert len(set(alone)) == 6
    reports = []
    for threads in (1, 2):
        swept = kelm.sweep(digest, range(6), threads=threads,
                           progress=lambda done, of: reports.append((done, of)))
        assert swept == alone
    assert reports == [(k, 6) for k in range(1, 7)] * 2


def test_the_first_error_is_raised_and_ends_the_runs_that_are_on():
    """The second item would run for years."""
    net = make_balanced(50)
    started = threading.Event()
    sims = []

    def work(item):
        if item == "fails":
            assert started.wait(60)
            raise KeyError(item)
        sims.append(kelm.Simulation(net, seed=1))
        started.set()
        return sims[-1].run(10**9 * s)

    with pytest.raises(KeyError, match="fails"):
        kelm.sweep(work, ["fails", "long", "left out"], threads=2)
    assert len(sims) == 1
    # The run that was ended goes on to the bits of an undisturbed one.
    end = sims[0].earliest_input + 20 * ms
    assert sims[0].run_until(end).digest == kelm.Simulation(net, seed=1).run_until(end).digest
