"""A path of five neurons, which inputs drive one after the other. The pair rule learns the path."""

import matplotlib.pyplot as plt
import numpy as np

import kelm
from kelm.units import Hz, ms, s

net = kelm.Network(
    window=1 * ms,
    neuron={"refractory_period": 5 * ms},
    firing={"base_rate": 0.5 * Hz, "gain": 3.0},
)
path = net.population("path", 5)
first, second = np.arange(4), np.arange(1, 5)
net.connect_arrays(  # four synapses along the path, then four against it
    np.append(first, second), np.append(second, first), weight=0.3, delay=1 * ms
)
rule = kelm.PlasticityRule("pair", potentiation=0.02, depression=0.024)
sim = kelm.Simulation(net, seed=1, plasticity=kelm.Plasticity(excitatory=rule))

times, weights = [0], [sim.weights()]
for round in range(20):
    for place, neuron in enumerate(path):
        sim.perturb(sim.position + (1 + 8 * place) * ms, neuron, 3.0)
    sim.run(200 * ms)
    times.append(sim.position)
    weights.append(sim.weights())
weights = np.array(weights)

figure, (raster, lines) = plt.subplots(2, 1, figsize=(7, 6), layout="constrained")
kelm.plot.raster(sim.spikes, net, ax=raster)
lines.plot(np.array(times) / s, weights[:, :4], color="C0")
lines.plot(np.array(times) / s, weights[:, 4:], color="C1", linestyle="--")
lines.set(xlabel="time (s)", ylabel="weight", title="along the path, and against it (dashed)")
plt.show()
