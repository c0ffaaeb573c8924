#include "compare/FirstDifference.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <span>
#include <stdexcept>

#include "compare/BlobLayout.h"

namespace Lumenar::Core::Kelm::Compare {

namespace {

/// A digest by words. A digest by bytes would cost more than the windows.
class Mixer {
public:
    explicit Mixer(std::uint64_t start) : hash_(start) {}

    void add(std::uint64_t word) {
        hash_ = (hash_ ^ word) * 0x9e3779b97f4a7c15;
        hash_ ^= hash_ >> 29;
    }
    template <class Record>
    void addImage(const Record& record) {
        static_assert(sizeof(Record) % 8 == 0);
        std::uint64_t words[sizeof(Record) / 8];
        std::memcpy(words, &record, sizeof(Record));
        for (const std::uint64_t word : words) add(word);
    }
    std::uint64_t hash() const { return hash_; }

private:
    std::uint64_t hash_;
};

/// The first difference of two items at the same place of a window.
std::optional<Difference> differenceOf(const WindowTrace::Item& a, const WindowTrace::Item& b) {
    const auto between = [](const char* list, const auto& x, const auto& y) {
        auto found = placedDifference(list, std::span(x), std::span(y));
        return found ? std::optional(found->difference) : std::nullopt;
    };
    if (auto found = between("work", std::vector{a.work}, std::vector{b.work})) return found;
    if (auto found = between("event", a.events, b.events)) return found;
    return between("result", std::vector{a.result}, std::vector{b.result});
}

std::optional<Difference> differenceOf(const std::vector<WindowTrace::Item>& a,
                                       const std::vector<WindowTrace::Item>& b) {
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
        if (auto found = differenceOf(a[i], b[i])) {
            // If the neurons differ, the smaller one is missing on the other side.
            found->neuron = std::min(a[i].work.neuron, b[i].work.neuron);
            return found;
        }
    }
    if (a.size() == b.size()) return std::nullopt;
    const auto& longer = a.size() > b.size() ? a : b;
    return Difference{"work count", longer[std::min(a.size(), b.size())].work.neuron, a.size(),
                      b.size()};
}

/// The index of the first window with different digests, if there is one.
std::optional<std::size_t> firstDifferentWindow(CarriedRun& left, CarriedRun& right) {
    if (!left.showsWindows() || !right.showsWindows()) return std::nullopt;
    const std::vector<WindowTrace::Window>& a = left.trace().windows();
    const std::vector<WindowTrace::Window>& b = right.trace().windows();
    const std::size_t shared = std::min(a.size(), b.size());
    const auto apart = [&](std::size_t i) {
        return a[i].digest != b[i].digest || a[i].end != b[i].end;
    };
    if (shared == 0 || !apart(shared - 1)) {
        return a.size() == b.size() ? std::nullopt : std::optional(shared);
    }
    // A digest includes all earlier ones, so it differs from the first difference on.
    std::size_t equal = 0;
    std::size_t first = shared - 1;
    while (equal < first) {
        const std::size_t middle = equal + (first - equal) / 2;
        apart(middle) ? first = middle : equal = middle + 1;
    }
    return first;
}

/// Two runs that advance together.
struct Pair {
    std::unique_ptr<CarriedRun> left;
    std::unique_ptr<CarriedRun> right;

    void advance(ModelTime until) {
        left->advance(until);
        right->advance(until);
    }
};

}  // namespace

void WindowTrace::begin(ModelTime window_end) {
    const bool is_another_part =
        muted_ ? muted_end_ == window_end : !windows_.empty() && windows_.back().end == window_end;
    if (is_another_part) return;
    const bool is_at_limit = muted_
                                 ? muted_windows_ == max_windows_
                                 : windows_.size() == max_windows_ || candidates_ > max_candidates_;
    if (is_at_limit) {
        has_reached_limit_ = has_reached_limit_ || !muted_;
        throw std::runtime_error("the run has reached its limit");
    }
    if (muted_) {
        ++muted_windows_;
        muted_end_ = window_end;
        return;
    }
    Mixer mixer(windows_.empty() ? 0 : windows_.back().digest);
    mixer.add(static_cast<std::uint64_t>(window_end));
    windows_.push_back({window_end, mixer.hash()});
}

void WindowTrace::note(std::span<const WindowWork> work,
                       std::span<const Kernel::WindowEvent> events,
                       std::span<const Kernel::WindowResult> results) {
    if (muted_) return;
    const bool keeps = kept_place_ == windows_.size() - 1;
    Mixer mixer(windows_.back().digest);
    for (std::size_t i = 0; i < work.size(); ++i) {
        const WindowWork& item = work[i];
        const auto own = events.subspan(item.first_event, item.event_count);
        mixer.add(item.neuron);
        mixer.addImage(item.state);
        mixer.addImage(item.parameters);
        mixer.addImage(item.firing);
        mixer.add(item.rng);
        mixer.add(item.event_count);
        mixer.add(static_cast<std::uint64_t>(item.pending_time));
        mixer.add(std::bit_cast<std::uint64_t>(item.pending_bound));
        mixer.addImage(item.drive);
        for (const Kernel::WindowEvent& event : own) mixer.addImage(event);
        mixer.addImage(results[i]);
        candidates_ += results[i].candidates;
        if (!keeps) continue;
        kept_.push_back({item, {own.begin(), own.end()}, results[i]});
        kept_.back().work.first_event = 0;
    }
    windows_.back().digest = mixer.hash();
}

