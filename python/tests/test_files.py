import json
import os
import signal
import subprocess
import sys
from collections import namedtuple

import h5py
import numpy as np
import pytest

from kelm import _files
from kelm._files import SpikeWriter, write_atomically
from kelm._spikes import SPIKE, Spikes
from kelm.errors import FileError

Population = namedtuple("Population", "name first size")
E, I = Population("E", 0, 40), Population("I", 40, 10)
MS = 1_000_000
FINGERPRINT = 2**64 - 5
PROVENANCE = {"kelm_version": "2.0.0", "fingerprint": FINGERPRINT, "seed": 3, "digest": 2**63 + 1,
              "position_ns": 90 * MS}
SUFFIXES = (".h5", ".npy", ".csv")


def some_spikes(seed=1, count=500, end=90 * MS):
    draw = np.random.default_rng(seed)
    array = np.empty(count, SPIKE)
    array["time"] = draw.integers(0, end, count)
    array["neuron"] = draw.integers(0, 50, count)
    array["time"][:20] = 5 * MS + 1  # equal times in both populations
    return Spikes(np.sort(array, order=["time", "neuron"]), populations=(E, I),
                  provenance=PROVENANCE)


@pytest.fixture
def in_folder(tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)


pytestmark = pytest.mark.usefixtures("in_folder")


@pytest.mark.parametrize("suffix", SUFFIXES)
@pytest.mark.parametrize("spikes", [some_spikes(), some_spikes().between(10 * MS, 20 * MS),
                                    some_spikes().between(0, 0),
                                    Spikes(np.array([(2**60 + 1, 44)], SPIKE), populations=(E, I),
                                           provenance={**PROVENANCE, "position_ns": 2**60 + 2})],
                         ids=["all", "part", "none", "late"])
def test_what_is_saved_is_read(suffix, spikes):
    spikes.save("a" + suffix)
    found = Spikes.load("a" + suffix, fingerprint=FINGERPRINT)
    assert found == spikes
    assert [tuple(p) for p in found.populations] == [E, I]
    assert found.provenance == spikes.provenance
    assert (found.digest, found.start, found.end) == (spikes.digest, spikes.start, spikes.end)
    with pytest.raises(FileError, match="another network: .* fffffffffffffffb, not 0{15}1"):
        Spikes.load("a" + suffix, fingerprint=1)
    assert os.listdir() == ["a" + suffix]


