#include "kv/kv_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "core/bytes_writer.h"
#include "kv/rle0.h"
#include "support/expect_throw.h"
#include "support/seed.h"

namespace quillmere {
namespace {

using namespace std::string_literals;

struct Op {
    bool put;
    std::string key;
    std::string value;
    bool operator==(const Op&) const = default;
};

struct CollectingHandler : KvLogHandler {
    void put(const Bytes& key, const Bytes& value) override {
        ops.push_back({true, std::string(key.text()), std::string(value.text())});
    }
    void remove(const Bytes& key) override {
        ops.push_back({false, std::string(key.text()), ""});
    }
    std::vector<Op> ops;
};

Bytes view(std::string_view text) {
    return Bytes(text.data(), text.size());
}

void write(KvLog& log, const Op& op) {
    if (op.put) {
        log.writePut(view(op.key), view(op.value));
    } else {
        log.writeRemove(view(op.key));
    }
}

std::string written(const std::vector<Op>& ops, KvLog::Remember remember) {
    Bytes target;
    BytesWriter writer(target);
    KvLog log(writer, remember);
    for (const Op& op : ops) write(log, op);
    writer.finish();
    return std::string(target.text());
}

std::vector<Op> readBack(std::string_view log) {
    CollectingHandler handler;
    KvLogReader reader(view(log), handler);
    reader.readAll();
    EXPECT_EQ(handler.ops.size(), reader.putCount() + reader.removeCount());
    return handler.ops;
}

Op put(std::string key, std::string value) { return {true, std::move(key), std::move(value)}; }
Op removal(std::string key) { return {false, std::move(key), ""}; }

TEST(KvLogTest, WritesTheSmallestFormOfEachOperation) {
    const std::string big(1000, 'v');
    const std::vector<Op> ops = {
        put("\0\0\0\1\5"s, "abcd1"),              // 1
        put("\0\0\0\1\6"s, "abcd22"),             // 5: the value's prefix is just long enough
        put("\0\0\0\1\7"s, "abX"),                // 6
        put("\0\0\0\1\xFF"s, "abXY"),             // 2: three bytes in common are too few
        put("\0\0\0\1\0"s, "abXYZ"),              // 4: no increment over a carry
        put("\1"s, "abXYZ"),                      // 3: the whole value is the prefix
        put("\2"s, big),                          // 1
        put("\2\0\0\0\0"s, "vvvv" + std::string(795, 'w')),  // 3: 4 is at least 5 per mille of 799
        put("\2\0\0\0\0\0"s, "vvvv" + std::string(1000, 'x')),  // 2: but not of 1004
        removal("\2\0\0\0\0\1"s),                 // 12
        removal("\2\0\0\0\0\3"s),                 // 11
        removal("\3"),                            // 10
        put("\3\0\0\0"s, ""),                     // 1: an empty value
        put("\3\0\0\0"s, "vvvvx"),                // 2: the key again; the value before is empty
    };
    std::string expected = "\1\5\0\0\0\1\5\5abcd1"s "\5\4\2" "22" "\6\3abX" "\2\4\1\xFF\4abXY"s
                           "\4\4\1\0\4\1Z"s "\3\1\1\5\0"s "\1\1\2\x83\xE8"s;
    expected += big;
    expected += "\3\5\2\0\0\0\0\4\x83\x1B"s + std::string(795, 'w');
    expected += "\2\5\1\0\x83\xECvvvv"s + std::string(1000, 'x');
    expected += "\x0C" "\x0B\5\1\3" "\x0A\1\3" "\1\4\3\0\0\0\0"s "\2\4\0\5vvvvx"s;
    EXPECT_EQ(written(ops, KvLog::Remember::Copies), expected);
    EXPECT_EQ(written(ops, KvLog::Remember::Views), expected);
    EXPECT_EQ(readBack(expected), ops);
    EXPECT_EQ(readBack(expected + "\x64" + "behind the end"), ops);
}

TEST(KvLogTest, RandomOperationsComeBackAlsoAsRle0) {
    std::mt19937 random(testSeed());
    const auto upTo = [&](unsigned limit) { return random() % (limit + 1); };
    const auto randomBytes = [&](size_t size, unsigned alphabet) {
        std::string bytes(size, '\0');
        for (char& byte : bytes) byte = static_cast<char>(upTo(alphabet) * 0x7F);
        return bytes;
    };
    Bytes target;
    BytesWriter writer(target);
    KvLog log(writer);
    for (int round = 0; round < 300; ++round) {
        std::vector<Op> ops;
        std::string key = "\0\0\0\1\0\0\0\0"s;
        std::string value;
        for (unsigned i = upTo(30); i > 0; --i) {
            if (upTo(3) != 0) {
                key.back() = static_cast<char>(key.back() + 1);
            } else {
                key = key.substr(0, 1 + upTo(7)) + randomBytes(upTo(12), 2);
            }
            value = value.substr(0, upTo(300)) + randomBytes(upTo(4) ? upTo(60) : upTo(700), 2);
            if (upTo(5) == 0) value += std::string(upTo(70000), '\0');
            ops.push_back(upTo(4) ? put(key, value) : removal(key));
        }
        // The buffer and the log are used again and again, as a WAL does.
        writer.reset();
        log.reset();
        for (const Op& op : ops) write(log, op);
        log.writeEnd();
        const std::string bytes(reinterpret_cast<const char*>(target.data()), writer.position());
        ASSERT_EQ(readBack(bytes), ops) << "round " << round;

        const auto* const source = reinterpret_cast<const uint8_t*>(bytes.data());
        std::vector<uint8_t> encoded(2 * bytes.size());
        const size_t size = rle0Encode(source, bytes.size(), encoded.data(), encoded.size());
        ASSERT_NE(size, 0u);
        ASSERT_EQ(rle0Encode(source, bytes.size(), encoded.data(), size - 1), 0u);
        ASSERT_EQ(rle0Encode(source, bytes.size(), encoded.data(), size), size);
        std::string decoded(bytes.size() + 1, 'x');
        ASSERT_EQ(rle0Decode(encoded.data(), size, reinterpret_cast<uint8_t*>(decoded.data()),
                             bytes.size()),
                  bytes.size());
        decoded.pop_back();
        ASSERT_TRUE(decoded == bytes) << "round " << round;
    }
}

TEST(KvLogTest, IsClosedByItsEndUntilReset) {
    Bytes target;
    BytesWriter writer(target);
    KvLog log(writer);
    log.writePut(view("key1"), view("v"));
    log.writeEnd();
    EXPECT_EQ(messageOf<IllegalStateException>([&] { log.writePut(view("k"), view("v")); }),
              "State condition failed in writePut:124: !hasWrittenEnd_");
    EXPECT_EQ(messageOf<IllegalStateException>([&] { log.writeRemove(view("k")); }),
              "State condition failed in writeRemove:159: !hasWrittenEnd_");
    log.reset();
    writer.reset();
    log.writePut(view("key2"), view(""));
    EXPECT_EQ(log.putCount(), 1u);
    writer.finish();
    EXPECT_EQ(target.text(), "\1\4key2\0"s) << "nothing is left of the log before";
}

TEST(KvLogReaderTest, RefusesMalformedLogs) {
    const auto refusal = [](const std::string& log) {
        return messageOf<KvLogReader::InvalidFormatException>([&] { readBack(log); });
    };
    EXPECT_EQ(refusal("\0"s), "Invalid KvLog operation with code: 0");
    EXPECT_EQ(refusal("\7"), "Invalid KvLog operation with code: 7");
    EXPECT_EQ(refusal("\x0D"), "Invalid KvLog operation with code: 13");
    EXPECT_EQ(refusal("\x63"), "Invalid KvLog operation with code: 99");
    EXPECT_EQ(refusal("\xFF"), "Invalid KvLog operation with code: 255");
    EXPECT_EQ(refusal("\3\1k\1\0"s), "prefixSize is higher than previous data size");
    EXPECT_EQ(refusal("\x0B\1\0"s), "prefixSize is higher than previous data size");
    EXPECT_EQ(refusal("\6"), "Increment without previous value");
    EXPECT_EQ(refusal("\x0A\2\xFF\xFF\x0C"), "Increment overflow");
    EXPECT_EQ(readBack("\x0A\2\1\xFF\x0C"), (std::vector{removal("\1\xFF"), removal("\2\0"s)}));
}

TEST(KvLogReaderTest, BelievesNoSizeBeforeItsBytesAreThere) {
    const std::string huge(9, '\xFF');
    for (const std::string& log :
         {"\1"s + huge, "\1\1k"s + huge, "\1\4key1\0\2\4"s + huge, "\1\4key1\0\5\0"s + huge}) {
        EXPECT_THAT(messageOf<BytesReader::BufferOverflowException>([&] { readBack(log); }),
                    testing::StartsWith("Expected 18446744073709551615 available bytes"));
    }
    // Cut within an operation: an overflow; at its boundary: a shorter log.
    const std::string whole = "\1\4key1\3abc"s "\6\1d"s;
    for (size_t size = 0; size < whole.size(); ++size) {
        const std::string cut = whole.substr(0, size);
        if (size == 0 || size == 10) {
            EXPECT_EQ(readBack(cut).size(), size / 10);
        } else {
            EXPECT_THROW(readBack(cut), BytesReader::BufferOverflowException) << size;
        }
    }
}

// ---- RLE0 ---------------------------------------------------------------------------------------

std::string encoded(const std::string& source, size_t capacity) {
    std::string result(capacity, 'x');
    result.resize(rle0Encode(reinterpret_cast<const uint8_t*>(source.data()), source.size(),
                             reinterpret_cast<uint8_t*>(result.data()), capacity));
    return result;
}

std::string decoded(const std::string& source, size_t capacity) {
    std::string result(capacity + 1, 'x');
    result.resize(rle0Decode(reinterpret_cast<const uint8_t*>(source.data()), source.size(),
                             reinterpret_cast<uint8_t*>(result.data()), capacity));
    return result;
}

TEST(Rle0Test, EncodesEachLengthOfARunInItsForm) {
    const std::vector<std::tuple<size_t, std::string, std::string>> forms = {
        // zeros, what follows, encoded
        {0, "plain text, no zeros", "plain text, no zeros"},
        {1, "\5", "\0\5"s},
        {1, "\xDF", "\0\xDF"s},
        {1, "\xE0", "\0\xE1\xE0"s},
        {1, "", "\0\xE1"s},
        {2, "\5", "\0\xE2\5"s},
        {29, "", "\0\xFD"s},
        {30, "", "\0\xFE\0"s},
        {285, "", "\0\xFE\xFF"s},
        {286, "", "\0\xFF\x01\x1E"s},
        {65535, "", "\0\xFF\xFF\xFF"s},
        {65536, "\5", "\0\xFF\xFF\xFF\0\5"s},
    };
    for (const auto& [zeros, tail, form] : forms) {
        const std::string source = std::string(zeros, '\0') + tail;
        EXPECT_EQ(encoded(source, form.size()), form) << zeros;
        EXPECT_EQ(encoded(source, form.size() - 1), "") << "does not fit: " << zeros;
        EXPECT_EQ(decoded(form, source.size()), source) << zeros;
    }
}

TEST(Rle0Test, RefusesMalformedInputAndStaysWithinTheDestination) {
    const auto refusal = [](const std::string& source, size_t capacity) {
        return messageOf<ParsingException>([&] { decoded(source, capacity); });
    };
    EXPECT_EQ(refusal("\0"s, 9), "RLE zero is incomplete");
    EXPECT_EQ(refusal("\0\xE0"s, 9), "Illegal special value");
    EXPECT_EQ(refusal("\0\xFE"s, 999), "RLE zero count is incomplete");
    EXPECT_EQ(refusal("\0\xFF\xFF"s, 99999), "RLE extended zero count is incomplete");
    EXPECT_EQ(refusal("\0\xFF\x01\x1D"s, 999), "Illegal RLE extended zero count: 285");
    EXPECT_EQ(refusal("ab\0\xE3"s, 4), "RLE zero count exceeds destination size");
    EXPECT_EQ(decoded("abcdef", 4), "abcd");
    EXPECT_EQ(decoded("\0\5rest"s, 1), "\0\5"s) << "the byte of slack";
}

}  // namespace
}  // namespace quillmere
