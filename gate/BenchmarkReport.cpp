#include "gate/BenchmarkReport.h"

#include <chrono>
#include <cstdint>
#include <iostream>
#include <span>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "gate/BenchmarkWorkload.h"
#include "gate/TimedBackend.h"
#include "kelm/core/Digest.h"
#include "kelm/cuda/CudaWindowBackend.h"
#include "kelm/cuda/ResidentRecurrence.h"
#include "kelm/cuda/ShardQueue.h"
#include "kelm/engine/CpuWindowBackend.h"
#include "kelm/engine/WindowEngine.h"
#include "kelm/runtime/KelmRuntime.h"

namespace Lumenar::Core::Kelm {

namespace {

constexpr double required_speedup = 10.0;
constexpr std::uint64_t shard_source_events = 84925;
constexpr std::uint32_t resident_shards = 32;

/// The time of `work` on the monotonic clock, in s.
template <class Work>
double timed(Work work) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    work();
    const std::int64_t elapsed_ns =
        std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count();
    return static_cast<double>(elapsed_ns) / 1e9;
}

/// Writes one line of the report at once, in the default format of numbers whatever the state of
/// standard output.
template <class... Parts>
void writeLine(const Parts&... parts) {
    std::ostringstream line;
    (line << ... << parts);
    std::cout << line.str() << std::endl;
}

const char* verdictOf(double speedup) { return speedup >= required_speedup ? "PASS" : "NOT MET"; }

/// The end of a run as three digests and five counters.
struct RunDigests {
    std::uint64_t log_hash = 0;
    std::uint64_t state_hash = 0;
    std::uint64_t random_hash = 0;
    WindowProfile profile;

