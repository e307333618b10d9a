#pragma once

// Keeps a path to one environment at a time. The engine's file locks belong to the process and go
// when any descriptor of the file is closed, so a second environment on a path would destroy them.

#include <memory>
#include <string>

namespace quillmere {

// Held by a store from before its storage opens until it is closed, also while the last reference
// is already gone; handed on between the two phases of an open. Destruction releases the path and
// wakes those who wait for it. Any thread.
class PathClaim {
public:
    // Waits for a holder that is closing. Throws IllegalStateException if the holder is open.
    static std::shared_ptr<PathClaim> take(const std::string& path);
    // The same without the wait: empty if the holder is closing.
    static std::shared_ptr<PathClaim> tryTake(const std::string& path);
    static void awaitRelease(const std::string& path);
    // The files under the path are gone: the holder keeps the environment, but not the path.
    static void forget(const std::string& path);

    ~PathClaim();
    PathClaim(const PathClaim&) = delete;
    PathClaim& operator=(const PathClaim&) = delete;

    // The holder counts as closing from the moment its last reference is gone.
    void setHolder(std::weak_ptr<const void> holder);
    void markOpen() { mark(false); }
    void markClosing() { mark(true); }

private:
    struct Table;

    explicit PathClaim(const std::string& path) : path_(path) {}
    static Table& table();
    void mark(bool closing);
    bool isClosing() const { return closing_ || (hasHolder_ && holder_.expired()); }

    const std::string path_;
    // Guarded by the table's mutex.
    std::weak_ptr<const void> holder_;
    bool hasHolder_ = false;
    bool closing_ = false;
};

[[noreturn]] void throwPathInUse(const std::string& path);

}  // namespace quillmere
