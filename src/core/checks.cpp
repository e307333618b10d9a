#include "core/checks.h"

#include <string>

#include "core/error.h"

namespace quillmere::checks {

void failArgumentNull(const char* name, int line) {
    throwWith<ArgumentNullException>("Argument \"", name, "\" must not be null (L",
                                     std::to_string(line), ")");
}

void failArgument(const char* expression, int line) {
    throwIllegalArgument("Argument condition \"", expression, "\" not met (L",
                         std::to_string(line), ")");
}

void failState(const char* expression, int line) {
    throwIllegalState("State condition failed: \"", expression, "\" (L", std::to_string(line), ")");
}

void failStateIn(const char* function, int line, const char* expression) {
    throwIllegalState("State condition failed in ", function, ":", std::to_string(line), ": ",
                      expression);
}

}  // namespace quillmere::checks