    friend bool operator==(const RunDigests&, const RunDigests&) = default;
};

/// `run`: a runtime or an engine. `states`: of its neurons.
template <class Run>
RunDigests digestsOf(Run& run, std::span<const Kernel::State> states) {
    std::vector<std::uint64_t> random(states.size());
    for (NodeId n = 0; n < random.size(); ++n) random[n] = run.spontaneousState(n);
    return {run.logHash(), digestImages(states), digestImages<std::uint64_t>(random),
            run.profile()};
}

/// One measured run.
struct TimedRun {
    double total = 0.0;            ///< s
    double backend_seconds = 0.0;  ///< s, the part in the backend
    std::uint64_t spikes = 0;
    std::uint64_t deliveries = 0;
    RunDigests digests;
};

SynapseGraph buildGraph(const BenchmarkWorkload& workload) {
    return SynapseGraph(workload.neuron_count, workload.min_delay, workload.synapses);
}

/// The construction is not measured.
TimedRun measureRun(const BenchmarkWorkload& workload, IWindowBackend& backend) {
    TimedBackend timed_backend(backend);
    KelmRuntime runtime = makeKelmRuntime(buildGraph(workload), workload.neuron, workload.firing,
                                          benchmark_seed, workload.horizon, &timed_backend);
    TimedRun run;
    run.total = timed([&] { runtime.run(); });
    run.backend_seconds = timed_backend.seconds();
    run.spikes = runtime.spikeLog().size();
    run.deliveries = runtime.profile().deliveries;
    writeLine("  ", timed_backend.name(), ": ", run.total, " s total, ", run.backend_seconds,
              " s in the backend (", run.backend_seconds * 100.0 / run.total, " %), ", run.spikes,
              " spikes, ", runtime.profile().windows, " windows, ", run.deliveries, " deliveries");
    run.digests = digestsOf(runtime, runtime.neuronStates());
    return run;
}

void reportSpeedup(const TimedRun& cpu, const TimedRun& cuda) {
    writeLine("  speedup of the parallelised part: ", cpu.backend_seconds / cuda.backend_seconds,
              "x");
    const double speedup = cpu.total / cuda.total;
    writeLine("  end-to-end speedup: ", speedup, "x; F-08 criterion 5: ", verdictOf(speedup),
              " (required >= ", required_speedup, "x)");
}

void reportShards(const BenchmarkWorkload& workload, std::uint32_t shards) {
    SynapseGraph graph = buildGraph(workload);
    const ShardQueueReport report =
        runShardQueue(graph, benchmark_fanout, shard_source_events, shards, workload.neuron,
                      workload.firing, workload.min_delay, workload.horizon);
    writeLine("  resident shard queues ", shards, ": ", report.seconds, " s, ",
              static_cast<double>(report.routed_events) / report.seconds / 1e6,
              " M routed events/s, local=", report.local_events, ", cross=", report.cross_events,
              ", targets=", report.processed_targets,
              ", physics=", report.physics_identical ? "BIT-IDENTICAL" : "DIFFERS",
              ", routes=VERIFIED");
}

bool equalsCpu(const ResidentRun& resident, const TimedRun& cpu) {
    const RunDigests digests{resident.log_hash, resident.state_hash, resident.random_hash,
                             resident.profile};
    return resident.capacity_ok && !resident.model_fault && resident.spikes == cpu.spikes &&
           resident.deliveries == cpu.spikes * benchmark_fanout && digests == cpu.digests;
}

void reportRecurrence(const BenchmarkWorkload& workload, const TimedRun& cpu,
                      CudaWindowBackend& backend) {
    SynapseGraph graph = buildGraph(workload);
    const ResidentRun resident = runResidentRecurrence(
        backend, graph, benchmark_fanout, resident_shards, workload.neuron, workload.firing,
        workload.min_delay, workload.horizon, benchmark_seed);
    writeLine("  resident recurrent ", resident_shards, ": ", resident.core_seconds, " s, ",
              resident.spikes, " spikes, ", resident.deliveries, " deliveries, ", resident.windows,
              " windows, capacity=", resident.capacity_ok ? "OK" : "OVERFLOW");
    writeLine("  resident lifecycle: setup=", resident.setup_seconds,
              " s, core=", resident.core_seconds, " s, finalize=", resident.finalize_seconds, " s");
    const WindowProfile& a = cpu.digests.profile;
    const WindowProfile& b = resident.profile;
    writeLine("  resident profile cpu/resident: deliveries=", a.deliveries, "/", b.deliveries,
              ", updates=", a.updates, "/", b.updates, ", candidates=", a.candidates, "/",
              b.candidates, ", accepted=", a.accepted, "/", b.accepted);
    if (!equalsCpu(resident, cpu)) {
        throw std::runtime_error("resident recurrence differs from CPU counts");
    }
    const double speedup = cpu.total / resident.core_seconds;
    writeLine("  resident end-to-end speedup: ", speedup,
              "x; log/state/RNG/profile=BIT-IDENTICAL; F-08 criterion 5: ", verdictOf(speedup),
              " (required >= ", required_speedup, "x)");
}

/// An engine without a runtime, whose whole run is on the device.
void reportIntegrated(const BenchmarkWorkload& workload, const TimedRun& cpu) {
    CudaWindowBackend backend;
    WindowEngine engine(buildGraph(workload), workload.neuron, workload.firing, benchmark_seed,
                        workload.horizon);
    backend.prepareResident(engine.graph(), benchmark_fanout);
    const double elapsed = timed([&] { engine.run(backend); });
    if (!(digestsOf(engine, engine.states()) == cpu.digests)) {
        throw std::runtime_error("integrated resident WindowEngine differs from CPU");
    }
    const double speedup = cpu.total / elapsed;
    writeLine("  integrated WindowEngine resident: ", elapsed, " s, speedup=", speedup,
              "x, log/state/RNG/profile=BIT-IDENTICAL; criterion: ", verdictOf(speedup));
}

}  // namespace

void runBenchmark() {
    const BenchmarkWorkload workload = buildBenchmarkWorkload();
    constexpr ModelTime ns_per_ms = 1'000'000;
    writeLine("benchmark: ", workload.neuron_count, " neurons, fan-out ", benchmark_fanout, ", ",
              workload.horizon / ns_per_ms, " ms model time");
    CpuWindowBackend cpu_backend;
    CudaWindowBackend cuda_backend;
    const TimedRun cpu = measureRun(workload, cpu_backend);
    const TimedRun cuda = measureRun(workload, cuda_backend);
    reportSpeedup(cpu, cuda);
    for (const std::uint32_t shards : {8U, 16U, 32U}) reportShards(workload, shards);
    reportRecurrence(workload, cpu, cuda_backend);
    reportIntegrated(workload, cpu);
}

}  // namespace Lumenar::Core::Kelm