@pytest.mark.parametrize("suffix", SUFFIXES)
def test_a_file_that_is_cut_anywhere_is_refused_or_whole(suffix):
    spikes = some_spikes(count=30)
    spikes.save("a" + suffix)
    with open("a" + suffix, "rb") as file:
        content = file.read()
    refused = 0
    last_line = content.rindex(b"\n", 0, -1) + 1
    for length in {*range(0, len(content), 61), len(content) - 1, last_line}:
        with open("b" + suffix, "wb") as file:
            file.write(content[:length])
        try:
            assert Spikes.load("b" + suffix) == spikes
        except FileError as error:
            assert "'b" + suffix + "'" in str(error)
            refused += 1
    # Only the line behind the data of .npy may be missing.
    assert refused >= min(len(content) // 61, (128 + 30 * 16) // 61)


def test_files_of_another_kind_are_refused():
    with h5py.File("other.h5", "w") as file:
        file["nodes"] = 1
    np.save("other.npy", np.zeros(3))
    with open("other.csv", "w") as file:
        file.write("t,i\n1,2\n")
    for name, content in (("text.h5", b"text"), ("text.npy", b"text"), ("blob.csv", b"\xff\n\xfe"),
                          ("float.csv", b"time_ns,neuron\n0.5,1\n"),
                          ("negative.csv", b"time_ns,neuron\n-5,1\n"),
                          ("start.csv", b"# start_ns: 9\ntime_ns,neuron\n5,1\n"),
                          ("end.csv", b"# end_ns: [1]\ntime_ns,neuron\n5,1\n"),
                          ("names.csv", b'# populations: [["E", "0", 4]]\ntime_ns,neuron\n5,1\n'),
                          ("beyond.csv", b'# populations: [["E", 0, 4]]\ntime_ns,neuron\n5,4\n'),
                          ("header.npy", b"\x93NUMPY\x01\x00\x02\x00{("),
                          ("run.kelm", b"")):
        with open(name, "wb") as file:
            file.write(content)
    for name, text in (("other.h5", "no group /spikes"), ("other.npy", "no file of spikes"),
                       ("other.csv", "its header is not"), ("text.h5", "no HDF5 file"),
                       ("text.npy", "no file of spikes"), ("blob.csv", "no file of spikes"),
                       ("float.csv", "no file of spikes"), ("negative.csv", "before 0 ns"),
                       ("start.csv", "damaged: array has a spike at 5 ns"),
                       ("end.csv", "damaged: end_ns must be a whole number"),
                       ("names.csv", "damaged: its populations cannot be read"),
                       ("beyond.csv", "neuron 4, and its populations end before neuron 4"),
                       ("header.npy", "no file of spikes"),
                       ("run.kelm", "must end in .h5, .hdf5, .npy or .csv")):
        with pytest.raises(FileError, match=text):
            Spikes.load(name)
    for suffix in SUFFIXES:
        with pytest.raises(FileNotFoundError):
            Spikes.load("missing" + suffix)


# --- HDF5 of other programs ---------------------------------------------------------------------

TIMES, NODES = [2.01, 0.5, 0.500001], [1, 0, 7]  # 2.01 * 1e6 is below 2010000


def test_reads_populations_as_groups():
    with h5py.File("groups.h5", "w") as file:
        for name, nodes in (("b", np.array(NODES, "i4")), ("a", np.array([0, 3, 3], "u8"))):
            group = file.create_group("spikes/" + name)
            group["timestamps"], group["node_ids"] = TIMES, nodes
            group["timestamps"].attrs["units"] = np.bytes_("ms")
    # Without sizes, a ends with its largest neuron, and b follows.
    found = Spikes.load("groups.h5")
    assert [tuple(p) for p in found.populations] == [("a", 0, 4), ("b", 4, 8)]
    assert found.array.tolist() == [(500_000, 3), (500_000, 4), (500_001, 3), (500_001, 11),
                                    (2_010_000, 0), (2_010_000, 5)]
    places = Population("b", 0, 100), Population("a", 100, 10)
    placed = Spikes.load("groups.h5", populations=places)
    assert placed.of("b").neuron.tolist() == [0, 7, 1] and placed.populations == places
    for populations, text in (((E,), "none of populations"),
                              ((Population("a", 0, 3), Population("b", 3, 8)), "which has 3")):
        with pytest.raises(FileError, match=text):
            Spikes.load("groups.h5", populations=populations)


@pytest.mark.parametrize("name", ["gids", "node_ids"])
@pytest.mark.parametrize("units, scale", [(None, 1), ("ms", 1), ("s", 1e-3), ("us", 1e3)])
def test_reads_the_flat_layout(name, units, scale):
    with h5py.File("flat.h5", "w") as file:
        file["spikes/" + name] = np.array(NODES, "u8")
        file["spikes/timestamps"] = np.array(TIMES) * scale
        file["spikes"].attrs["sorting"] = "none"
        if units:
            file["spikes/timestamps"].attrs["units"] = units
    found = Spikes.load("flat.h5")
    assert found.array.tolist() == [(500_000, 0), (500_001, 7), (2_010_000, 1)]
    assert found.populations == ()


@pytest.mark.parametrize("datasets, text", [
    ({"timestamps": TIMES}, "has timestamps and node_ids"),
    ({"timestamps": TIMES, "node_ids": [1, 2]}, "one shape"),
    ({"timestamps": [TIMES], "node_ids": [NODES]}, "one shape"),
    ({"timestamps": TIMES, "node_ids": [1, -2, 3]}, "integers from 0 on"),
    ({"timestamps": TIMES, "node_ids": [1.5, 2, 3]}, "integers from 0 on"),
    ({"timestamps": [1, 2, np.nan], "node_ids": NODES}, "finite"),
    ({"timestamps": [1, 2, 1e13], "node_ids": NODES}, "finite and below"),
    ({"timestamps": [1, 2, -1], "node_ids": NODES}, "before 0 ns"),
])
def test_refuses_datasets_that_are_no_spikes(datasets, text):
    with h5py.File("bad.h5", "w") as file:
        for name, data in datasets.items():
            file["spikes/x/" + name] = data
    with pytest.raises(FileError, match=text):
        Spikes.load("bad.h5")


def test_writes_the_layout_that_others_read():
    spikes = some_spikes()
    spikes.save("a.h5")
    with h5py.File("a.h5") as file:
        assert file.attrs["magic"] == 0x0A7A and file.attrs["magic"].dtype == np.uint32
        assert file.attrs["version"].tolist() == [0, 1]
        assert (file.attrs["kelm_version"], file.attrs["seed"]) == ("2.0.0", 3)
        group = file["spikes/I"]
        sorting = group.attrs.get_id("sorting")
        assert h5py.check_enum_dtype(sorting.dtype)["by_time"] == group.attrs["sorting"]
        assert group["timestamps"].attrs["units"] == "ms"
        assert group["timestamps_ns"].attrs["units"] == "ns"
        assert group["node_ids"].dtype == np.uint64
        expected = spikes.of(I)
        assert group["node_ids"][:].tolist() == (expected.neuron - np.uint64(40)).tolist()
        assert group["timestamps"][:] == pytest.approx(expected.time / 1e6)
        assert group["timestamps_ns"][:].tolist() == expected.time.tolist()


@pytest.mark.parametrize("populations, text", [
    ((E, Population("I", 39, 11)), "'E' and 'I' overlap"),
    ((E,), "belongs to no population"),
    ((Population("J", 1, 60),), "neuron 0 fires, but belongs to no population"),
    ((E, Population("E", 40, 10)), "the same name"),
    ((E, Population("a/b", 40, 10)), "no such name"),
])
def test_refuses_populations_that_are_no_partition(populations, text):
    array = np.array([(1, 0), (1, 40)], SPIKE)
    with open("a.h5", "wb") as file:
        file.write(b"old")
    with pytest.raises(ValueError, match=text):
        Spikes(array, populations=populations).save("a.h5")
    with open("a.h5", "rb") as file:
        assert file.read() == b"old"
    assert os.listdir() == ["a.h5"]


# --- .npy ---------------------------------------------------------------------------------------


def test_npy_is_a_file_of_the_library_and_of_numpy():
    spikes = some_spikes()
    spikes.save("a.npy")
    assert np.array_equal(np.load("a.npy"), spikes.array)
    assert np.array_equal(np.load("a.npy", mmap_mode="r"), spikes.array)
    # The header that SpikeFile writes: the number in 20 columns, the data from byte 128 on.
    header = (b"\x93NUMPY\x01\0\x76\0{'descr': [('time', '<i8'), ('neuron', '<u8')], "
              b"'fortran_order': False, 'shape': (                 500,), }          \n")
    with open("a.npy", "rb") as file:
        assert file.read(128) == header
    # A file that grows has data behind what it counts.
    with open("b.npy", "wb") as file:
        file.write(header + spikes.array.tobytes() + bytes(16))
    assert Spikes.load("b.npy") == spikes
    np.save("c.npy", spikes.array[::-1])
    assert Spikes.load("c.npy") == spikes


# --- files that grow ----------------------------------------------------------------------------

GROW = """
import os, signal, sys
import numpy as np
from kelm._files import SpikeWriter
from test_files import E, I, MS, PROVENANCE, some_spikes
spikes = some_spikes(count=100_000)
writer = SpikeWriter("a.h5", populations=(I, E), provenance=PROVENANCE)
flush_at, append_to = map(int, sys.argv[1:])
for end in range(1, append_to):
    writer.append(spikes.between((end - 1) * MS, end * MS))
    if end % 7 == 0 and end <= flush_at:
        writer.flush(end * MS)
writer._file.flush()  # HDF5 may write rows whenever it likes
print("ready", flush=True)
if "wait" in os.environ:
    sys.stdin.read()
os.kill(os.getpid(), signal.SIGKILL)
"""


def grow(*arguments, **environment):
    path = os.pathsep.join([os.path.dirname(__file__), *filter(None, sys.path)])
    return subprocess.Popen([sys.executable, "-c", GROW, *map(str, arguments)], text=True,
                            stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                            env={**os.environ, "PYTHONPATH": path, **environment})


def check_up_to(end):
    found = Spikes.load("a.h5", fingerprint=FINGERPRINT)
    assert found == some_spikes(count=100_000).between(0, end)
    assert (found.end, found.digest, found.provenance["seed"]) == (end, None, 3)
    assert [tuple(p) for p in found.populations] == [E, I]


@pytest.mark.parametrize("flush_at, append_to", [(0, 1), (35, 36), (35, 90)])
def test_a_file_of_a_killed_program_has_the_last_flush(flush_at, append_to):
    writer = grow(flush_at, append_to)
    assert writer.communicate()[0] == "ready\n" and writer.returncode == -signal.SIGKILL
    check_up_to(flush_at * MS)


def test_a_file_is_read_while_it_grows_and_killed_between():
    writer = grow(84, 90, wait="1")
    writer.stdout.readline()
    check_up_to(84 * MS)
    writer.kill()
    writer.communicate()
    check_up_to(84 * MS)
    size = os.path.getsize("a.h5")
    for length in range(size - 1, 0, -size // 23):
        os.truncate("a.h5", length)
        with pytest.raises(FileError):
            Spikes.load("a.h5")


def test_a_killed_file_is_resumed_at_a_checkpoint_and_ends_as_if_undisturbed():
    spikes = some_spikes(count=100_000)
    grow(84, 90).communicate()
    with pytest.raises(FileError, match="ends at 84000000 ns, before 85000000 ns"):
        SpikeWriter.resume("a.h5", 85 * MS)
    with pytest.raises(FileError, match="another network"):
        SpikeWriter.resume("a.h5", 50 * MS, provenance={"fingerprint": 1})
    SpikeWriter.resume("a.h5", 84 * MS).close()
    check_up_to(84 * MS)
    writer = SpikeWriter.resume("a.h5", 50 * MS, provenance=PROVENANCE)
    check_up_to(50 * MS)
    with pytest.raises(ValueError, match="after the file has reached 50000000 ns"):
        writer.append(spikes.between(49 * MS, 60 * MS))
    writer.append(spikes.between(50 * MS, 90 * MS))
    writer.close(90 * MS, digest=PROVENANCE["digest"])
    found = Spikes.load("a.h5")
    assert found == spikes and found.provenance == PROVENANCE
    with h5py.File("a.h5") as file:  # other programs open it as any file
        assert len(file["spikes/E/timestamps"]) == len(spikes.of(E))
    # A file without populations takes neurons that have not fired before.
    SpikeWriter("b.h5").close(50 * MS)
    with SpikeWriter.resume("b.h5", 50 * MS) as writer:
        writer.append(spikes.between(50 * MS, 90 * MS))
    assert Spikes.load("b.h5") == spikes.between(50 * MS, 90 * MS)


def test_a_writer_takes_spikes_in_order_alone():
    with SpikeWriter("a.h5") as writer:
        writer.append(np.array([(5, 1), (5, 3)], SPIKE))
        writer.append(np.zeros(0, SPIKE))
        writer.flush()
        for late in (4, 0), (5, 2):
            with pytest.raises(ValueError, match="has reached 5 ns"):
                writer.append(np.array([late], SPIKE))
        writer.append(np.array([(5, 4)], SPIKE))
        writer.flush(9)
        with pytest.raises(ValueError, match="has reached 9 ns"):
            writer.append(np.array([(8, 9)], SPIKE))
    writer.close()
    found = Spikes.load("a.h5")
    assert found.array.tolist() == [(5, 1), (5, 3), (5, 4)]
    assert (found.neuron_count, found.end, found.digest) == (5, 9, None)
    with pytest.raises(FileError, match="must end in .h5"):
        SpikeWriter("a.npy")


# --- writing as a whole -------------------------------------------------------------------------


def test_a_write_that_fails_leaves_the_old_file_alone(monkeypatch):
    write_atomically("a", b"old")
    steps = []

    def step(name, real, fails):
        def wrapped(*arguments):
            steps.append(name)
            if fails:
                raise OSError("no space")
            return real(*arguments)
        return wrapped

    for failing in ("fsync", "replace"):
        with monkeypatch.context() as patch:
            for name in ("fsync", "replace"):
                patch.setattr(_files.os, name, step(name, getattr(os, name), name == failing))
            with pytest.raises(OSError, match="no space"):
                write_atomically("a", b"new")
        with open("a", "rb") as file:
            assert file.read() == b"old"
        assert os.listdir() == ["a"]
    steps.clear()
    for name in ("fsync", "replace"):
        monkeypatch.setattr(_files.os, name, step(name, getattr(os, name), False))
    os.symlink("a", "link")
    write_atomically("link", json.dumps(1).encode())
    assert steps == ["fsync", "replace", "fsync"]  # data before the name, the name before the end
    assert os.path.islink("link")
    with open("a", "rb") as file:
        assert file.read() == b"1"
