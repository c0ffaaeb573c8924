"""A population of which one half prefers the crest of an oscillator, the other half its trough."""

import matplotlib.pyplot as plt
import numpy as np

import kelm
from kelm.units import Hz, ms, s

net = kelm.Network(
    window=1 * ms,
    neuron={"adaptation_increment": 0.0},
    firing={"base_rate": 5 * Hz, "gain": 3.0},
)
crest, trough = net.population("crest", 100), net.population("trough", 100)
phase = kelm.Phase(
    [kelm.Oscillator(id=1, frequency=8 * Hz)],
    bindings=[
        kelm.Binding(crest, oscillator=1, strength=0.5),
        kelm.Binding(trough, oscillator=1, strength=0.5, phase_offset=np.pi),
    ],
)
sim = kelm.Simulation(net, seed=1, phase=phase).run(10 * s)

figure, (raster, histogram) = plt.subplots(2, 1, figsize=(7, 6), layout="constrained")
kelm.plot.raster(sim.spikes.between(0 * s, 1 * s), net, ax=raster)
kelm.plot.phase(sim.spikes, net, period=125 * ms, ax=histogram)

# Without a refractory period the phases have the density of the hazard,
# exp(gain · strength · sin φ) / (2π · I0(gain · strength)). A period of 2 ms changes little.
kappa, bins = 3.0 * 0.5, 24
angle = np.linspace(0, 2 * np.pi, 200)
density = np.exp(kappa * np.sin(angle)) / (2 * np.pi * np.i0(kappa))
histogram.plot(angle, density * 2 * np.pi / bins, color="black", label="hazard")
histogram.set_ylim(0, 0.17)
histogram.legend(frameon=False)
plt.show()
