#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace quillmere {

// Finds one text in many others, with the ASCII letters folded. What depends on the text alone is settled at construction; a
// search allocates nothing.
class FoldedSearch {
public:
    explicit FoldedSearch(std::string_view text);

    // An empty text is in every other one.
    bool foundIn(std::string_view text) const;

private:
    template <class Block>
    bool foundInBlock(const char* from) const;
    bool foundAt(const char* from) const;

    std::string text_;  // folded, up to where a comparison stops
    size_t size_;       // of the text as given
    size_t last_ = 0;    // place of the last byte compared
    char lastByte_ = 0;
    // Bits to be set in a byte before it is compared: they fold a letter.
    uint8_t firstFold_ = 0;
    uint8_t lastFold_ = 0;
};

}  // namespace quillmere
