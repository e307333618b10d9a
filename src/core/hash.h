#pragma once

// FNV-1a, 64 bits, over the bytes of a key.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace quillmere {

constexpr uint64_t fnv1a(std::string_view bytes) {
    uint64_t hash = 14695981039346656037u;
    for (const char byte : bytes) {
        hash ^= static_cast<uint8_t>(byte);
        hash *= 1099511628211u;
    }
    return hash;
}

// The hasher of the store's maps, for integers and strings (also by view).
template <class Key>
struct FnvHash {
    using is_transparent = void;

    size_t operator()(const Key& key) const noexcept {
        static_assert(std::is_integral_v<Key>);
        return fnv1a({reinterpret_cast<const char*>(&key), sizeof key});
    }
};

template <>
struct FnvHash<std::string> {
    using is_transparent = void;

    size_t operator()(std::string_view key) const noexcept { return fnv1a(key); }
};

}  // namespace quillmere
