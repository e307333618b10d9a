#pragma once

// Dereference with a check: an empty pointer throws IllegalStateException, which says what kind of
// pointer it was.

#include <atomic>
#include <memory>

#include "core/error.h"

namespace quillmere {

template <class T>
T& deref(T* pointer) {
    if (!pointer) [[unlikely]] throwIllegalState("Can not dereference a null pointer");
    return *pointer;
}

template <class T, class Deleter>
T& deref(const std::unique_ptr<T, Deleter>& pointer) {
    if (!pointer) [[unlikely]] throwIllegalState("Can not dereference a null pointer (unique)");
    return *pointer;
}

template <class T>
T& deref(const std::shared_ptr<T>& pointer) {
    if (!pointer) [[unlikely]] throwIllegalState("Can not dereference a null pointer (shared)");
    return *pointer;
}

template <class T>
T& deref(const std::atomic<T*>& pointer) {
    T* const target = pointer.load();
    if (!target) [[unlikely]] throwIllegalState("Can not dereference a null pointer (atomic)");
    return *target;
}

}  // namespace quillmere
