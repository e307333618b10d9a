#include "query/ordered_matches.h"

#include <utility>

#include "core/bytes.h"
#include "query/comparator.h"

namespace quillmere {
namespace {

// The first index below `count` whose match must come behind the new one; `count` if there is none.
template <class MatchAt>
size_t placeOf(const Comparator& comparator, const Match& match, size_t count, MatchAt&& matchAt) {
    size_t low = 0;
    while (low < count) {
        const size_t middle = low + (count - low) / 2;
        if (comparator.before(match.table, matchAt(middle).table)) {
            count = middle;
        } else {
            low = middle + 1;
        }
    }
    return low;
}

}  // namespace

void OrderedMatches::offer(uint64_t id, const ObjectTable& table, const Bytes& object) {
    if (maxSize_ != 0 && size_ == maxSize_) {
        if (!comparator_.before(table, chunks_.back().back().table)) return;
        dropLast();
    }
    insert({id, table, object.span()});
}

void OrderedMatches::insert(const Match& match) {
    ++size_;
    if (chunks_.empty()) chunks_.emplace_back().reserve(kChunkSize);
    const size_t last = chunks_.size() - 1;
    // Of a match behind all others, the last chunk is the place.
    const size_t index = placeOf(comparator_, match, last, [&](size_t i) -> const Match& {
        return chunks_[i].back();
    });
    Chunk& chunk = chunks_[index];
    const size_t place = placeOf(comparator_, match, chunk.size(), [&](size_t i) -> const Match& {
        return chunk[i];
    });
    chunk.insert(chunk.begin() + static_cast<ptrdiff_t>(place), match);
    if (chunk.size() == kChunkSize) split(index);
}

// Matches that arrive in order fill the chunks: the last one leaves its matches behind.
void OrderedMatches::split(size_t index) {
    const bool isLast = index + 1 == chunks_.size();
    const size_t kept = isLast ? kChunkSize - 1 : kChunkSize / 2;
    Chunk upper;
    upper.reserve(kChunkSize);
    Chunk& lower = chunks_[index];
    upper.assign(lower.begin() + static_cast<ptrdiff_t>(kept), lower.end());
    lower.resize(kept, lower.front());
    chunks_.insert(chunks_.begin() + static_cast<ptrdiff_t>(index) + 1, std::move(upper));
}

void OrderedMatches::dropLast() {
    --size_;
    chunks_.back().pop_back();
    if (chunks_.back().empty() && chunks_.size() > 1) chunks_.pop_back();
}

}  // namespace quillmere
