"""The networks of the comparison, as plain data.

All neurons of a network are equal. A membrane trace v and an adaptation trace a decay. The hazard
of a spike is base_rate * exp(GAIN * (v - a)), at most MAX_RATE_HZ. A spike sets v to 0 and adds
INCREMENT to a; the neuron is then refractory. An input adds the weight of its synapse to v.

The wiring and the parameters are those of kelm-whole-run (gate/BenchmarkWorkload.cpp and
bench/runtime/DenseNetwork.cpp). Only the functions need NumPy.
"""

from dataclasses import dataclass, replace

TAU_MEMBRANE_MS = 10.0
TAU_ADAPTATION_MS = 100.0
REFRACTORY_MS = 2.0
GAIN = 2.0
INCREMENT = 0.5
MAX_RATE_HZ = 1e6

# The time step of the grid simulators.
STEP_MS = 0.1


@dataclass(frozen=True)
class Network:
    neurons: int
    base_rate_hz: float
    delay_ms: float
    duration_ms: float
    dense: bool

    @property
    def fanout(self):
        """Synapses that leave each neuron."""
        return 1000 if self.dense else 16

    @property
    def synapses(self):
        return self.neurons * self.fanout

    def scaled(self, scale):
        """The network with fewer neurons. The synapses of each neuron and the rates stay."""
        return replace(self, neurons=max(1, round(self.neurons * scale)))

    def kelm_arguments(self):
        """The options of kelm-whole-run for this network."""
        return ["--network", "dense" if self.dense else "reports", "--neurons", str(self.neurons),
                "--base-rate", str(self.base_rate_hz), "--d-min", nanoseconds(self.delay_ms),
                "--horizon", nanoseconds(self.duration_ms)]


NETWORKS = {
    "sparse-5": Network(100_000, 5.0, 1.0, 200.0, False),
    "sparse-50": Network(100_000, 50.0, 1.0, 50.0, False),
    "sparse-million": Network(1_000_000, 1.0, 1.0, 200.0, False),
    "dense": Network(10_000, 25.0, 1.5, 1000.0, True),
    # For building time and memory: 100 million synapses, a short run.
    "large": Network(100_000, 25.0, 1.5, 20.0, True),
}


def nanoseconds(milliseconds):
    return str(round(milliseconds * 1_000_000))


def steps(milliseconds):
    return round(milliseconds / STEP_MS)


def targets(network):
    """The targets of all synapses by source, shape (neurons * fanout), as 32-bit integers."""
    import numpy

    if not network.dense:
        first = 131 + 7 * numpy.arange(network.neurons, dtype=numpy.int64)
        place = 131 * numpy.arange(network.fanout, dtype=numpy.int64)
        return ((first[:, None] + place) % network.neurons).astype(numpy.int32).ravel()
    result = numpy.empty(network.synapses, numpy.int32)
    for begin, end in pieces(network.synapses):
        values = stream_values(1001, "wiring", 0, begin, end)
        result[begin:end] = values % numpy.uint64(network.neurons)
    return result


def sources(network):
    """The sources of all synapses, in the order of targets()."""
    import numpy

    return numpy.repeat(numpy.arange(network.neurons, dtype=numpy.int32), network.fanout)


def weights(network):
    """The weights of all synapses in the order of targets(), negative for inhibitory ones. They are
    rounded to single precision, as kelm's are."""
    import numpy

    result = numpy.full(network.synapses, 0.05 if network.dense else 0.02, numpy.float32)
    if network.dense:
        result[(network.neurons - network.neurons // 5) * network.fanout:] = -0.25
    return result


def wiring_sum(network_targets):
    """The sum of (place from 1) * target modulo 2^64. kelm-whole-run prints the same sum."""
    import numpy

    total = 0
    for begin, end in pieces(len(network_targets)):
        places = numpy.arange(begin + 1, end + 1, dtype=numpy.uint64)
        total += int((places * network_targets[begin:end].astype(numpy.uint64)).sum())
    return total % 2**64


def pieces(count, size=1_000_000):
    """Divides range(count), so that intermediate arrays stay small."""
    return [(begin, min(begin + size, count)) for begin in range(0, count, size)]


def stream_values(seed, name, index, begin, end):
    """The values [begin, end) of stream (name, index) of kelm's RandomContext with this seed."""
    import numpy

    increment = 0x9E3779B97F4A7C15
    name_hash = 0x14650FB0739D0383
    for byte in name.encode():
        name_hash = (name_hash ^ byte) * 0x100000001B3 % 2**64
    state = splitmix_output(splitmix_output(name_hash ^ splitmix_output(seed + increment)) ^ index)
    places = numpy.arange(begin + 1, end + 1, dtype=numpy.uint64)
    return splitmix_output(numpy.uint64(state) + places * numpy.uint64(increment))


def splitmix_output(z):
    """The output function of SplitMix64 for an integer or an array of 64-bit values."""
    if isinstance(z, int):
        z %= 2**64
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9 % 2**64
        z = (z ^ (z >> 27)) * 0x94D049BB133111EB % 2**64
        return z ^ (z >> 31)
    import numpy

    word = numpy.uint64
    z = (z ^ (z >> word(30))) * word(0xBF58476D1CE4E5B9)
    z = (z ^ (z >> word(27))) * word(0x94D049BB133111EB)
    return z ^ (z >> word(31))
