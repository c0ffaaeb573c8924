# A balanced network: 1600 excitatory and 400 inhibitory neurons for two seconds.
import kelm
from kelm.units import ms, s

net = kelm.Network(seed=7, window=1*ms, neuron={"tau_membrane": 10*ms, "adaptation_increment": 0.0},
                   firing={"base_rate": 6.0, "gain": 3.0, "max_rate": 400.0})
E, I = net.population("E", 1600), net.population("I", 400)
net.connect(E, net.all, kelm.fixed_indegree(80), weight=+0.10, delay=kelm.uniform(1*ms, 3*ms))
net.connect(I, net.all, kelm.fixed_indegree(20), weight=-0.45, delay=kelm.uniform(1*ms, 3*ms))
sim = kelm.Simulation(net, seed=1).run(2*s, progress=True)
sim.spikes.save("spikes.h5"); sim.save("run.kelm")
kelm.plot.raster(sim.spikes, net).savefig("raster.png")
digests = kelm.sweep(lambda k: kelm.Simulation(net, seed=k).run(200*ms).digest, range(20), threads=2)
print(f"{len(sim.spikes)} spikes, digest {sim.digest}")
