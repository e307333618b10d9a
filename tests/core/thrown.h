#pragma once

#include <gtest/gtest.h>

#include <string>
#include <typeinfo>

namespace quillmere {

// The message of what the function throws, which must be exactly an E.
template <class E, class Function>
std::string thrown(Function&& function) {
    try {
        function();
    } catch (const E& e) {
        EXPECT_EQ(typeid(e), typeid(E)) << "thrown: " << typeid(e).name();
        return e.what();
    } catch (const std::exception& e) {
        ADD_FAILURE() << "threw " << typeid(e).name() << ": " << e.what();
        return e.what();
    }
    ADD_FAILURE() << "nothing thrown";
    return {};
}

}  // namespace quillmere
