#include "store/store_activity.h"

namespace quillmere {

namespace {
thread_local CommitInProgress* innermost = nullptr;
}  // namespace

CommitInProgress::CommitInProgress(StoreActivity& activity) noexcept
    : activity_(activity), outer_(innermost) {
    innermost = this;
    activity_.commitsInProgress.fetch_add(1);
}

CommitInProgress::~CommitInProgress() {
    activity_.commitsInProgress.fetch_sub(1);
    innermost = outer_;
}

uint32_t CommitInProgress::countOfThisThread(const StoreActivity& activity) noexcept {
    uint32_t count = 0;
    for (const CommitInProgress* commit = innermost; commit; commit = commit->outer_) {
        if (&commit->activity_ == &activity) ++count;
    }
    return count;
}

}  // namespace quillmere
