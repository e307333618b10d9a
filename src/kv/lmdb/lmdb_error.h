#pragma once

// What becomes of a failure that the LMDB engine reports.

#include <cstdint>
#include <string>

#include "core/store_options.h"

namespace quillmere {

// How a store logs its engine's failures, and whom it tells. Immutable; any thread.
class LmdbErrors {
public:
    explicit LmdbErrors(const StoreOptions& options);

    // Throws the exception of the result unless it is 0; `text` names the operation that failed.
    void check(int result, const char* text) const {
        if (result != 0) [[unlikely]] fail(result, text);
    }
    [[noreturn, gnu::cold]] void fail(int result, const char* text) const;
    // For a failure to open, which is reported before and thrown after the environment is closed.
    // report() logs the result and tells the listener; it gives the text known for the result,
    // which may be empty.
    std::string report(int result) const;
    [[noreturn, gnu::cold]] void failOpen(int result, const std::string& text,
                                          const std::string& knownText) const;

private:
    void tellListener(const std::string& message) const;

    const StorageErrorListener listener_;
    const bool logExceptions_;
};

}  // namespace quillmere
