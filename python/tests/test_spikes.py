from collections import namedtuple

import numpy as np
import pytest

from kelm._spikes import SPIKE, Spikes
from kelm.errors import Error

Population = namedtuple("Population", "name first size")
E, I = Population("E", 0, 4), Population("I", 4, 2)
MS = 1_000_000


def spikes_of(*pairs, **options):
    return Spikes(np.array(list(pairs), SPIKE), **{"populations": (E, I), **options})


SOME = spikes_of((1 * MS, 0), (1 * MS, 4), (3 * MS, 0), (3 * MS + 1, 5), (9 * MS, 0),
                 provenance={"position_ns": 10 * MS, "digest": 7})


@pytest.mark.parametrize("array, text", [
    (np.zeros(3), "fields time"),
    (np.zeros((2, 2), SPIKE), r"shape \(2, 2\)"),
    (np.array([(2, 0), (1, 0)], SPIKE), "ascend"),
    (np.array([(2, 3), (2, 1)], SPIKE), "ascend"),
    (np.array([(-1, 0)], SPIKE), "before 0 ns"),
])
def test_refuses_arrays_that_are_no_log(array, text):
    with pytest.raises(ValueError, match=text):
        Spikes(array)


def test_array_is_a_view_that_cannot_be_written():
    array = np.array([(1, 2)], SPIKE)
    spikes = Spikes(array)
    assert np.shares_memory(spikes.array, array) and np.shares_memory(np.asarray(spikes), array)
    assert array.flags.writeable
    with pytest.raises(ValueError, match="read-only"):
        spikes.time[0] = 3


def test_parts_hold_their_bounds_and_lose_the_digest():
    part = SOME.between(1 * MS, 3 * MS + 1)  # the first bound belongs to it, the last one does not
    assert part.array.tolist() == [(1 * MS, 0), (1 * MS, 4), (3 * MS, 0)]
    assert (part.start, part.end, SOME.digest, part.digest) == (MS, 3 * MS + 1, 7, None)
    assert "digest" not in part.provenance
    assert SOME.between(5 * MS, 99 * MS).end == 10 * MS
    # Neuron 0 lies below I: the difference of unsigned numbers must not let it in.
    assert SOME.of("I").neuron.tolist() == [4, 5]
    assert SOME.of(E) == spikes_of((1 * MS, 0), (3 * MS, 0), (9 * MS, 0))
    assert SOME.of(E) != SOME
    with pytest.raises(Error, match="no population 'X'; there are 'E', 'I'"):
        SOME.of("X")


def test_counts_and_rates_are_of_all_neurons_also_the_silent_ones():
    assert SOME.counts().tolist() == [3, 0, 0, 0, 1, 1]
    assert SOME.counts("I").tolist() == [1, 1]
    starts, rates = SOME.rates(4 * MS, "I")
    assert starts.tolist() == [0, 4 * MS, 8 * MS]
    assert rates.tolist() == [2 / (2 * 4e-3), 0, 0]
    # The last bin has 2 ms: 1 spike of 6 neurons.
    assert SOME.rates(4 * MS)[1][-1] == pytest.approx(1 / (6 * 2e-3))
    # A part that begins at 3 ms has its bins from there on.
    assert SOME.between(3 * MS, 10 * MS).rates(7 * MS)[0].tolist() == [3 * MS]
    assert SOME.intervals().tolist() == [2 * MS, 6 * MS]
    assert SOME.rates(2e6)[0].tolist() == SOME.rates(2 * MS)[0].tolist()
    # Doubles would lose the last bin.
    starts, rates = spikes_of((10**17, 0)).rates(10**15)
    assert starts.tolist() == [k * 10**15 for k in range(101)] and rates[-1] > 0


@pytest.mark.parametrize("bin", [0, -1, 0.5, float("nan"), float("inf")])
def test_refuses_a_bin_that_is_no_length(bin):
    with pytest.raises(ValueError, match="bin is .*must lie in|no whole number"):
        SOME.rates(bin)
    with pytest.raises(ValueError, match="bin is 1 ns, which makes 100000000000 bins"):
        spikes_of((10**11 - 1, 0)).rates(1)


def test_no_spikes_give_empty_results():
    none = Spikes(np.zeros(0, SPIKE))
    assert len(none) == len(none.counts()) == len(none.rates(MS)[0]) == len(none.intervals()) == 0
    assert "<svg" in none._repr_html_()


def test_texts_say_what_is_shown():
    assert repr(SOME) == "<kelm.Spikes: 5 spikes of 6 neurons from 0 s to 10 ms>"
    picture = spikes_of(*((k, k % 6) for k in range(9000)),
                        populations=(Population("<b>", 0, 6),))._repr_html_()
    assert "&lt;b&gt;" in picture and "<b>" not in picture
    assert "1 in 3 is shown" in picture and picture.count("M") == 3000


def test_neo_has_a_train_for_each_neuron():
    pytest.importorskip("neo")
    segment, = SOME.to_neo().segments
    trains = segment.spiketrains
    assert [train.annotations["population"] for train in trains] == ["E"] * 4 + ["I"] * 2
    assert [len(train) for train in trains] == SOME.counts().tolist()
    assert trains[0].rescale("ms").magnitude == pytest.approx([1, 3, 9])
    assert float(trains[0].t_stop) == 0.01
