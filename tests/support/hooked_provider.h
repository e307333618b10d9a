#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "core/store_options.h"
#include "kv/db_provider.h"
#include "kv/db_registry.h"
#include "kv/db_store.h"
#include "kv/db_transaction.h"

namespace quillmere {

// The provider of the directory behind the prefix "hooked:", with places where a test can look in,
// or fail an operation by throwing.
class HookedProvider : public DbProvider {
public:
    static constexpr const char* kPrefix = "hooked:";

    struct Hooks {
        std::function<void()> beforeBegin;
        std::function<void()> beforeCommit;
        std::function<void()> afterCommit;  // the engine has committed
        bool createNothing = false;
    };

    static HookedProvider& instance() {
        static const std::shared_ptr<HookedProvider> provider = [] {
            auto made = std::make_shared<HookedProvider>();
            DbRegistry::instance().registerPrefix(kPrefix, made, false);
            return made;
        }();
        return *provider;
    }

    // Of all stores. To be set while no store works.
    Hooks hooks;
    std::atomic<int> openStores{0};
    std::atomic<int> mostOpenStores{0};

    std::unique_ptr<DbStore> createStore(const StoreOptions& options) override {
        if (hooks.createNothing) return nullptr;
        return std::make_unique<Store>(
            *this, inner(options.directory)->createStore(unprefixed(options)));
    }
    uint32_t id() const override { return 99; }
    const char* name() const override { return "hooked"; }
    void prepareDirectory(const StoreOptions& options) override {
        inner(options.directory)->prepareDirectory(unprefixed(options));
    }
    std::string canonicalPath(const std::string& path) override {
        return inner(path)->canonicalPath(unprefixed(path));
    }
    bool removeDbFiles(const StoreOptions& options, bool removeDirectory) override {
        return inner(options.directory)->removeDbFiles(unprefixed(options), removeDirectory);
    }
    bool dbFileExists(const StoreOptions& options) override {
        return inner(options.directory)->dbFileExists(unprefixed(options));
    }
    uint64_t dbFileSize(const StoreOptions& options) override {
        return inner(options.directory)->dbFileSize(unprefixed(options));
    }
    uint32_t dbFileMode(const StoreOptions& options) override {
        return inner(options.directory)->dbFileMode(unprefixed(options));
    }

private:
    static void call(const std::function<void()>& hook) {
        if (hook) hook();
    }
    static std::shared_ptr<DbProvider> inner(const std::string& path) {
        return DbRegistry::instance().get(unprefixed(path));
    }
    static std::string unprefixed(const std::string& path) {
        return path.substr(std::string(kPrefix).size());
    }
    static StoreOptions unprefixed(const StoreOptions& options) {
        StoreOptions result = options;
        result.directory = unprefixed(options.directory);
        return result;
    }

    class Tx : public DbTransaction {
    public:
        Tx(HookedProvider& provider, DbStore& store, std::unique_ptr<DbTransaction> inner)
            : DbTransaction(inner->readOnly()),
              provider_(provider), store_(store), inner_(std::move(inner)) {}
        DbTransaction& inner() { return *inner_; }
        DbStore& store() override { return store_; }
        bool isInProgress() const override { return inner_->isInProgress(); }
        void begin() override {
            call(provider_.hooks.beforeBegin);
            inner_->begin();
        }
        void commit() override {
            try {
                call(provider_.hooks.beforeCommit);
            } catch (...) {
                inner_->abort();  // as after a failed commit, the transaction is over
                throw;
            }
            inner_->commit();
            call(provider_.hooks.afterCommit);
        }
        void abort() override { inner_->abort(); }
        void resetReadOnly() override { inner_->resetReadOnly(); }
        void recycleReadOnlyForRenew() override { inner_->recycleReadOnlyForRenew(); }
        void renewReadOnly() override { inner_->renewReadOnly(); }
        std::shared_ptr<DbCursor> createDbCursor() override { return inner_->createDbCursor(); }

    private:
        HookedProvider& provider_;
        DbStore& store_;
        std::unique_ptr<DbTransaction> inner_;
    };

    class Store : public DbStore {
    public:
        Store(HookedProvider& provider, std::unique_ptr<DbStore> inner)
            : provider_(provider), inner_(std::move(inner)) {
            const int open = ++provider_.openStores;
            int most = provider_.mostOpenStores;
            while (most < open && !provider_.mostOpenStores.compare_exchange_weak(most, open)) {
            }
        }
        ~Store() override { close(); }
        size_t maxKeySize() const override { return inner_->maxKeySize(); }
        uint32_t providerId() const override { return 99; }
        bool stats(DbStats& out) override { return inner_->stats(out); }
        std::string statsString() override { return inner_->statsString(); }
        size_t cleanStaleReaders() override { return inner_->cleanStaleReaders(); }
        uint64_t validatePages(DbTransaction& tx, uint64_t limit, bool leaves) override {
            return inner_->validatePages(unwrapped(tx), limit, leaves);
        }
        uint64_t sizeOnDisk() override { return inner_->sizeOnDisk(); }
        uint64_t dbSize() override { return inner_->dbSize(); }
        void close() override {
            inner_->close();
            if (std::exchange(open_, false)) --provider_.openStores;
        }
        void setNoMetaSync(bool flag) override { inner_->setNoMetaSync(flag); }
        void dropAll(DbTransaction& tx) override { inner_->dropAll(unwrapped(tx)); }
        uint32_t maxReaders() override { return inner_->maxReaders(); }
        bool openedWithPreviousCommit() const override {
            return inner_->openedWithPreviousCommit();
        }
        std::unique_ptr<DbTransaction> createTransaction(bool readOnly, uint32_t flags) override {
            return std::make_unique<Tx>(provider_, *this,
                                        inner_->createTransaction(readOnly, flags));
        }

    private:
        static DbTransaction& unwrapped(DbTransaction& tx) { return static_cast<Tx&>(tx).inner(); }

        HookedProvider& provider_;
        std::unique_ptr<DbStore> inner_;
        bool open_ = true;
    };
};

// Sets hooks for the time of a scope.
class ScopedHooks {
public:
    explicit ScopedHooks(HookedProvider::Hooks hooks) {
        HookedProvider::instance().hooks = std::move(hooks);
    }
    ~ScopedHooks() { HookedProvider::instance().hooks = {}; }
    ScopedHooks(const ScopedHooks&) = delete;
    ScopedHooks& operator=(const ScopedHooks&) = delete;
};

}  // namespace quillmere
