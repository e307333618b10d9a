#include "store/path_claim.h"

#include <condition_variable>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "core/error.h"
#include "core/hash.h"

namespace quillmere {

struct PathClaim::Table {
    std::mutex mutex;  // taken last: no other lock is asked for while it is held
    std::condition_variable changed;
    std::unordered_map<std::string, PathClaim*, FnvHash<std::string>, std::equal_to<>> claims;
};

// Never destroyed: stores may close while the process exits.
PathClaim::Table& PathClaim::table() {
    static Table& table = *new Table;
    return table;
}

std::shared_ptr<PathClaim> PathClaim::take(const std::string& path) {
    for (;;) {
        if (std::shared_ptr<PathClaim> claim = tryTake(path)) return claim;
        awaitRelease(path);
    }
}

std::shared_ptr<PathClaim> PathClaim::tryTake(const std::string& path) {
    // Before the lock: a claim that fails to enter the table must be destroyed outside it.
    std::shared_ptr<PathClaim> claim(new PathClaim(path));
    Table& all = table();
    const std::lock_guard lock(all.mutex);
    const auto [present, entered] = all.claims.try_emplace(path, claim.get());
    if (entered) return claim;
    if (!present->second->isClosing()) throwPathInUse(path);
    return nullptr;
}

void PathClaim::awaitRelease(const std::string& path) {
    Table& all = table();
    std::unique_lock lock(all.mutex);
    all.changed.wait(lock, [&] {
        const auto present = all.claims.find(path);
        return present == all.claims.end() || !present->second->isClosing();
    });
}

void PathClaim::forget(const std::string& path) {
    Table& all = table();
    const std::lock_guard lock(all.mutex);
    all.claims.erase(path);
    all.changed.notify_all();
}

PathClaim::~PathClaim() {
    Table& all = table();
    const std::lock_guard lock(all.mutex);
    const auto present = all.claims.find(path_);
    if (present == all.claims.end() || present->second != this) return;
    all.claims.erase(present);
    all.changed.notify_all();
}

void PathClaim::setHolder(std::weak_ptr<const void> holder) {
    const std::lock_guard lock(table().mutex);
    holder_ = std::move(holder);
    hasHolder_ = true;
}

void PathClaim::mark(bool closing) {
    Table& all = table();
    const std::lock_guard lock(all.mutex);
    closing_ = closing;
    all.changed.notify_all();
}

void throwPathInUse(const std::string& path) {
    throwIllegalState(
        "Cannot open store: another store is still open using the same path: \"", path, "\"");
}

}  // namespace quillmere
