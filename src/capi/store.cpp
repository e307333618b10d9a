#include <memory>
#include <string>

#include "capi/guard.h"
#include "capi/handles.h"
#include "capi/options.h"
#include "core/checks.h"
#include "core/error.h"
#include "kv/db_registry.h"
#include "schema/schema.h"
#include "store/object_store.h"

using namespace quillmere;

namespace {

constexpr uint32_t kMaxStoreTypeId = 3;

std::string directoryOrDefault(const char* directory) {
    return directory ? std::string(directory) : StoreOptions().directory;
}

void checkUsable(const QMR_store_options* opt) {
    CHECK_ARG_NOT_NULL(opt);
    if (opt->options.hadError) {
        throwIllegalArgument("An error had occurred before during setting options");
    }
}

// The failure of a look-up by name: no exception, and 0 for the ID.
qmr_schema_id notFound(const std::string& message) {
    setLastError(QMR_ERROR_SCHEMA_OBJECT_NOT_FOUND, 0, message.c_str());
    return 0;
}

}  // namespace

QMR_store* qmr_store_open(QMR_store_options* opt) {
    return pointerCall([&] {
        const std::unique_ptr<QMR_store_options> consumed(opt);
        checkUsable(opt);
        return makeStoreRecord(ObjectStore::attachOrOpen(opt->options, nullptr));
    });
}

QMR_store* qmr_store_attach_or_open(QMR_store_options* opt, bool check_matching_options,
                                    bool* out_attached) {
    return pointerCall([&] {
        const std::unique_ptr<QMR_store_options> consumed(opt);
        checkUsable(opt);
        bool attached = false;
        QMR_store* store = makeStoreRecord(
            ObjectStore::attachOrOpen(opt->options, &attached, check_matching_options));
        if (out_attached) *out_attached = attached;
        return store;
    });
}

QMR_store* qmr_store_attach(const char* directory) {
    return pointerCall(
        [&] { return makeStoreRecord(ObjectStore::attach(directoryOrDefault(directory))); });
}

QMR_store* qmr_store_attach_id(uint64_t store_id) {
    return pointerCall([&] { return makeStoreRecord(ObjectStore::attachById(store_id)); });
}

QMR_store* qmr_store_clone(QMR_store* store) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(store);
        if (!store->shared) throwIllegalState("Shared store instance is unavailable");
        return makeStoreRecord(store->shared);
    });
}

QMR_store* qmr_store_wrap(void* core_store) {
    return pointerCall([&] {
        CHECK_ARG_NOT_NULL(core_store);
        ObjectStore& borrowed = *static_cast<ObjectStore*>(core_store);
        if (borrowed.closing() || borrowed.closed()) throwIllegalArgument("Store is not open");
        return new QMR_store(borrowed);
    });
}

qmr_err qmr_store_close(QMR_store* store) {
    return statusCall([&] { delete store; });
}

qmr_err qmr_store_prepare_to_close(QMR_store* store) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(store);
        store->store->prepareToClose();
    });
}

bool qmr_store_is_open(const char* directory) {
    return boolCall([&] { return ObjectStore::isOpen(directoryOrDefault(directory)); });
}

uint64_t qmr_store_id(QMR_store* store) {
    return numberCall([&] {
        CHECK_ARG_NOT_NULL(store);
        return store->store->id();
    });
}

uint32_t qmr_store_type_id(QMR_store* store) {
    return numberCall([&] {
        CHECK_ARG_NOT_NULL(store);
        return store->store->typeId();
    });
}

qmr_err qmr_store_type_id_register_default(uint32_t type_id) {
    return statusCall([&] {
        if (type_id < 1 || type_id > kMaxStoreTypeId) {
            throwIllegalArgument("Illegal store type ID: ", int64_t{type_id});
        }
        DbRegistry& registry = DbRegistry::instance();
        std::shared_ptr<DbProvider> provider = registry.byId(type_id);
        if (!provider) {
            throwIllegalArgument("No factory registered for store type ", int64_t{type_id});
        }
        registry.registerDefault(std::move(provider), true);
    });
}

uint64_t qmr_store_size(QMR_store* store) {
    return numberCall([&] {
        CHECK_ARG_NOT_NULL(store);
        return store->store->size();
    });
}

uint64_t qmr_store_size_on_disk(QMR_store* store) {
    return numberCall([&] {
        CHECK_ARG_NOT_NULL(store);
        return store->store->sizeOnDisk();
    });
}

uint64_t qmr_db_file_size(const char* directory) {
    return numberCall([&] { return ObjectStore::dbFileSize(directoryOrDefault(directory)); });
}

qmr_err qmr_store_debug_flags(QMR_store* store, uint32_t flags) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(store);
        store->store->setDebugFlags(flags);
    });
}

bool qmr_store_opened_with_previous_commit(QMR_store* store) {
    return boolCall([&] {
        CHECK_ARG_NOT_NULL(store);
        return store->store->openedWithPreviousCommit();
    });
}

qmr_err qmr_store_back_up_to_file(QMR_store* store, const char* backup_file, uint32_t flags) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(store);
        CHECK_ARG_NOT_NULL(backup_file);
        store->store->backUpToFile(backup_file, flags);
    });
}

qmr_schema_id qmr_store_entity_id(QMR_store* store, const char* entity_name) {
    return numberCall([&] {
        CHECK_ARG_NOT_NULL(store);
        CHECK_ARG_NOT_NULL(entity_name);
        const Entity* entity = store->store->requireSchema()->findEntityByName(entity_name);
        if (entity) return entity->id();
        return notFound(joinPieces({"Entity '", entity_name, "' not found"}));
    });
}

qmr_schema_id qmr_store_entity_property_id(QMR_store* store, qmr_schema_id entity_id,
                                           const char* property_name) {
    return numberCall([&] {
        CHECK_ARG_NOT_NULL(store);
        CHECK_ARG_NOT_NULL(property_name);
        const std::shared_ptr<Schema> schema = store->store->requireSchema();
        const Property* property =
            schema->entityById(entity_id).findPropertyByName(property_name);
        if (property) return property->id();
        return notFound(joinPieces({"Property '", property_name,
                                    "' not found in the given entity ID ",
                                    std::to_string(entity_id)}));
    });
}

qmr_err qmr_remove_db_files(const char* directory) {
    return statusCall([&] {
        CHECK_ARG_NOT_NULL(directory);
        // Which file refused, and why, has been logged.
        if (!ObjectStore::removeDbFiles(directory, false)) {
            throwIo("Could not remove the database files in: ", directory);
        }
    });
}
