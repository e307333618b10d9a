#include "query/folded_search.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "core/ascii.h"
#include "query/text_compare.h"

namespace quillmere {
namespace {

constexpr uint8_t kFoldBit = 'a' - 'A';

// Vectors of the compiler: each operation works on all of their bytes.
struct Block16 {
    typedef uint8_t Bytes __attribute__((vector_size(16)));
    typedef int8_t Hits __attribute__((vector_size(16)));
};
struct Block8 {
    typedef uint8_t Bytes __attribute__((vector_size(8)));
    typedef int8_t Hits __attribute__((vector_size(8)));
};

uint8_t foldBits(char folded) { return folded >= 'a' && folded <= 'z' ? kFoldBit : 0; }

}  // namespace

FoldedSearch::FoldedSearch(std::string_view text) : text_(foldAscii(text)), size_(text.size()) {
    if (text_.empty()) return;
    // A comparison of what follows the first byte stops at a zero.
    text_.resize(std::min(text_.find('\0', 1), text_.size() - 1) + 1);
    last_ = text_.size() - 1;
    lastByte_ = text_.back();
    firstFold_ = foldBits(text_.front());
    lastFold_ = foldBits(text_.back());
}

bool FoldedSearch::foundAt(const char* from) const {
    return CaseInsensitive::compare(from + 1, text_.data() + 1, text_.size() - 1) == 0;
}

// Looks at several places at once: most are out because of the first or the last byte.
template <class Block>
bool FoldedSearch::foundInBlock(const char* from) const {
    typename Block::Bytes first, last;
    std::memcpy(&first, from, sizeof first);
    std::memcpy(&last, from + last_, sizeof last);
    const typename Block::Hits hits = ((first | firstFold_) == static_cast<uint8_t>(text_[0])) &
                                      ((last | lastFold_) == static_cast<uint8_t>(lastByte_));
    uint64_t words[sizeof hits / sizeof(uint64_t)];
    std::memcpy(words, &hits, sizeof hits);
    if (std::all_of(std::begin(words), std::end(words), [](uint64_t word) { return word == 0; })) {
        return false;
    }
    for (size_t i = 0; i < sizeof hits; ++i) {
        if (hits[i] && foundAt(from + i)) return true;
    }
    return false;
}

bool FoldedSearch::foundIn(std::string_view text) const {
    constexpr size_t kBlock = sizeof(Block16::Bytes);
    constexpr size_t kSmallBlock = sizeof(Block8::Bytes);
    if (size_ == 0) return true;
    if (text.size() < size_) return false;
    const char* const begin = text.data();
    const size_t places = text.size() - size_ + 1;
    if (places >= kBlock) {
        for (size_t i = 0; i + kBlock < places; i += kBlock) {
            if (foundInBlock<Block16>(begin + i)) return true;
        }
        return foundInBlock<Block16>(begin + places - kBlock);
    }
    if (places >= kSmallBlock) {
        return foundInBlock<Block8>(begin) ||
               foundInBlock<Block8>(begin + places - kSmallBlock);
    }
    const auto first = static_cast<uint8_t>(text_[0]);
    for (size_t i = 0; i < places; ++i) {
        if ((static_cast<uint8_t>(begin[i]) | firstFold_) == first && foundAt(begin + i)) {
            return true;
        }
    }
    return false;
}

}  // namespace quillmere
