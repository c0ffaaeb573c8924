"""Models that several tests use."""

import kelm
import pytest
from kelm.units import ms


def make_balanced(neurons: int = 200) -> kelm.Network:
    """A small balanced network."""
    net = kelm.Network(
        seed=7,
        window=1 * ms,
        neuron={"tau_membrane": 10 * ms, "adaptation_increment": 0.0},
        firing={"base_rate": 6.0, "gain": 3.0, "max_rate": 400.0},
    )
    E, I = net.population("E", neurons * 4 // 5), net.population("I", neurons // 5)
    delay = kelm.uniform(1 * ms, 3 * ms)
    net.connect(E, net.all, kelm.fixed_indegree(16), weight=+0.30, delay=delay)
    net.connect(I, net.all, kelm.fixed_indegree(4), weight=-0.90, delay=delay)
    return net


@pytest.fixture
def net() -> kelm.Network:
    return make_balanced()
