"""Networks in the SONATA format: what kelm writes, and what others write."""

import json

import h5py
import numpy as np
import pytest

import kelm
from kelm.units import ms, us


def _network():
    net = kelm.Network(seed=3, window=1 * ms, firing={"base_rate": 20.0, "gain": 2.0})
    a = net.population("a", 30, neuron={"tau_membrane": 12_345_678})
    source = net.spike_source("source", 4, np.arange(40) * 3 * ms + 1, np.arange(40) % 4)
    noise = net.poisson("noise", 5, 40.0)
    b = net.population("b", 20, firing={"threshold": 0.25})
    net.connect(a, net.all[:30], kelm.fixed_indegree(6), weight=0.3,
                delay=kelm.uniform(1 * ms, 3 * ms))
    net.connect(b, a, kelm.bernoulli(0.2), weight=-0.4, delay=1_234_567)
    net.connect(source, b, kelm.all_to_all, weight=0.5, delay=1 * ms)
    net.connect(noise, b, kelm.fixed_outdegree(3), weight=0.7, delay=2 * ms)
    return net


def test_a_network_comes_back_from_its_files_with_the_same_fingerprint(tmp_path):
    net = _network()
    path = kelm.to_sonata(net, tmp_path / "model", until=300 * ms, simulation={"seed": 5})
    config = kelm.sonata.read(path)
    assert config.until == 300 * ms
    assert config.simulation == {"seed": 5}
    again = config.network
    for column, other in zip(net.synapses, again.synapses):
        np.testing.assert_array_equal(column, other)
    runs = [kelm.Simulation(n, seed=5).run(300 * ms) for n in (net, again)]
    assert len(runs[0].spikes) > 200
    assert runs[0].fingerprint == runs[1].fingerprint
    assert runs[0].digest == runs[1].digest
    assert [p.name for p in again.populations] == ["a", "source", "noise", "b"]
    # The ranges that an index gives for a node hold exactly its edges.
    with h5py.File(tmp_path / "model" / "network" / "edges.h5") as file:
        group = file["edges/b_to_a"]
        for end in ("source", "target"):
            index = group["indices"]["source_to_target" if end == "source" else "target_to_source"]
            ids = group[f"{end}_node_id"][:]
            for node, (first, last) in enumerate(index["node_id_to_range"][:]):
                found = [edge for low, high in index["range_to_edge_id"][first:last]
                         for edge in range(low, high)]
                assert sorted(found) == np.flatnonzero(ids == node).tolist()


