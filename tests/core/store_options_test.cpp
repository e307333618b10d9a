#include "core/store_options.h"

#include <flatbuffers/flatbuffers.h>

#include <cstring>
#include <functional>
#include <random>
#include <vector>

#include "core/error.h"
#include "core/flat_options.h"
#include "core/flatbuffer_check.h"
#include "thrown.h"

namespace quillmere {
namespace {

std::string refusal(const std::function<void(StoreOptions&)>& change) {
    return thrown<IllegalArgumentException>([&] {
        StoreOptions options;
        change(options);
        checkStoreOptions(options);
    });
}

TEST(StoreOptions, ChecksAtOpen) {
    EXPECT_NO_THROW(checkStoreOptions(StoreOptions()));
    EXPECT_EQ(refusal([](StoreOptions& o) { o.maxDbSizeInKb = 0; }), "Size option may not be zero");
    EXPECT_EQ(refusal([](StoreOptions& o) { o.maxDataSizeInKb = o.maxDbSizeInKb + 1; }),
              "Maximum data size option must not exceed the maximum DB size");
    EXPECT_EQ(refusal([](StoreOptions& o) { o.fileMode = 0; }), "File mode option may not be zero");
    EXPECT_EQ(refusal([](StoreOptions& o) { o.fileMode = 0755; }),
              "File mode may not include any executable flags");
    EXPECT_EQ(refusal([](StoreOptions& o) { o.putPaddingMode = 65537; }),
              "Illegal put padding mode:65537");
    EXPECT_EQ(refusal([](StoreOptions& o) {
                  o.backupFile = "b";
                  o.readOnly = true;
              }),
              "Cannot restore a backup in read-only mode");
    EXPECT_EQ(refusal([](StoreOptions& o) { o.backupRestoreFlags = 1; }),
              "Backup restore flags given, but no backup file");
    // The first failure in order is the one told.
    EXPECT_EQ(refusal([](StoreOptions& o) {
                  o.putPaddingMode = 0;
                  o.fileMode = 0111;
              }),
              "Illegal put padding mode:0");
    StoreOptions equalSizes;
    equalSizes.maxDataSizeInKb = equalSizes.maxDbSizeInKb;
    equalSizes.fileMode = 0600;
    EXPECT_NO_THROW(checkStoreOptions(equalSizes));
}

TEST(StoreOptions, SizesBeyond64BitsAreCutAndNeverWrap) {
    EXPECT_EQ(bytesOfKb(4), 4096u);
    EXPECT_EQ(bytesOfKb(uint64_t{1} << 54), ~uint64_t{0} - 1023);
    EXPECT_EQ(bytesOfKb(~uint64_t{0}), ~uint64_t{0} - 1023);
}

using flatbuffers::FlatBufferBuilder;
using AddFields = std::function<void(FlatBufferBuilder&)>;

std::vector<uint8_t> finish(FlatBufferBuilder& builder, const AddFields& addFields) {
    const auto start = builder.StartTable();
    addFields(builder);
    builder.Finish(flatbuffers::Offset<flatbuffers::Table>(builder.EndTable(start)));
    return {builder.GetBufferPointer(), builder.GetBufferPointer() + builder.GetSize()};
}

std::vector<uint8_t> table(const AddFields& addFields) {
    FlatBufferBuilder builder;
    builder.ForceDefaults(true);
    return finish(builder, addFields);
}

template <class T>
void add(FlatBufferBuilder& builder, uint32_t id, T value) {
    builder.AddElement<T>(fieldOffset(id), value, 0);
}

std::vector<uint8_t> fullTable() {
    FlatBufferBuilder builder;
    const auto directory = builder.CreateString("some/dir");
    const auto model = builder.CreateVector(std::vector<uint8_t>{1, 2, 3});
    const auto backup = builder.CreateString("backup.file");
    const auto walStart = builder.StartTable();
    add<uint32_t>(builder, 0, 41);
    add<uint64_t>(builder, 1, 42);
    add<uint64_t>(builder, 2, 43);
    const flatbuffers::Offset<flatbuffers::Table> wal(builder.EndTable(walStart));
    return finish(builder, [&](FlatBufferBuilder& b) {
        b.AddOffset(fieldOffset(0), directory);
        b.AddOffset(fieldOffset(1), model);
        add<uint64_t>(b, 2, 12);
        add<uint32_t>(b, 3, 0600);
        add<uint32_t>(b, 4, 14);
        add<uint16_t>(b, 5, 3);
        add<uint64_t>(b, 6, 16);
        add<uint16_t>(b, 7, 2);
        for (const uint32_t id : {8, 9, 10, 11, 13}) add<uint8_t>(b, id, 1);
        add<uint32_t>(b, 12, 22);
        add<uint64_t>(b, 14, 24);
        add<uint16_t>(b, 15, 1);
        b.AddOffset(fieldOffset(16), backup);
        add<uint32_t>(b, 17, 27);
        b.AddOffset(fieldOffset(18), wal);
    });
}

void expectFullTable(const StoreOptions& o) {
    EXPECT_EQ(o.directory, "some/dir");
    EXPECT_EQ(o.modelBytes.text(), "\x01\x02\x03");
    EXPECT_EQ(o.maxDbSizeInKb, 12u);
    EXPECT_EQ(o.fileMode, 0600u);
    EXPECT_EQ(o.maxReaders, 14u);
    EXPECT_EQ(o.validatePagesLimit, 16u);
    EXPECT_TRUE(o.validatePagesLeafLevel);
    EXPECT_EQ(o.putPaddingMode, 2u);
    EXPECT_FALSE(o.readSchema);
    EXPECT_TRUE(o.usePreviousCommit);
    EXPECT_TRUE(o.usePreviousCommitOnValidationFailure);
    EXPECT_TRUE(o.readOnly);
    EXPECT_EQ(o.debugFlags, 22u);
    EXPECT_TRUE(o.noReaderThreadLocals);
    EXPECT_EQ(o.maxDataSizeInKb, 24u);
    EXPECT_TRUE(o.validateKvOnOpen);
    EXPECT_EQ(o.backupFile, "backup.file");
    EXPECT_EQ(o.backupRestoreFlags, 27u);
    EXPECT_EQ(o.walFlags, 41u);
    EXPECT_EQ(o.walMaxFileSizeOnOpenInKb, 42u);
    EXPECT_EQ(o.walMaxFileSizeInKb, 43u);
}

TEST(FlatOptions, TakesEachField) {
    const std::vector<uint8_t> bytes = fullTable();
    const StoreOptions options = convertFlatOptions(bytes.data(), bytes.size());
    expectFullTable(options);
    EXPECT_FALSE(options.modelBytes.owned());
    EXPECT_GE(options.modelBytes.data(), bytes.data());
    EXPECT_LT(options.modelBytes.data(), bytes.data() + bytes.size());
}

TEST(FlatOptions, BuffersMayLieAtAnyAddress) {
    const std::vector<uint8_t> bytes = fullTable();
    std::vector<uint8_t> shifted(bytes.size() + 1);
    std::memcpy(shifted.data() + 1, bytes.data(), bytes.size());
    expectFullTable(convertFlatOptions(shifted.data() + 1, bytes.size()));
}

TEST(FlatOptions, AbsentFieldsAndZerosKeepTheDefaults) {
    for (const auto& bytes : {table([](FlatBufferBuilder&) {}), table([](FlatBufferBuilder& b) {
             for (const uint32_t id : {2, 6, 14}) add<uint64_t>(b, id, 0);
             for (const uint32_t id : {3, 4, 12, 17}) add<uint32_t>(b, id, 0);
             for (const uint32_t id : {5, 7, 15}) add<uint16_t>(b, id, 0);
         })}) {
        const StoreOptions options = convertFlatOptions(bytes.data(), bytes.size());
        EXPECT_EQ(options.directory, "quillmere");
        EXPECT_EQ(options.maxDbSizeInKb, 1048576u);
        EXPECT_EQ(options.fileMode, 0644u);
        EXPECT_EQ(options.putPaddingMode, 1u);
        EXPECT_TRUE(options.readSchema);
        EXPECT_FALSE(options.modelBytes.hasBytes());
        EXPECT_EQ(options.validatePagesLimit, 0u);
        EXPECT_NO_THROW(checkStoreOptions(options));
    }
}

StoreOptions withModes(uint16_t pagesMode, uint64_t pagesLimit, uint16_t kvMode = 0) {
    const auto bytes = table([&](FlatBufferBuilder& b) {
        add<uint16_t>(b, 5, pagesMode);
        add<uint64_t>(b, 6, pagesLimit);
        add<uint16_t>(b, 15, kvMode);
    });
    return convertFlatOptions(bytes.data(), bytes.size());
}

TEST(FlatOptions, ValidationModes) {
    struct Case {
        uint16_t mode;
        uint64_t limit;
        uint64_t resultingLimit;
        bool leafLevel;
    };
    for (const Case& c : {Case{1, 0, 0, false}, Case{2, 0, 20, false}, Case{2, 7, 7, false},
                          Case{3, 0, 20, true}, Case{4, 0, ~uint64_t{0}, false},
                          Case{5, 0, ~uint64_t{0}, true}}) {
        const StoreOptions options = withModes(c.mode, c.limit);
        EXPECT_EQ(options.validatePagesLimit, c.resultingLimit) << c.mode;
        EXPECT_EQ(options.validatePagesLeafLevel, c.leafLevel) << c.mode;
    }
    for (const uint16_t mode : {1, 4, 5}) {
        EXPECT_EQ(thrown<IllegalArgumentException>([&] { withModes(mode, 5); }),
                  "Validate on open config error: page limit cannot be combined with chosen mode");
    }
    EXPECT_EQ(thrown<IllegalArgumentException>([] { withModes(6, 0); }),
              "Unknown mode for \"validate pages on open\": 6");
    EXPECT_EQ(thrown<IllegalArgumentException>([] { withModes(0, 0, 2); }),
              "Unknown mode for \"validate KV on open\": 2");
}

TEST(FlatOptions, NoTableNoOptions) {
    EXPECT_THROW(convertFlatOptions(nullptr, 0), ArgumentNullException);
    const std::vector<uint8_t> bytes = fullTable();
    for (const size_t size : {size_t{0}, size_t{1}, size_t{3}, size_t{4}, bytes.size() / 2}) {
        EXPECT_EQ(thrown<IllegalArgumentException>(
                      [&] { convertFlatOptions(bytes.data(), size); }),
                  "Options could not be verified; please check the passed bytes");
    }
}

// Heap blocks of the exact size, so that the address sanitizer sees each read beyond.
void convertAnyway(const std::vector<uint8_t>& bytes) {
    const auto block = std::make_unique<uint8_t[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), block.get());
    try {
        const StoreOptions options = convertFlatOptions(block.get(), bytes.size());
        volatile uint8_t sink = 0;
        for (const uint8_t byte : options.modelBytes.span()) sink = sink + byte;
    } catch (const IllegalArgumentException&) {
        // Refused, which is as good.
    }
}

TEST(FlatOptions, DamagedTablesNeverReadOutside) {
    const std::vector<uint8_t> bytes = fullTable();
    for (size_t size = 0; size < bytes.size(); ++size) {
        convertAnyway({bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(size)});
    }
    std::mt19937 random(20241015);
    for (int round = 0; round < 20'000; ++round) {
        std::vector<uint8_t> damaged = bytes;
        for (uint32_t i = 0; i <= random() % 4; ++i) {
            damaged[random() % damaged.size()] = static_cast<uint8_t>(random());
        }
        convertAnyway(damaged);
    }
    for (int round = 0; round < 5'000; ++round) {
        std::vector<uint8_t> noise(random() % 64);
        for (uint8_t& byte : noise) byte = static_cast<uint8_t>(random() % 16);
        convertAnyway(noise);
    }
}

bool verifyChain(flatbuffers::Verifier& verifier, const flatbuffers::Table& table) {
    return verifySubTable(verifier, table, 0, verifyChain);
}

TEST(FlatBufferCheck, LimitsTheDepth) {
    const auto chain = [](uint32_t depth) {
        FlatBufferBuilder builder;
        flatbuffers::Offset<flatbuffers::Table> inner;
        for (uint32_t i = 0; i < depth; ++i) {
            const auto start = builder.StartTable();
            if (i != 0) builder.AddOffset(fieldOffset(0), inner);
            inner = builder.EndTable(start);
        }
        builder.Finish(inner);
        return verifyFlatBuffer(builder.GetBufferPointer(), builder.GetSize(), verifyChain);
    };
    EXPECT_TRUE(chain(64));
    EXPECT_FALSE(chain(65));
}

bool verifyListOfNamed(flatbuffers::Verifier& verifier, const flatbuffers::Table& table) {
    const auto verifyElement = [](flatbuffers::Verifier& v, const flatbuffers::Table& element) {
        return verifyText(v, element, 0) && verifyStruct(v, element, 1, 16, 8);
    };
    return verifySubTables(verifier, table, 0, verifyElement);
}

TEST(FlatBufferCheck, VerifiesEachTableOfAVector) {
    FlatBufferBuilder builder;
    std::vector<flatbuffers::Offset<flatbuffers::Table>> elements;
    for (const char* name : {"first", "second"}) {
        const auto text = builder.CreateString(name);
        const auto start = builder.StartTable();
        builder.AddOffset(fieldOffset(0), text);
        elements.emplace_back(builder.EndTable(start));
    }
    const auto vector = builder.CreateVector(elements);
    std::vector<uint8_t> bytes = finish(
        builder, [&](FlatBufferBuilder& b) { b.AddOffset(fieldOffset(0), vector); });
    EXPECT_TRUE(verifyFlatBuffer(bytes.data(), bytes.size(), verifyListOfNamed));
    // The terminating zero of a string goes, then the content, byte by byte.
    const std::string_view text(reinterpret_cast<char*>(bytes.data()), bytes.size());
    const size_t terminator = text.find("second") + 6;
    bytes[terminator] = 'x';
    EXPECT_FALSE(verifyFlatBuffer(bytes.data(), bytes.size(), verifyListOfNamed));
    bytes[terminator] = 0;
    for (size_t size = 0; size < bytes.size(); ++size) {
        const auto block = std::make_unique<uint8_t[]>(size);
        std::memcpy(block.get(), bytes.data(), size);
        verifyFlatBuffer(block.get(), size, verifyListOfNamed);
        verifyFlatBuffer(block.get(), size, anyFields, AlignmentCheck::Off);
    }
}

}  // namespace
}  // namespace quillmere
