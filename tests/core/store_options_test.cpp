#include "core/store_options.h"

#include <flatbuffers/flatbuffers.h>

#include <cstring>
#include <functional>
#include <random>
#include <tuple>
#include <vector>

#include "core/error.h"
#include "core/flat_options.h"
#include "core/flatbuffer_check.h"
#include "support/expect_throw.h"

namespace quillmere {
namespace {

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

TEST(FlatOptions, TakesEachFieldAtAnyAddress) {
    const std::vector<uint8_t> bytes = fullTable();
    for (const size_t shift : {0, 1}) {
        std::vector<uint8_t> shifted(bytes.size() + shift);
        std::memcpy(shifted.data() + shift, bytes.data(), bytes.size());
        const StoreOptions o = convertFlatOptions(shifted.data() + shift, bytes.size());
        EXPECT_EQ(o.directory, "some/dir");
        EXPECT_EQ(o.modelBytes.text(), "\x01\x02\x03");
        EXPECT_FALSE(o.modelBytes.owned());
        EXPECT_EQ(o.backupFile, "backup.file");
        EXPECT_EQ(std::tuple(o.maxDbSizeInKb, o.fileMode, o.maxReaders, o.validatePagesLimit,
                             o.putPaddingMode, o.debugFlags, o.maxDataSizeInKb,
                             o.backupRestoreFlags),
                  std::tuple(12u, 0600u, 14u, 16u, 2u, 22u, 24u, 27u));
        EXPECT_EQ(std::tuple(o.walFlags, o.walMaxFileSizeOnOpenInKb, o.walMaxFileSizeInKb),
                  std::tuple(41u, 42u, 43u));
        EXPECT_TRUE(o.validatePagesLeafLevel && o.validateKvOnOpen && o.noReaderThreadLocals);
        EXPECT_TRUE(o.readOnly && !o.readSchema);
        EXPECT_TRUE(o.usePreviousCommit && o.usePreviousCommitOnValidationFailure);
    }
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

TEST(FlatOptions, ValidationModes) {
    const auto withModes = [](uint16_t pagesMode, uint64_t pagesLimit, uint16_t kvMode = 0) {
        const auto bytes = table([&](FlatBufferBuilder& b) {
            add<uint16_t>(b, 5, pagesMode);
            add<uint64_t>(b, 6, pagesLimit);
            add<uint16_t>(b, 15, kvMode);
        });
        return convertFlatOptions(bytes.data(), bytes.size());
    };
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
        EXPECT_EQ(messageOf<IllegalArgumentException>([&] { withModes(mode, 5); }),
                  "Validate on open config error: page limit cannot be combined with chosen mode");
    }
    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { withModes(6, 0); }),
              "Unknown mode for \"validate pages on open\": 6");
    EXPECT_EQ(messageOf<IllegalArgumentException>([&] { withModes(0, 0, 2); }),
              "Unknown mode for \"validate KV on open\": 2");
}

TEST(FlatOptions, NoTableNoOptions) {
    EXPECT_THROW(convertFlatOptions(nullptr, 0), ArgumentNullException);
    const std::vector<uint8_t> bytes = fullTable();
    for (const size_t size : {size_t{0}, size_t{1}, size_t{3}, size_t{4}, bytes.size() / 2}) {
        EXPECT_EQ(messageOf<IllegalArgumentException>(
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
