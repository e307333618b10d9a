#include "core/cast.h"

#include "core/error.h"

namespace quillmere {

void throwNumeric(NumericFailure kind, std::string_view left, std::string_view middle,
                  std::string_view right) {
    const char* const prefix =
        kind == NumericFailure::Overflow ? "Numeric overflow: " : "Numeric underflow: ";
    throwWith<NumericOverflowException>(prefix, left, middle, right);
}

}  // namespace quillmere
