#pragma once

// The state of an XXH3 hash, 64 or 128 bits, that is fed piece by piece.

#include <xxhash.h>

#include <memory>

#include "core/error.h"

namespace quillmere {

struct FreeXxh3State {
    void operator()(XXH3_state_t* state) const { XXH3_freeState(state); }
};
using Xxh3State = std::unique_ptr<XXH3_state_t, FreeXxh3State>;

inline Xxh3State makeXxh3State() {
    Xxh3State state(XXH3_createState());
    if (!state) throwAllocation("Could not allocate the state of a hash");
    return state;
}

}  // namespace quillmere
