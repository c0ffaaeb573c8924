"""kelm simulates networks of stochastic spiking neurons.

The same network and seed give the same spikes to the last bit: on every machine and backend, with
any number of threads, however a run is cut, and after a restore.

>>> import kelm
>>> from kelm.units import ms, s
>>> net = kelm.Network(seed=7, window=1*ms, firing={"base_rate": 6.0})
>>> E = net.population("E", 1600)
>>> net.connect(E, net.all, kelm.fixed_indegree(80), weight=0.1, delay=kelm.uniform(1*ms, 3*ms))
>>> sim = kelm.Simulation(net, seed=1).run(2*s, progress=True)
>>> sim.spikes.save("spikes.h5")

Times are whole numbers of nanoseconds: `kelm.units` has ``ns``, ``us``, ``ms``, ``s`` and ``Hz``.
"""

from . import errors, plot, sonata, units
from ._files import SpikeWriter
from ._kelm import available_backends
from ._kelm import engine_version as __version__
from ._network import Connection, Network, Synapses
from ._neurons import Neurons, Population
from ._progress import Progress
from ._settings import (
    Binding,
    Coupling,
    ErrorChannel,
    Firing,
    InputChannel,
    Neuron,
    Oscillator,
    Phase,
    Plasticity,
    PlasticityRule,
    Predictor,
    RecorderSettings,
)
from ._simulation import Digest, ModelWarning, Probe, Simulation
from ._spikes import Spikes
from ._sweep import sweep
from ._wiring import (
    Distribution,
    Rule,
    all_to_all,
    bernoulli,
    exponential,
    fixed_indegree,
    fixed_outdegree,
    fixed_total,
    lognormal,
    normal,
    one_to_one,
    uniform,
)
from .errors import ArgumentError, BusyError, Error, FileError
from .sonata import from_sonata, to_sonata

__all__ = [
    "ArgumentError",
    "Binding",
    "BusyError",
    "Connection",
    "Coupling",
    "Digest",
    "Distribution",
    "Error",
    "ErrorChannel",
    "FileError",
    "Firing",
    "InputChannel",
    "ModelWarning",
    "Network",
    "Neuron",
    "Neurons",
    "Oscillator",
    "Phase",
    "Plasticity",
    "PlasticityRule",
    "Population",
    "Predictor",
    "Probe",
    "Progress",
    "RecorderSettings",
    "Rule",
    "Simulation",
    "SpikeWriter",
    "Spikes",
    "Synapses",
    "all_to_all",
    "available_backends",
    "bernoulli",
    "errors",
    "exponential",
    "fixed_indegree",
    "fixed_outdegree",
    "fixed_total",
    "from_sonata",
    "lognormal",
    "normal",
    "one_to_one",
    "plot",
    "sonata",
    "sweep",
    "to_sonata",
    "uniform",
    "units",
]
