#include "kelm/events/PendingIds.h"

namespace Lumenar::Core::Kelm {

namespace {

/// The number of a place that holds no page; no id is so large.
constexpr std::uint64_t no_number = ~std::uint64_t{0};

}  // namespace

std::uint32_t PendingIds::lookUp(std::uint64_t number) const {
    if (table_.empty()) return no_page;
    const std::size_t mask = table_.size() - 1;
    for (std::size_t i = homeOf(number);; i = (i + 1) & mask) {
        const std::uint32_t place = table_[i];
        if (place == no_page || pages_[place].number == number) return place;
    }
}

void PendingIds::addPage(std::uint64_t number) {
    // At most half of the table is in use, so that look-ups stay short and always end.
    if ((pages_.size() - free_.size() + 1) * 2 > table_.size()) grow();
    if (free_.empty()) {
        if (pages_.size() == pages_.capacity()) pages_.reserve(pages_.size() * 2 + 4);
        // Room to give every place back as well, so that removePage cannot fail.
        free_.reserve(pages_.capacity());
        free_.push_back(static_cast<std::uint32_t>(pages_.size()));
        pages_.push_back(Page{no_number, 0, {}});
    }
    const std::uint32_t place = free_.back();
    free_.pop_back();
    pages_[place] = Page{number, 0, {}};
    const std::size_t mask = table_.size() - 1;
    std::size_t i = homeOf(number);
    while (table_[i] != no_page) i = (i + 1) & mask;
    table_[i] = place;

    const std::uint32_t before = newest_place_;
    newest_ = number;
    newest_place_ = place;
    if (before != no_page && before != place && pages_[before].count == 0) removePage(before);
}

void PendingIds::removePage(std::uint32_t place) {
    const std::size_t mask = table_.size() - 1;
    std::size_t hole = homeOf(pages_[place].number);
    while (table_[hole] != place) hole = (hole + 1) & mask;
    pages_[place].number = no_number;
    free_.push_back(place);

    // Entries behind the hole move up unless that would put them before their home.
    for (std::size_t i = (hole + 1) & mask; table_[i] != no_page; i = (i + 1) & mask) {
        const std::size_t home = homeOf(pages_[table_[i]].number);
        if (((i - home) & mask) < ((i - hole) & mask)) continue;
        table_[hole] = table_[i];
        hole = i;
    }
    table_[hole] = no_page;
}

void PendingIds::grow() {
    const unsigned bits = table_.empty() ? 4 : 64 - shift_ + 1;
    std::vector<std::uint32_t> table(std::size_t{1} << bits, no_page);
    table_.swap(table);
    shift_ = 64 - bits;
    const std::size_t mask = table_.size() - 1;
    for (const std::uint32_t place : table) {
        if (place == no_page) continue;
        std::size_t i = homeOf(pages_[place].number);
        while (table_[i] != no_page) i = (i + 1) & mask;
        table_[i] = place;
    }
}

}  // namespace Lumenar::Core::Kelm
