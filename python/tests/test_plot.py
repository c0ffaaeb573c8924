import os
import subprocess
import sys
from types import SimpleNamespace

import numpy as np
import pytest

from kelm import plot
from kelm._spikes import SPIKE, PopulationRange, Spikes

MS = 1_000_000
POPULATIONS = PopulationRange("E", 0, 80), PopulationRange("I", 80, 20)
NET = SimpleNamespace(populations=POPULATIONS)


def some_spikes(count, end=2000 * MS, **options):
    draw = np.random.default_rng(5)
    array = np.empty(count, SPIKE)
    array["time"] = draw.integers(0, end, count)
    array["neuron"] = draw.integers(0, 100, count)
    return Spikes(np.sort(array, order=["time", "neuron"]), provenance={"position_ns": end},
                  **{"populations": POPULATIONS, **options})


@pytest.fixture
def ax():
    from matplotlib.figure import Figure

    return Figure().add_subplot()


def heights(ax):
    return [patch.get_data().values for patch in ax.patches]


@pytest.mark.parametrize("spikes, net", [(some_spikes(500), None),
                                         (some_spikes(500, populations=()), NET)])
def test_a_raster_has_the_spikes_of_each_population_above_its_rates(spikes, net, tmp_path):
    figure = plot.raster(spikes, net, bin=500 * MS)
    above, below = figure.axes
    for line, population in zip(above.lines, POPULATIONS):
        part = spikes.of(population)
        assert line.get_ydata().tolist() == part.neuron.tolist()
        assert line.get_xdata() == pytest.approx(part.time / 1e9)
        assert line.get_label() == population.name
    assert (above.get_xlim(), above.get_ylim()) == ((0, 2), (-0.5, 99.5))
    e, i = heights(below)
    assert e.sum() * 0.5 * 80 == pytest.approx(len(spikes.of(POPULATIONS[0])))
    assert i.sum() * 0.5 * 20 == pytest.approx(len(spikes.of(POPULATIONS[1])))
    figure.savefig(tmp_path / "raster.png")
    figure.savefig(tmp_path / "raster.svg")
    assert (tmp_path / "raster.png").read_bytes()[:4] == b"\x89PNG"


def test_many_spikes_become_an_image_of_their_places(ax):
    # Neuron 90 fires in the second half alone, neuron 10 in the first alone.
    # Neuron 150 belongs to no population.
    array = np.zeros(30_001, SPIKE)
    array["time"] = np.arange(30_001) * 2 * MS
    array["neuron"] = np.where(np.arange(30_001) < 15_000, 10, 90)
    array["neuron"][-1] = 150
    assert plot.raster(Spikes(array, populations=POPULATIONS), ax=ax) is ax
    image = np.asarray(ax.images[0].get_array())
    rows, columns = np.nonzero(image[..., 3])
    share = rows / image.shape[0]
    assert set(np.floor(share * 100).astype(int)) == {10, 90}
    assert (columns[share < 0.5] < image.shape[1] / 2 + 1).all()
    assert (columns[share > 0.5] >= image.shape[1] / 2 - 1).all()
    blue, orange = (image[(image[..., 3] > 0) & (np.arange(len(image)) / len(image) > low)[:, None]
                          & (np.arange(len(image)) / len(image) < low + 0.5)[:, None]][:, :3]
                    for low in (0, 0.5))
    assert (blue == (0x00, 0x72, 0xB2)).all() and (orange == (0xD5, 0x5E, 0x00)).all()
    assert len(ax.lines[0].get_xdata()) == 0


def test_a_stretch_of_a_raster_begins_and_ends_where_it_is_told(ax):
    plot.raster(some_spikes(500), ax=ax, start=500 * MS, end=1100 * MS)
    assert ax.get_xlabel() == "time (ms)" and ax.get_xlim() == (500, 1100)
    x = np.concatenate([line.get_xdata() for line in ax.lines])
    assert x.min() >= 500 and x.max() < 1100


