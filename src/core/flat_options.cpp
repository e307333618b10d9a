#include "core/flat_options.h"

#include "core/checks.h"
#include "core/error.h"
#include "core/flatbuffer_check.h"

namespace quillmere {

namespace {

using flatbuffers::Table;
using flatbuffers::Verifier;

// Field IDs of the options table. Do not change: callers write them.
enum OptionsField : uint32_t {
    kDirectory = 0,
    kModelBytes = 1,
    kMaxDbSizeInKb = 2,
    kFileMode = 3,
    kMaxReaders = 4,
    kValidatePagesMode = 5,
    kValidatePagesLimit = 6,
    kPutPaddingModeField = 7,
    kSkipReadSchema = 8,
    kUsePreviousCommit = 9,
    kUsePreviousCommitOnValidationFailure = 10,
    kReadOnly = 11,
    kDebugFlagsField = 12,
    kNoReaderThreadLocals = 13,
    kMaxDataSizeInKb = 14,
    kValidateKvMode = 15,
    kBackupFile = 16,
    kBackupRestoreFlags = 17,
    kWalOptions = 18,
};

enum WalOptionsField : uint32_t {
    kWalFlags = 0,
    kWalMaxFileSizeOnOpenInKb = 1,
    kWalMaxFileSizeInKb = 2,
};

enum ValidatePagesMode : uint16_t {
    kValidatePagesDefault = 0,
    kValidateNoPages = 1,
    kValidateSomePages = 2,
    kValidateSomePagesToLeaves = 3,
    kValidateAllPages = 4,
    kValidateAllPagesToLeaves = 5,
};

constexpr uint64_t kDefaultPagesLimit = 20;
constexpr uint64_t kAllPages = ~uint64_t{0};

bool verifyWalOptions(Verifier& v, const Table& t) {
    return verifyScalar<uint32_t>(v, t, kWalFlags) &&
           verifyScalar<uint64_t>(v, t, kWalMaxFileSizeOnOpenInKb) &&
           verifyScalar<uint64_t>(v, t, kWalMaxFileSizeInKb);
}

bool verifyOptions(Verifier& v, const Table& t) {
    return verifyText(v, t, kDirectory) &&
           verifyBytes(v, t, kModelBytes) &&
           verifyScalar<uint64_t>(v, t, kMaxDbSizeInKb) &&
           verifyScalar<uint32_t>(v, t, kFileMode) &&
           verifyScalar<uint32_t>(v, t, kMaxReaders) &&
           verifyScalar<uint16_t>(v, t, kValidatePagesMode) &&
           verifyScalar<uint64_t>(v, t, kValidatePagesLimit) &&
           verifyScalar<uint16_t>(v, t, kPutPaddingModeField) &&
           verifyScalar<uint8_t>(v, t, kSkipReadSchema) &&
           verifyScalar<uint8_t>(v, t, kUsePreviousCommit) &&
           verifyScalar<uint8_t>(v, t, kUsePreviousCommitOnValidationFailure) &&
           verifyScalar<uint8_t>(v, t, kReadOnly) &&
           verifyScalar<uint32_t>(v, t, kDebugFlagsField) &&
           verifyScalar<uint8_t>(v, t, kNoReaderThreadLocals) &&
           verifyScalar<uint64_t>(v, t, kMaxDataSizeInKb) &&
           verifyScalar<uint16_t>(v, t, kValidateKvMode) &&
           verifyText(v, t, kBackupFile) &&
           verifyScalar<uint32_t>(v, t, kBackupRestoreFlags) &&
           verifySubTable(v, t, kWalOptions, verifyWalOptions);
}

// 0 is the same as an absent field.
template <class T, class Option>
void applyNumber(const Table& table, uint32_t id, Option& option) {
    if (const T value = table.GetField<T>(fieldOffset(id), 0)) option = value;
}

void applyFlag(const Table& table, uint32_t id, bool& option) {
    option = table.GetField<uint8_t>(fieldOffset(id), 0) != 0;
}

void applyText(const Table& table, uint32_t id, std::string& option) {
    const std::string_view text = readTextField(table, id);
    if (text.data()) option = text;
}

void applyValidatePages(const Table& table, StoreOptions& options) {
    const auto mode = table.GetField<uint16_t>(fieldOffset(kValidatePagesMode), 0);
    const auto limit = table.GetField<uint64_t>(fieldOffset(kValidatePagesLimit), 0);
    switch (mode) {
        case kValidatePagesDefault: return;
        case kValidateSomePages:
        case kValidateSomePagesToLeaves:
            options.validatePagesLimit = limit != 0 ? limit : kDefaultPagesLimit;
            options.validatePagesLeafLevel = mode == kValidateSomePagesToLeaves;
            return;
        case kValidateNoPages:
        case kValidateAllPages:
        case kValidateAllPagesToLeaves:
            if (limit != 0) {
                throwIllegalArgument("Validate on open config error: page limit cannot be "
                                     "combined with chosen mode");
            }
            options.validatePagesLimit = mode == kValidateNoPages ? 0 : kAllPages;
            options.validatePagesLeafLevel = mode == kValidateAllPagesToLeaves;
            return;
        default:
            throwIllegalArgument("Unknown mode for \"validate pages on open\": ", int64_t{mode});
    }
}

void applyValidateKv(const Table& table, StoreOptions& options) {
    const auto mode = table.GetField<uint16_t>(fieldOffset(kValidateKvMode), 0);
    if (mode > 1) {
        throwIllegalArgument("Unknown mode for \"validate KV on open\": ", int64_t{mode});
    }
    options.validateKvOnOpen = mode == 1;
}

void applyWalOptions(const Table& table, StoreOptions& options) {
    const auto* const wal = table.GetPointer<const Table*>(fieldOffset(kWalOptions));
    if (!wal) return;
    applyNumber<uint32_t>(*wal, kWalFlags, options.walFlags);
    applyNumber<uint64_t>(*wal, kWalMaxFileSizeOnOpenInKb, options.walMaxFileSizeOnOpenInKb);
    applyNumber<uint64_t>(*wal, kWalMaxFileSizeInKb, options.walMaxFileSizeInKb);
}

}  // namespace

StoreOptions convertFlatOptions(const void* bytes, size_t size) {
    CHECK_ARG_NOT_NULL(bytes);
    if (!verifyFlatBuffer(bytes, size, verifyOptions)) {
        throwIllegalArgument("Options could not be verified; please check the passed bytes");
    }
    const Table& table = rootTable(bytes);
    StoreOptions options;
    applyText(table, kDirectory, options.directory);
    const std::span<const uint8_t> model = readBytesField(table, kModelBytes);
    if (model.data()) options.modelBytes.setView(model.data(), model.size());
    applyNumber<uint64_t>(table, kMaxDbSizeInKb, options.maxDbSizeInKb);
    applyNumber<uint32_t>(table, kFileMode, options.fileMode);
    applyNumber<uint32_t>(table, kMaxReaders, options.maxReaders);
    applyValidatePages(table, options);
    applyNumber<uint16_t>(table, kPutPaddingModeField, options.putPaddingMode);
    options.readSchema = table.GetField<uint8_t>(fieldOffset(kSkipReadSchema), 0) == 0;
    applyFlag(table, kUsePreviousCommit, options.usePreviousCommit);
    applyFlag(table, kUsePreviousCommitOnValidationFailure,
              options.usePreviousCommitOnValidationFailure);
    applyFlag(table, kReadOnly, options.readOnly);
    applyNumber<uint32_t>(table, kDebugFlagsField, options.debugFlags);
    applyFlag(table, kNoReaderThreadLocals, options.noReaderThreadLocals);
    applyNumber<uint64_t>(table, kMaxDataSizeInKb, options.maxDataSizeInKb);
    applyValidateKv(table, options);
    applyText(table, kBackupFile, options.backupFile);
    applyNumber<uint32_t>(table, kBackupRestoreFlags, options.backupRestoreFlags);
    applyWalOptions(table, options);
    return options;
}

}  // namespace quillmere
