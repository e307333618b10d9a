#pragma once

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <random>

namespace quillmere {

// A seed for random tests, printed so that a failure can be repeated: QUILLMERE_TEST_SEED sets it.
inline uint32_t testSeed() {
    const char* given = std::getenv("QUILLMERE_TEST_SEED");
    const uint32_t seed =
        given ? static_cast<uint32_t>(std::strtoul(given, nullptr, 10)) : std::random_device{}();
    std::cout << "seed " << seed << std::endl;
    return seed;
}

}  // namespace quillmere
