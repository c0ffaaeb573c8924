"""A balanced network: 1600 excitatory and 400 inhibitory neurons, as a raster and by intervals."""

import matplotlib.pyplot as plt

import kelm
from kelm.units import Hz, ms, s

net = kelm.Network(
    seed=7,
    window=1 * ms,
    neuron={"tau_membrane": 10 * ms, "adaptation_increment": 0.0},
    firing={"base_rate": 6 * Hz, "gain": 3.0, "max_rate": 400 * Hz},
)
E, I = net.population("E", 1600), net.population("I", 400)
delay = kelm.uniform(1 * ms, 3 * ms)
net.connect(E, net.all, kelm.fixed_indegree(80), weight=+0.10, delay=delay)
net.connect(I, net.all, kelm.fixed_indegree(20), weight=-0.45, delay=delay)

spikes = kelm.Simulation(net, seed=1).run(2 * s).spikes

figure, (raster, rates, intervals) = plt.subplots(
    3, 1, figsize=(7, 7), height_ratios=(3, 1, 1.5), layout="constrained"
)
kelm.plot.raster(spikes.between(0 * ms, 500 * ms), net, ax=raster)
kelm.plot.rate(spikes.between(0 * ms, 500 * ms), net, bin=5 * ms, ax=rates)
kelm.plot.isi(spikes, net, ax=intervals)
plt.show()
