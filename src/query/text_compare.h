#pragma once

// Comparison of text by unsigned bytes, or with the ASCII letters folded.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "core/ascii.h"

namespace quillmere {

// Both compare the first `size` bytes: negative, 0 or positive.
struct CaseSensitive {
    static int compare(const char* a, const char* b, size_t size) {
        return std::memcmp(a, b, size);
    }
};
// Stops at a zero byte that both have.
struct CaseInsensitive {
    static int compare(const char* a, const char* b, size_t size) {
        for (size_t i = 0; i < size; ++i) {
            const int x = static_cast<uint8_t>(foldAscii(a[i]));
            const int y = static_cast<uint8_t>(foldAscii(b[i]));
            if (x != y) return x - y;
            if (x == 0) return 0;
        }
        return 0;
    }
};

template <class Case>
bool equalText(std::string_view a, std::string_view b) {
    return a.size() == b.size() && Case::compare(a.data(), b.data(), a.size()) == 0;
}

inline bool equalText(std::string_view a, std::string_view b, bool caseSensitive) {
    return caseSensitive ? equalText<CaseSensitive>(a, b) : equalText<CaseInsensitive>(a, b);
}

// The common length decides, then the length. REQUIRES: not null.
template <class Case>
int compareText(std::string_view a, std::string_view b) {
    const int result = Case::compare(a.data(), b.data(), std::min(a.size(), b.size()));
    if (result != 0) return result;
    return a.size() < b.size() ? -1 : a.size() > b.size();
}

}  // namespace quillmere
