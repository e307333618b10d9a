#pragma once

// Case folding of ASCII letters. Other bytes stay as they are.

#include <string>
#include <string_view>

namespace quillmere {

constexpr char foldAscii(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 0x20) : c;
}

inline std::string foldAscii(std::string_view text) {
    std::string folded(text);
    for (char& c : folded) c = foldAscii(c);
    return folded;
}

}  // namespace quillmere