def _foreign(tmp_path):
    """Files as other programs write them: types in tables, two groups, manifests, node sets."""
    network, inputs = tmp_path / "net", tmp_path / "in"
    network.mkdir()
    inputs.mkdir()
    with h5py.File(network / "nodes.h5", "w") as file:
        cells = file.create_group("nodes/cells")
        cells["node_id"] = [3, 0, 1, 2]
        cells["node_type_id"] = [7, 7, 7, 8]
        cells["node_group_id"] = [1, 0, 0, 0]
        cells["node_group_index"] = [0, 2, 0, 1]
        cells["0/x"] = [0.5, 1.5, 2.5]
        cells["1/dynamics_params/base_rate"] = [9.0]
        outside = file.create_group("nodes/outside")
        outside["node_type_id"] = [1, 1, 1]
    (network / "types.csv").write_text(
        'node_type_id model_type model_template dynamics_params pop_name\n'
        '7 point_neuron kelm:escape_rate seven.json "all cells"\n'
        '8 point_neuron other:cell other.json NULL\n'
        '1 virtual NULL NULL NULL\n')
    (tmp_path / "cells").mkdir()
    (tmp_path / "cells" / "seven.json").write_text(
        json.dumps({"tau_membrane": 12.5, "base_rate": 4, "non_leaky": True}))
    (tmp_path / "cells" / "other.json").write_text(json.dumps({"tau_m": 8.0}))
    with h5py.File(network / "edges.h5", "w") as file:
        edges = file.create_group("edges/inside")
        edges["source_node_id"] = [3, 0, 2, 2]
        edges["target_node_id"] = [1, 2, 0, 3]
        edges["source_node_id"].attrs["node_population"] = "cells"
        edges["target_node_id"].attrs["node_population"] = np.bytes_("cells")
        edges["edge_type_id"] = [10, 11, 10, 11]
        edges["edge_group_id"] = [0, 1, 1, 0]
        edges["edge_group_index"] = [1, 1, 0, 0]
        edges["0/delay"] = [1.25, 4.0]
        edges["1/syn_weight"] = [-0.5, 0.75]
        edges["1/nsyns"] = [2, 1]
        other = file.create_group("edges/in")
        other["source_node_id"] = [2]
        other["target_node_id"] = [1]
        other["source_node_id"].attrs["node_population"] = "outside"
        other["target_node_id"].attrs["node_population"] = "cells"
        other["edge_type_id"] = [12]
    (network / "edge_types.csv").write_text(
        "edge_type_id target_query syn_weight delay\n"
        "10 ei=='e' 0.25 2.0\n11 \"ei == 'i'\" 1.5 3.0\n12 * -2.0 NULL\n")
    with h5py.File(inputs / "trains.h5", "w") as file:
        file["spikes/gids"] = np.array([2, 0], np.uint64)
        file["spikes/timestamps"] = [10.5, 2.25]
    circuit = {
        "manifest": {"$BASE": ".", "$NET": "${BASE}/net"},
        "components": {"point_neuron_models_dir": "$BASE/cells"},
        "networks": {
            "nodes": [{"nodes_file": "$NET/nodes.h5", "node_types_file": "$NET/types.csv"}],
            "edges": [{"edges_file": "$NET/edges.h5", "edge_types_file": "$NET/edge_types.csv"},
                      {"edges_file": "$NET/missing.h5", "enabled": False}],
        },
    }
    simulation = {
        "manifest": {"$IN": "./in"},
        "network": "./circuit.json",
        "run": {"tstop": 40.0, "dt": 0.1},
        "node_sets_file": "./sets.json",
        "inputs": {"trains": {"input_type": "spikes", "module": "h5", "node_set": "far",
                              "input_file": "$IN/trains.h5"}},
        "output": {"output_dir": "./out", "spikes_file": "s.h5"},
        "reports": {"v": {"cells": "some", "variable_name": "membrane", "dt": 0.5}},
    }
    for name, value in (("circuit", circuit), ("sim", simulation),
                        ("sets", {"far": {"population": "outside"},
                                  "some": {"population": "cells", "node_id": [1, 3]}}),
                        ("config", {"network": "./circuit.json", "simulation": "./sim.json"})):
        (tmp_path / f"{name}.json").write_text(json.dumps(value))
    return tmp_path / "config.json"


def _other(params):
    return {"tau_membrane": int(params["tau_m"] * ms), "base_rate": 2.0}


def test_files_of_other_programs_are_read_as_the_guide_describes_them(tmp_path):
    config = kelm.sonata.read(_foreign(tmp_path), templates={"other:cell": _other},
                              delay=1500 * us, window=1 * ms)
    net = config.network
    assert [(p.name, p.first, p.size) for p in net.populations] == [
        ("cells.0", 0, 2), ("cells.1", 2, 1), ("cells.2", 3, 1), ("outside", 4, 3)]
    assert [net.parameters(p)[1].base_rate for p in net.populations[:3]] == [4.0, 2.0, 9.0]
    assert [net.parameters(p)[0].tau_membrane for p in net.populations[:3]] == [
        12_500_000, 8_000_000, 12_500_000]
    assert net.parameters("cells.2")[0].non_leaky
    # Of each edge: its group's value, or else its type's.
    rows = sorted(zip(*(column.tolist() for column in net.synapses)))
    assert rows == sorted([
        (3, 1, 0.25, 4_000_000, False),
        (0, 2, 0.75, 3_000_000, False),
        (2, 0, 0.5, 2_000_000, True), (2, 0, 0.5, 2_000_000, True),
        (2, 3, 1.5, 1_250_000, False),
        (6, 1, 2.0, 1_500_000, True)])
    spikes = kelm.Simulation(net, seed=1).run(config.until).spikes
    given = spikes.array[spikes.neuron >= 4]
    assert given.tolist() == [(2_250_000, 4), (10_500_000, 6)]
    assert config.until == 40 * ms
    assert config.spikes_file == str(tmp_path / "out" / "s.h5")
    (report,) = config.reports
    assert (report.variable, report.interval) == ("membrane", 500 * us)
    assert report.neurons["cells"].tolist() == [1, 3]


def _set(path, change):
    value = json.loads(path.read_text())
    change(value)
    path.write_text(json.dumps(value))


def _edges_without(name):
    def damage(folder):
        with h5py.File(folder / "net" / "edges.h5", "a") as file:
            del file["edges/inside"][name]
    return damage


def _far_target(folder):
    with h5py.File(folder / "net" / "edges.h5", "a") as file:
        file["edges/inside/target_node_id"][0] = 4


def _negative_row(folder):
    _edges_without("edge_group_index")(folder)
    with h5py.File(folder / "net" / "edges.h5", "a") as file:
        file["edges/inside/edge_group_index"] = [1, -1, 0, 0]


