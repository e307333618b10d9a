#pragma once

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace quillmere {

// What is allocated in its scope may leak: what the engine keeps is left alone by design when a
// handle ends too late or on another thread.
class ExpectedLeak {
public:
#if defined(__SANITIZE_ADDRESS__)
    ExpectedLeak() { __lsan_disable(); }
    ~ExpectedLeak() { __lsan_enable(); }
#else
    ExpectedLeak() {}
#endif
    ExpectedLeak(const ExpectedLeak&) = delete;
    ExpectedLeak& operator=(const ExpectedLeak&) = delete;
};

}  // namespace quillmere
