"""The rate of neurons with different thresholds, beside the formula of the hazard."""

import matplotlib.pyplot as plt
import numpy as np

import kelm
from kelm.units import Hz, ms, s

BASE_RATE, GAIN, DEAD_TIME = 5 * Hz, 2.0, 5 * ms
CELLS, DURATION = 200, 5 * s

net = kelm.Network(
    window=1 * ms, neuron={"adaptation_increment": 0.0, "refractory_period": DEAD_TIME}
)
thresholds = np.linspace(-2.0, 0.5, 11)
for threshold in thresholds:
    firing = {"base_rate": BASE_RATE, "gain": GAIN, "threshold": threshold}
    net.population(f"threshold {threshold:+.2f}", CELLS, firing=firing)

sim = kelm.Simulation(net, seed=1).run(DURATION)
counts = np.array([sim.spikes.counts(p).sum() for p in net.populations])
measured = counts / (CELLS * DURATION / s)
error = np.sqrt(counts) / (CELLS * DURATION / s)

hazard = BASE_RATE * np.exp(-GAIN * thresholds)
predicted = hazard / (1 + hazard * DEAD_TIME / s)

figure, ax = plt.subplots(figsize=(7, 4), layout="constrained")
ax.plot(-thresholds, hazard, ":", color="gray", label="hazard h")
ax.plot(-thresholds, predicted, label="h / (1 + h · dead time)")
ax.errorbar(-thresholds, measured, error, fmt="o", label="simulated")
ax.set(xlabel="constant drive (negative threshold)", ylabel="rate (spikes/s)", yscale="log")
ax.legend(frameon=False)
plt.show()
