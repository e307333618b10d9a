#pragma once

// Matches in the order of a comparator, at most a given number of them.

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "store/object_table.h"

namespace quillmere {

class Bytes;
class Comparator;

// A view of a match, valid as long as the object's bytes.
struct Match {
    uint64_t id;
    ObjectTable table;
    std::span<const uint8_t> object;
};

// A list of sorted chunks. A match goes behind those that it is equal to, so that ties stay in the
// order of arrival. Places are found by halving: with a comparator that is no strict weak order
// (NaN) their order is undefined, but nothing else is.
class OrderedMatches {
public:
    // The comparator must outlive this. `maxSize` 0: no limit.
    OrderedMatches(const Comparator& comparator, uint64_t maxSize)
        : comparator_(comparator), maxSize_(maxSize) {}

    // A full list drops its last match for one that comes before it. Costs one comparison for a
    // match that does not.
    void offer(uint64_t id, const ObjectTable& table, const Bytes& object);
    uint64_t size() const { return size_; }

    // Calls `visitor(match)` in order until it returns false.
    template <class Visitor>
    void visit(uint64_t offset, Visitor&& visitor) const {
        for (const Chunk& chunk : chunks_) {
            if (offset >= chunk.size()) {
                offset -= chunk.size();
                continue;
            }
            for (auto match = chunk.begin() + static_cast<ptrdiff_t>(offset); match != chunk.end();
                 ++match) {
                if (!visitor(*match)) return;
            }
            offset = 0;
        }
    }

private:
    static constexpr size_t kChunkSize = 64;
    using Chunk = std::vector<Match>;

    void insert(const Match& match);
    void split(size_t chunk);
    void dropLast();

    const Comparator& comparator_;
    const uint64_t maxSize_;
    uint64_t size_ = 0;
    std::vector<Chunk> chunks_;  // none is empty but the only one
};

}  // namespace quillmere
