#pragma once

// Checked conversions between number types.

#include <cstdint>
#include <type_traits>

namespace quillmere {

namespace cast_detail {
[[noreturn, gnu::cold]] void failSigned(int64_t source, int64_t result, bool resultIsSigned);
[[noreturn, gnu::cold]] void failUnsigned(uint64_t source, int64_t result, bool resultIsSigned);
}  // namespace cast_detail

// Converts, or throws NumericOverflowException if the value or its sign would change.
template <class Target, class Source>
constexpr Target checkedCast(Source source) {
    static_assert(std::is_integral_v<Target> && std::is_integral_v<Source>);
    const Target result = static_cast<Target>(source);
    const bool sameSign = (source < Source{}) == (result < Target{});
    if (static_cast<Source>(result) != source || !sameSign) [[unlikely]] {
        if constexpr (std::is_signed_v<Source>) {
            cast_detail::failSigned(source, static_cast<int64_t>(result), std::is_signed_v<Target>);
        } else {
            cast_detail::failUnsigned(source, static_cast<int64_t>(result),
                                      std::is_signed_v<Target>);
        }
    }
    return result;
}

}  // namespace quillmere
