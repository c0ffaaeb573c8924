"""Compares the wiring that other simulators get with that of kelm-whole-run.

    check_wiring.py FOLDER_OF_networks.py KELM_WHOLE_RUN
"""

import json
import subprocess
import sys
from dataclasses import replace

sys.path.insert(0, sys.argv[1])
import networks  # noqa: E402, the folder is an argument

# The dense network has more than a million synapses, so networks.py builds it in two pieces.
for name, scale in (("sparse-50", 0.01), ("dense", 0.12)):
    network = networks.NETWORKS[name].scaled(scale)
    run = replace(network, duration_ms=network.delay_ms)
    line = subprocess.check_output(
        [sys.argv[2], "--json", "--repeat", "1", *run.kelm_arguments()], text=True)
    kelm = json.loads(line)
    ours = network.synapses, networks.wiring_sum(networks.targets(network))
    theirs = kelm["synapses"], kelm["wiring_sum"]
    if ours != theirs:
        sys.exit(f"{name}: synapses and sum are {ours}, kelm has {theirs}")
