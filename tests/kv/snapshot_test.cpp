#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/files.h"
#include "kv/memory/snapshot_reader.h"
#include "kv/memory/snapshot_writer.h"
#include "support/expect_throw.h"
#include "wal_fixture.h"

namespace quillmere {
namespace {

using namespace std::string_literals;
using testing::StartsWith;

const std::string kMagic = "Quillmere Snapshot\0"s;

struct SnapshotTest : testing::Test, WalStore {
    // What an open makes of the snapshot: refused, with the message, and the file as it was.
    template <class E = SnapshotFileInvalidException>
    std::string refusal(const std::string& bytes) {
        writeFile(snapshotPath(), bytes);
        const std::string message = messageOf<E>([&] { open(); });
        EXPECT_EQ(snapshot(), bytes);
        return message;
    }
    void save(uint32_t flags, const TxSequence& sequence) {
        const auto tx = begin();
        SnapshotWriter(snapshotPath(), flags, sequence).save(*tx->createDbCursor());
    }
    void readAll(SnapshotReader& reader) {
        reader.openFile();
        reader.checkIntegrity();
        reader.readHeader();
        loaded = begin();
        reader.readContent(*loaded->createDbCursor());
        EXPECT_TRUE(reader.contentRead());
    }

    std::unique_ptr<DbTransaction> loaded;
};

TEST_F(SnapshotTest, WritesAndLoadsEachHeaderFieldByteByByte) {
    open();
    save(3, {});
    const std::string empty = withFileHash(kMagic + "\1\3\x64");
    EXPECT_EQ(snapshot(), empty);
    SnapshotReader emptyReader(snapshotPath());
    readAll(emptyReader);
    EXPECT_FALSE(emptyReader.sequence());
    EXPECT_TRUE(recordsOf(*loaded).empty());

    const Records data = {{"\0\0\0\1\5"s, "five"}, {"\0\0\0\1\6"s, "six"}, {"x", ""}};
    commit(data);
    save(0x10003, {0x1234, 0xA1B2C3D4, true});
    EXPECT_EQ(snapshot(), withFileHash(kMagic + "\1\xC1\0\3\x92\x34\xD4\xC3\xB2\xA1"s
                                       "\1\5\0\0\0\1\5\4five"s "\6\3six"s "\1\1x\0\x64"s));
    save(0x10000, {7, 8, true});
    const std::string full = snapshot();
    SnapshotReader reader(snapshotPath());
    readAll(reader);
    EXPECT_EQ(recordsOf(*loaded), data);
    EXPECT_EQ(full.substr(0, 23), kMagic + "\1\xC1\0\0"s);
    EXPECT_EQ(full.substr(23, 16), little(reader.time(), 8) + little(reader.random(), 8));
    EXPECT_GT(reader.time(), 1'600'000'000'000u) << "milliseconds";
    EXPECT_EQ(reader.sequence().number, 7u);
    EXPECT_EQ(reader.sequence().hash, 8u);
}

TEST_F(SnapshotTest, ChunksOfALargeStoreMakeOneFile) {
    open();
    Records data;
    for (int i = 0; i < 300; ++i) {
        const size_t size = static_cast<size_t>(i % 7) * 1000;
        data["key" + std::to_string(i)] = std::string(size, static_cast<char>('a' + i % 9));
    }
    data["large"] = std::string(200000, 'x');
    commit(data);
    options.walMaxFileSizeOnOpenInKb = 0;
    open();
    EXPECT_EQ(wal().size(), 29u);
    EXPECT_EQ(reopened(), data);
}

TEST_F(SnapshotTest, FlippedAtAnyByteIsRefused) {
    open();
    commit({{"key1", "one"}, {"key2", "two"}});
    save(0x10000, {1, 2, true});
    const std::string good = snapshot();
    removeFile(walPath());
    for (size_t at = 0; at < good.size(); ++at) {
        std::string flipped = good;
        flipped[at] = static_cast<char>(flipped[at] ^ 1 << at % 8);
        ASSERT_EQ(refusal(flipped), "File integrity violated; hashes do not match") << at;
        const std::string cut = good.substr(0, at);
        const std::string message = refusal(cut);
        ASSERT_EQ(message, at < 38 ? "Invalid file size: " + std::to_string(at)
                                   : "File integrity violated; hashes do not match");
    }
    EXPECT_FALSE(pathExists(walPath())) << "nothing was made beside a bad snapshot";
}

TEST_F(SnapshotTest, RefusesWhatIsWrongBehindAValidHash) {
    const auto refused = [&](const std::string& behindMagic) {
        return refusal(withFileHash(kMagic + behindMagic));
    };
    EXPECT_EQ(refusal(withFileHash("Quillmere snapshot\0\1\3\x64"s)),
              "Invalid file: this is not a Quillmere snapshot file");
    EXPECT_EQ(refused("\2\3\x64"), "Invalid file version: 2");
    EXPECT_EQ(refused("\1\x0B\x64"), "Invalid flags detected: 11");
    EXPECT_THAT(refused("\1\xC1\0\0\x64"s), StartsWith("Expected "))
        << "a header that runs into the hash";
    const std::string header = "\1\xC1\0\3\1\0\0\0\0"s;
    EXPECT_EQ(refused(header + "\7\x64"), "Invalid KvLog operation with code: 7");
    EXPECT_EQ(refused(header + "\x64\x64"), "Invalid file format; bytes left: 17");
    EXPECT_THAT(refused(header + "\1\4key1\x60"), StartsWith("Expected 96 available bytes"));
    EXPECT_EQ(refusal<IllegalStateException>(withFileHash(kMagic + "\1\3\x64")),
              "No TX sequence in snapshot");
}

TEST_F(SnapshotTest, StepsOutOfOrderAndMissingFilesAreRefused) {
    open();
    EXPECT_EQ(messageOf<IllegalArgumentException>([] { SnapshotReader(""); }),
              "No file path given");
    SnapshotReader missing(dir.path("none"));
    EXPECT_EQ(messageOf<IoException>([&] { missing.openFile(); }), "File not found");
    EXPECT_EQ(messageOf<SnapshotFileInvalidException>([&] { missing.checkIntegrity(); }),
              "Not a valid file; size: 0");
    EXPECT_EQ(messageOf<IllegalStateException>([&] { missing.readHeader(); }),
              "Reader not initialized");
    SnapshotReader directory(dir.path());
    EXPECT_EQ(messageOf<IoException>([&] { directory.openFile(); }), "Given path is not a file");

    EXPECT_EQ(messageOf<IllegalStateException>([&] { save(0x10000, {}); }),
              "State condition failed in writeHeader:73: txSequence_");
    EXPECT_EQ(messageOf<IllegalStateException>([&] { save(0, {1, 2, true}); }),
              "State condition failed in writeHeader:77: !txSequence_");
    EXPECT_FALSE(pathExists(snapshotPath() + ".new")) << "removed after the failure";
    EXPECT_FALSE(pathExists(snapshotPath()));
}

}  // namespace
}  // namespace quillmere
