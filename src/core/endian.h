#pragma once

// Loads and stores of numbers at any alignment: big-endian in keys, little-endian in files and
// in FlatBuffers.

#include <bit>
#include <concepts>
#include <cstdint>
#include <cstring>

namespace quillmere {

template <std::unsigned_integral T>
constexpr T byteSwap(T value) {
    if constexpr (sizeof(T) == 8) {
        return __builtin_bswap64(value);
    } else if constexpr (sizeof(T) == 4) {
        return __builtin_bswap32(value);
    } else if constexpr (sizeof(T) == 2) {
        return __builtin_bswap16(value);
    } else {
        return value;
    }
}

template <std::unsigned_integral T>
T loadNative(const void* from) {
    T value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

template <std::unsigned_integral T>
void storeNative(void* to, T value) {
    std::memcpy(to, &value, sizeof value);
}

template <std::unsigned_integral T>
T loadBig(const void* from) {
    const T value = loadNative<T>(from);
    return std::endian::native == std::endian::little ? byteSwap(value) : value;
}

template <std::unsigned_integral T>
void storeBig(void* to, T value) {
    storeNative<T>(to, std::endian::native == std::endian::little ? byteSwap(value) : value);
}

template <std::unsigned_integral T>
T loadLittle(const void* from) {
    const T value = loadNative<T>(from);
    return std::endian::native == std::endian::big ? byteSwap(value) : value;
}

template <std::unsigned_integral T>
void storeLittle(void* to, T value) {
    storeNative<T>(to, std::endian::native == std::endian::big ? byteSwap(value) : value);
}

}  // namespace quillmere
