#pragma once

#include <array>
#include <cstdint>
#include <vector>

namespace Lumenar::Core::Kelm {

/// A set of the ids of pending events: one bit for each id ever issued, in pages of which only
/// those with an id take memory. Ids are issued in ascending order and mostly finish in that order,
/// so successive calls mostly use the same page.
///
/// A hash table with open addressing finds a page by its number. No result depends on its order.
class PendingIds {
public:
    /// Makes room for `id`, so that insert of it cannot fail. May throw std::bad_alloc, with
    /// nothing changed.
    void reserve(std::uint64_t id) {
        const std::uint64_t number = id / page_bits;
        if (number == newest_ && newest_place_ != no_page) return;
        if (recallPage(id) == no_page) addPage(number);
    }

    /// Adds an id that is not in the set, after reserve for it.
    void insert(std::uint64_t id) noexcept {
        // Ids come in their order, so the newest page needs no look-up.
        const bool newest = id / page_bits == newest_ && newest_place_ != no_page;
        Page& page = pages_[newest ? newest_place_ : pageOf(id)];
        page.words[wordOf(id)] |= bitOf(id);
        ++page.count;
    }

    bool contains(std::uint64_t id) const {
        const std::uint32_t place = pageOf(id);
        return place != no_page && (pages_[place].words[wordOf(id)] & bitOf(id)) != 0;
    }

    /// Removes an id. False if it is not in the set.
    bool erase(std::uint64_t id) {
        const std::uint32_t place = recallPage(id);
        if (place == no_page) return false;
        Page& page = pages_[place];
        const std::uint64_t bit = bitOf(id);
        if ((page.words[wordOf(id)] & bit) == 0) return false;
        page.words[wordOf(id)] &= ~bit;
        // The newest page stays, because the next ids go there.
        if (--page.count == 0 && page.number != newest_) removePage(place);
        return true;
    }

private:
    static constexpr std::uint64_t page_words = 8;
    static constexpr std::uint64_t page_bits = page_words * 64;
    static constexpr std::uint32_t no_page = 0xffffffff;

    struct Page {
        std::uint64_t number = 0;
        std::uint64_t count = 0;
        std::array<std::uint64_t, page_words> words = {};
    };

    static std::size_t wordOf(std::uint64_t id) { return (id % page_bits) / 64; }
    static std::uint64_t bitOf(std::uint64_t id) { return std::uint64_t{1} << (id % 64); }

    std::uint32_t pageOf(std::uint64_t id) const {
        const std::uint64_t number = id / page_bits;
        if (recent_ < pages_.size() && pages_[recent_].number == number) return recent_;
        return lookUp(number);
    }
    /// As pageOf; remembers the page for the next call.
    std::uint32_t recallPage(std::uint64_t id) {
        const std::uint32_t place = pageOf(id);
        if (place != no_page) recent_ = place;
        return place;
    }
    std::size_t homeOf(std::uint64_t number) const {
        return static_cast<std::size_t>((number * 0x9e3779b97f4a7c15) >> shift_);
    }
    std::uint32_t lookUp(std::uint64_t number) const;
    void addPage(std::uint64_t number);
    void removePage(std::uint32_t place);
    void grow();

    std::vector<Page> pages_;
    std::vector<std::uint32_t> free_;       ///< places in pages_ that hold no page
    std::vector<std::uint32_t> table_;      ///< places by hash of the number, or no_page
    unsigned shift_ = 64;                   ///< 64 less the binary logarithm of the table's size
    std::uint64_t newest_ = 0;              ///< number of the page begun last
    std::uint32_t newest_place_ = no_page;  ///< of that page
    std::uint32_t recent_ = no_page;        ///< of the page used last
};

}  // namespace Lumenar::Core::Kelm