@pytest.mark.parametrize("damage, text", [
    (lambda f: (f / "sim.json").write_text("{"), "sim.json' is no JSON file"),
    (lambda f: (f / "net" / "types.csv").write_text("a b\n"), "is no table of types"),
    (lambda f: (f / "net" / "nodes.h5").write_bytes(b"no"), "nodes.h5' is no HDF5 file"),
    (lambda f: (f / "cells" / "seven.json").write_text('{"tau": 1}'), "'tau' is no parameter"),
    (_edges_without("edge_type_id"), "population 'inside' has no edge_type_id"),
    (_edges_without("source_node_id"), "population 'inside' has no source_node_id"),
    (_far_target, "target_node_id must be below 4"),
    (lambda f: (f / "net" / "types.csv").write_bytes(b"\xff"), "types.csv' is no table of types"),
    (lambda f: _set(f / "sim.json", lambda v: v.update(kelm=5)), "kelm is 5, must be an object"),
    (lambda f: _set(f / "circuit.json", lambda v: v["networks"]["edges"][0].pop("edges_file")),
     "circuit.json', edges.0: edges_file is None, must be a text"),
    (lambda f: _set(f / "sim.json", lambda v: v["inputs"]["trains"].update(node_set="fra")),
     "inputs.trains: node_set 'fra' has no virtual nodes"),
    (lambda f: _set(f / "sets.json", lambda v: v["some"].update(node_id=[4])),
     "reports.v: node_id[0] is 4, must be below 4"),
    (lambda f: _set(f / "sets.json", lambda v: v["some"].update(ei="e")),
     "a set of nodes has the key 'ei'"),
    (_negative_row, "edge_group_index[1] is -1, must be at least 0"),
    (lambda f: _set(f / "sim.json", lambda v: v["reports"]["v"].update(variable_name="V_m")),
     "reports.v: variable_name is 'V_m', must be 'membrane' or 'adaptation'"),
])
def test_files_of_no_network_are_refused_with_a_sentence(tmp_path, damage, text):
    config = _foreign(tmp_path)
    damage(tmp_path)
    with pytest.raises(kelm.FileError) as refusal:
        kelm.from_sonata(config, templates={"other:cell": _other}, delay=1500 * us)
    assert text in str(refusal.value)


def test_a_foreign_template_and_a_missing_delay_are_named(tmp_path):
    config = _foreign(tmp_path)
    with pytest.raises(kelm.FileError, match="node type 8 has the model template 'other:cell', "
                                             "not one of kelm:escape_rate; pass what it is"):
        kelm.from_sonata(config)
    with pytest.raises(kelm.FileError, match="population 'in': element 0 has no delay; pass one"):
        kelm.from_sonata(config, templates={"other:cell": _other})


def test_a_report_grows_and_goes_on_from_a_checkpoint(tmp_path, monkeypatch):
    report = kelm.sonata.Report("m", "membrane", {"b": np.array([12, 10], np.uint64),
                                                  "a": np.array([3], np.uint64)}, 2 * ms, "")
    nodes = {"a": kelm.Neurons("a", 0, 10), "b": kelm.Neurons("b", 10, 5)}
    path = tmp_path / "m.h5"
    times = np.arange(6) * 2 * ms + 4 * ms
    samples = np.arange(18.0).reshape(6, 3)
    writer = kelm.sonata.ReportWriter(path, report, nodes)
    writer.append(times[:4], samples[:4])
    # The writer is killed here; the checkpoint was made at 9 ms. The first try to go on fails.
    with monkeypatch.context() as patch:
        patch.setattr(kelm.sonata.ReportWriter, "_write", lambda *arguments: 1 / 0)
        with pytest.raises(ZeroDivisionError):
            kelm.sonata.ReportWriter(path, report, nodes, begin=9 * ms, resumed=True)
    with pytest.raises(kelm.FileError, match="ends at 12000000 ns, before 13000000 ns"):
        kelm.sonata.ReportWriter(path, report, nodes, begin=13 * ms, resumed=True)
    writer = kelm.sonata.ReportWriter(path, report, nodes, begin=9 * ms, resumed=True)
    writer.append(times[3:], samples[3:])
    writer.close()
    with h5py.File(path) as file:
        for name, columns, ids in (("b", [0, 1], [2, 0]), ("a", [2], [3])):
            group = file[f"report/{name}"]
            np.testing.assert_array_equal(group["data"][:], samples[:, columns])
            assert group["mapping/node_ids"][:].tolist() == ids
            assert group["mapping/time"][:].tolist() == [4.0, 16.0, 2.0]
