#pragma once

#include <gtest/gtest.h>

#include <exception>
#include <string>
#include <typeinfo>

namespace quillmere {

// Expects `action` to throw exactly an E, and gives its message.
template <class E, class Action>
std::string messageOf(Action&& action) {
    try {
        action();
    } catch (const E& e) {
        EXPECT_TRUE(typeid(e) == typeid(E)) << "a derived class: " << typeid(e).name();
        return e.what();
    } catch (const std::exception& e) {
        ADD_FAILURE() << "another exception: " << typeid(e).name() << ", " << e.what();
        return {};
    }
    ADD_FAILURE() << "nothing was thrown";
    return {};
}

}  // namespace quillmere