void TracedTeam::Parts::processWindow(const std::span<const WindowWork>& work,
                                      const std::span<const Kernel::WindowEvent>& events,
                                      ModelTime window_end, ModelTime horizon,
                                      const Kernel::Neuron& neuron, const Kernel::Firing& firing,
                                      const std::span<Kernel::WindowResult>& results) {
    {
        const std::lock_guard lock(mutex_);
        trace_.begin(window_end);
    }
    team_.backend().processWindow(work, events, window_end, horizon, neuron, firing, results);
    const std::lock_guard lock(mutex_);
    parts_.push_back({{work.begin(), work.end()},
                      {events.begin(), events.end()},
                      {results.begin(), results.end()}});
}

void TracedTeam::Parts::finish() {
    std::erase_if(parts_, [](const Part& part) { return part.work.empty(); });
    std::ranges::sort(parts_, {}, [](const Part& part) { return part.work.front().neuron; });
    for (const Part& part : parts_) trace_.note(part.work, part.events, part.results);
    parts_.clear();
}

std::optional<Difference> differenceOf(const RunResults& a, const RunResults& b) {
    if (auto found = differenceOf(a.image, b.image)) return found;
    if (auto found =
            placedDifference("observed state", std::span(a.observed), std::span(b.observed))) {
        const std::size_t neurons = a.image.states.size();
        if (neurons != 0) found->difference.neuron = found->place % neurons;
        return found->difference;
    }
    for (const auto& [name, blob] : a.blobs) {
        const auto other =
            std::find_if(b.blobs.begin(), b.blobs.end(),
                         [&name = name](const auto& entry) { return entry.first == name; });
        if (other == b.blobs.end() || other->second == blob) continue;
        return blobDifference(name, blob, other->second);
    }
    const auto [x, y] =
        std::mismatch(a.outcomes.begin(), a.outcomes.end(), b.outcomes.begin(), b.outcomes.end());
    if (x == a.outcomes.end() && y == b.outcomes.end()) return std::nullopt;
    const std::string nothing = "nothing more";
    return Difference{"outcome '" + (x == a.outcomes.end() ? nothing : *x) + "' vs '" +
                          (y == b.outcomes.end() ? nothing : *y) + "'",
                      std::nullopt, static_cast<std::uint64_t>(x - a.outcomes.begin()),
                      static_cast<std::uint64_t>(y - b.outcomes.begin())};
}

std::string FirstDifference::text() const {
    return "window " + std::to_string(window) + ": " + what.text();
}

std::optional<FirstDifference> differenceAtEnds(CarriedRun& left, CarriedRun& right,
                                                ModelTime d_min) {
    const auto& a = left.trace().windows();
    const auto& b = right.trace().windows();
    if (const auto apart = firstDifferentWindow(left, right)) {
        const auto digest_of = [&](const std::vector<WindowTrace::Window>& windows) {
            return *apart < windows.size() ? windows[*apart].digest : 0;
        };
        const ModelTime window_end = (*apart < a.size() ? a : b)[*apart].end;
        return FirstDifference{window_end / d_min - 1,
                               {"window digest", std::nullopt, digest_of(a), digest_of(b)}};
    }
    const auto left_behind = differenceOf(left.results(), right.results());
    if (!left_behind) return std::nullopt;
    return FirstDifference{a.empty() ? -1 : a.back().end / d_min - 1, *left_behind};
}

std::optional<FirstDifference> firstDifference(const RunFactory& left, const RunFactory& right,
                                               ModelTime d_min, ModelTime end) {
    const auto start = [&] { return Pair{left(), right()}; };
    Pair whole = start();
    whole.advance(end);
    const std::optional<std::size_t> apart = firstDifferentWindow(*whole.left, *whole.right);
    const auto resultsDiffer = [&](std::int64_t windows) {
        Pair pair = start();
        pair.advance(windows > end / d_min ? end : windows * d_min);
        return differenceOf(pair.left->results(), pair.right->results());
    };

    // The first window that differs, if there is one, limits the search.
    std::int64_t last = end / d_min;
    std::optional<Difference> inside;
    if (apart) {
        Pair again = start();
        again.left->trace().keep(*apart);
        again.right->trace().keep(*apart);
        again.advance(end);
        inside = differenceOf(again.left->trace().kept(), again.right->trace().kept());
        const auto end_of = [&](CarriedRun& run) {
            const auto& windows = run.trace().windows();
            return *apart < windows.size() ? windows[*apart].end : last_model_time;
        };
        const ModelTime left_end = end_of(*again.left);
        const ModelTime right_end = end_of(*again.right);
        const ModelTime window_end = std::min(left_end, right_end);
        if (!inside) {
            if (left_end == right_end) return std::nullopt;
            inside = Difference{"window end", std::nullopt, static_cast<std::uint64_t>(left_end),
                                static_cast<std::uint64_t>(right_end)};
        }
        last = window_end / d_min - 1;
        if (!resultsDiffer(last)) return FirstDifference{last, *inside};
    } else if (!differenceOf(whole.left->results(), whole.right->results())) {
        return std::nullopt;
    } else {
        ++last;
    }

    // The results differ after `last` windows. Find the least number of windows for which they do.
    std::int64_t equal = -1;
    while (equal + 1 < last) {
        const std::int64_t middle = equal + (last - equal) / 2;
        resultsDiffer(middle) ? last = middle : equal = middle;
    }
    const auto found = resultsDiffer(last);
    return found ? std::optional(FirstDifference{last - 1, *found}) : std::nullopt;
}

}  // namespace Lumenar::Core::Kelm::Compare
