#pragma once

// Checked conversions between number types, and the failures of arithmetic.

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace quillmere {

enum class NumericFailure { Overflow, Underflow };

// Throws NumericOverflowException "Numeric overflow: " left middle right, or "Numeric underflow: "
// likewise. Casts overflow whatever the sign; sums and differences tell the two apart.
[[noreturn, gnu::cold]] void throwNumeric(NumericFailure kind, std::string_view left,
                                          std::string_view middle, std::string_view right);

template <class Left, class Right>
[[noreturn, gnu::cold, gnu::noinline]] void throwNumeric(NumericFailure kind, Left left,
                                                         std::string_view middle, Right right) {
    static_assert(std::is_arithmetic_v<Left> && std::is_arithmetic_v<Right>);
    throwNumeric(kind, std::string_view(std::to_string(left)), middle,
                 std::string_view(std::to_string(right)));
}

inline constexpr std::string_view kCastMiddle =
    " can not be cast to the target type because it would result in ";

// Converts, or throws NumericOverflowException if the value or its sign would change.
template <class Target, class Source>
constexpr Target checkedCast(Source source) {
    static_assert(std::is_integral_v<Target> && std::is_integral_v<Source>);
    const Target result = static_cast<Target>(source);
    const bool sameSign = (source < Source{}) == (result < Target{});
    if (static_cast<Source>(result) != source || !sameSign) [[unlikely]] {
        throwNumeric(NumericFailure::Overflow, source, kCastMiddle, result);
    }
    return result;
}

}  // namespace quillmere