def test_rates_and_intervals_are_those_of_the_spikes(ax):
    spikes = some_spikes(2000)
    assert plot.rate(spikes, NET, bin=300 * MS, ax=ax) is ax
    for values, population in zip(heights(ax), POPULATIONS):
        assert values == pytest.approx(spikes.rates(300 * MS, population)[1])
    assert ax.patches[0].get_data().edges[-1] == 2  # the last bin is cut at the end
    figure = plot.isi(spikes)
    e, i = heights(figure.axes[0])
    assert e.sum() == pytest.approx(1) and i.sum() == pytest.approx(1)
    regular = np.zeros(20, SPIKE)
    regular["time"] = np.arange(20) * MS
    legend = plot.isi(Spikes(regular)).axes[0].get_legend().get_texts()
    assert [text.get_text() for text in legend] == ["neurons, CV 0.00"]


def test_weights_show_their_distribution(ax):
    values = np.tile(np.arange(101.0), (4, 1)) + np.arange(4)[:, None]
    assert plot.weights(np.arange(4) * MS, values, lines=3, ax=ax) is ax
    *single, median = ax.lines
    assert [line.get_ydata().tolist() for line in single] == [[k, k + 1, k + 2, k + 3]
                                                             for k in (0.0, 50.0, 100.0)]
    assert median.get_ydata().tolist() == [50, 51, 52, 53]
    wide = ax.collections[0].get_paths()[0].vertices[:, 1]
    assert (wide.min(), wide.max()) == (5, 98)
    assert ax.get_xlabel() == "time (ms)"


def test_traces_have_the_spikes_of_their_neurons_above(ax):
    spikes = Spikes(np.array([(1 * MS, 7), (2 * MS, 3), (9 * MS, 7)], SPIKE))
    time = np.arange(5) * MS
    plot.traces(time, np.outer(time, [1, 2]) / MS, neurons=[3, 7], spikes=spikes, ax=ax)
    trace3, fired3, trace7, fired7 = ax.lines
    assert trace7.get_ydata().tolist() == [0, 2, 4, 6, 8]
    assert fired3.get_xdata().tolist() == [2] and fired7.get_xdata().tolist() == [1]
    assert min(fired3.get_ydata()[0], fired7.get_ydata()[0]) > 8
    for arguments, text in (({"neurons": [3]}, "must have 2 numbers"),
                            ({"spikes": spikes}, "give the numbers"),
                            ({"time": time[:3]}, r"not \(3,\) and \(5, 2\)")):
        with pytest.raises(ValueError, match=text):
            plot.traces(**{"time": time, "values": np.zeros((5, 2)), **arguments})


@pytest.mark.parametrize("projection", [None, "polar"])
def test_phases_are_of_a_period_or_given(projection):
    from matplotlib.figure import Figure

    array = np.zeros(40, SPIKE)
    array["time"] = np.arange(40) * 25 * MS + 130 * MS
    array["neuron"] = np.where(np.arange(40) % 2, 85, 5)  # I fires half a period of 50 ms after E
    spikes = Spikes(array, populations=POPULATIONS)
    ax = Figure().add_subplot(projection=projection)
    plot.phase(spikes, period=50 * MS, origin=25 * MS, bins=20, ax=ax)
    share = np.array([patch.get_height() for patch in ax.patches]).reshape(2, 20)
    assert np.argwhere(share == 1).tolist() == [[0, 2], [1, 12]]
    texts = [text.get_text() for text in ax.get_legend().get_texts()]
    assert texts == ["E, vector strength 1.00", "I, vector strength 1.00"]
    phases = np.tile([0, 0, np.pi, np.pi], 10)
    labels = plot.phase(spikes, phases=phases).axes[0].get_legend().get_texts()
    assert [text.get_text()[-4:] for text in labels] == ["0.00", "0.00"]
    for arguments in ({}, {"period": MS, "phases": phases}, {"phases": phases[1:]},
                      {"period": 0.5}):
        with pytest.raises(ValueError, match="phase|period"):
            plot.phase(spikes, **arguments)


def test_nothing_to_draw_is_drawn():
    none = Spikes(np.zeros(0, SPIKE))
    for draw in (plot.raster, plot.rate, plot.isi, lambda s: plot.phase(s, period=MS),
                 lambda s: plot.weights([], np.zeros((0, 3))), lambda s: plot.traces([], [])):
        draw(none).savefig(os.devnull, format="png")


def test_matplotlib_is_imported_with_the_first_picture():
    code = "import sys, kelm.plot; assert not {'matplotlib', 'h5py'} & set(sys.modules)"
    subprocess.run([sys.executable, "-c", code], check=True)
