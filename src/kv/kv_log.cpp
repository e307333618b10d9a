#include "kv/kv_log.h"

#include <algorithm>
#include <bit>
#include <string>

#include "core/bytes_writer.h"
#include "core/checks.h"
#include "core/endian.h"
#include "kv/db_cursor.h"

namespace quillmere {

namespace {

// The form of a key or value. None: the operation has no value; or, for a key, is no operation.
enum class Form : uint8_t { None, Full, Prefixed, Incremented };

constexpr uint8_t kEnd = 100;
constexpr uint8_t kPutCodes[][2] = {{}, {1, 3}, {2, 4}, {6, 5}};  // by key form; value prefixed
constexpr uint8_t kRemoveCodes[] = {0, 10, 11, 12};               // by key form

struct Operation {
    Form key;
    Form value;
};

constexpr Operation kOperations[] = {
    {},
    {Form::Full, Form::Full},
    {Form::Prefixed, Form::Full},
    {Form::Full, Form::Prefixed},
    {Form::Prefixed, Form::Prefixed},
    {Form::Incremented, Form::Prefixed},
    {Form::Incremented, Form::Full},
    {}, {}, {},
    {Form::Full, Form::None},
    {Form::Prefixed, Form::None},
    {Form::Incremented, Form::None},
};

// A shorter common prefix saves nothing.
constexpr size_t kMinPrefix = 4;
// Nor does one of less than 5 per mille of a value.
constexpr size_t kMinValuePerMille = 5;

size_t commonPrefix(const Bytes& left, const Bytes& right) {
    const size_t limit = std::min(left.size(), right.size());
    size_t size = 0;
    while (limit - size >= 8) {
        const uint64_t difference = loadLittle<uint64_t>(left.data() + size) ^
                                    loadLittle<uint64_t>(right.data() + size);
        if (difference != 0) return size + static_cast<size_t>(std::countr_zero(difference)) / 8;
        size += 8;
    }
    while (size < limit && left.data()[size] == right.data()[size]) ++size;
    return size;
}

Form keyFormOf(const Bytes& key, const Bytes& previous, size_t prefix) {
    if (prefix < kMinPrefix) return Form::Full;
    if (prefix + 1 == key.size() && key.size() == previous.size()) {
        const uint8_t last = key.data()[prefix];
        if (last != 0 && last == previous.data()[prefix] + 1) return Form::Incremented;
    }
    return Form::Prefixed;
}

bool prefixPays(size_t valueSize, size_t prefix) {
    return prefix >= kMinPrefix && prefix >= valueSize * kMinValuePerMille / 1000;
}

[[noreturn, gnu::cold]] void failFormat(const char* message) {
    throwWith<KvLogReader::InvalidFormatException>(message);
}

}  // namespace

// ---- The previous key or value ------------------------------------------------------------------

void KvLogPrevious::copy(const Bytes& data) {
    block.assign(data.data(), data.data() + data.size());
    viewBlock();
}

void KvLogPrevious::takeIntoBlock(size_t size) {
    if (view.data() == block.data()) {
        block.resize(size);
    } else {
        block.assign(view.data(), view.data() + size);
    }
}

void KvLogPrevious::replaceTail(size_t keep, const uint8_t* tail, size_t size) {
    takeIntoBlock(keep);
    block.insert(block.end(), tail, tail + size);
    viewBlock();
}

bool KvLogPrevious::increment() {
    takeIntoBlock(view.size());
    viewBlock();
    for (size_t i = block.size(); i-- > 0;) {
        if (++block[i] != 0) return true;
    }
    return false;
}

// ---- Writing ------------------------------------------------------------------------------------

void KvLog::writePut(const Bytes& key, const Bytes& value) {
    CHECK_STATE_AT(124, !hasWrittenEnd_);
    const size_t keyPrefix = commonPrefix(key, previousKey_.view);
    const size_t valuePrefix = commonPrefix(value, previousValue_.view);
    const Form keyForm = keyFormOf(key, previousKey_.view, keyPrefix);
    const bool prefixed = prefixPays(value.size(), valuePrefix);
    writer_.writeByte(kPutCodes[static_cast<size_t>(keyForm)][prefixed]);
    if (keyForm == Form::Full) writeFull(key);
    if (keyForm == Form::Prefixed) writePrefixed(key, keyPrefix);
    if (prefixed) {
        writePrefixed(value, valuePrefix);
    } else {
        writeFull(value);
    }
    remember(previousKey_, key);
    remember(previousValue_, value);
    ++putCount_;
}

void KvLog::writeRemove(const Bytes& key) {
    CHECK_STATE_AT(159, !hasWrittenEnd_);
    const size_t prefix = commonPrefix(key, previousKey_.view);
    const Form form = keyFormOf(key, previousKey_.view, prefix);
    writer_.writeByte(kRemoveCodes[static_cast<size_t>(form)]);
    if (form == Form::Full) writeFull(key);
    if (form == Form::Prefixed) writePrefixed(key, prefix);
    remember(previousKey_, key);
}

void KvLog::writeEnd() {
    writer_.writeByte(kEnd);
    hasWrittenEnd_ = true;
}

void KvLog::reset() {
    previousKey_.forget();
    previousValue_.forget();
    putCount_ = 0;
    hasWrittenEnd_ = false;
}

void KvLog::writeFull(const Bytes& data) {
    writer_.writeBytesWithSize(data.data(), data.size());
}

void KvLog::writePrefixed(const Bytes& data, size_t prefixSize) {
    CHECK_ARG_AT(19, prefixSize <= data.size());
    writer_.writeVarint(prefixSize);
    writer_.writeBytesWithSize(data.data() + prefixSize, data.size() - prefixSize);
}

void KvLog::remember(KvLogPrevious& previous, const Bytes& data) const {
    if (copies_) {
        previous.copy(data);
    } else {
        previous.view.setView(data.data(), data.size());
    }
}

// ---- Reading ------------------------------------------------------------------------------------

void KvLogCursorHandler::put(const Bytes& key, const Bytes& value) {
    cursor_.put(key.data(), key.size(), value.data(), value.size());
}

void KvLogCursorHandler::remove(const Bytes& key) {
    bool hasNext;
    if (!cursor_.remove(key, hasNext)) {
        throwWith<DbException>("Couldn't remove key from cursor; key size=",
                               std::to_string(key.size()));
    }
}

void KvLogReader::readAll() {
    while (reader_.remaining() != 0) {
        const uint8_t code = reader_.readByte();
        if (code == kEnd) return;
        readOperation(code);
    }
}

void KvLogReader::reset(const Bytes& input) {
    reader_ = BytesReader(input);
    key_.forget();
    value_.forget();
    putCount_ = 0;
    removeCount_ = 0;
}

void KvLogReader::readOperation(uint8_t code) {
    const Operation operation = code < std::size(kOperations) ? kOperations[code] : Operation{};
    switch (operation.key) {
        case Form::Full: readFull(key_); break;
        case Form::Prefixed: readPrefixed(key_); break;
        case Form::Incremented: readIncremented(); break;
        case Form::None:
            throwWith<InvalidFormatException>("Invalid KvLog operation with code: ",
                                              std::to_string(code));
    }
    if (operation.value == Form::None) {
        ++removeCount_;
        handler_.remove(key_.view);
        return;
    }
    if (operation.value == Form::Full) {
        readFull(value_);
    } else {
        readPrefixed(value_);
    }
    ++putCount_;
    handler_.put(key_.view, value_.view);
}

void KvLogReader::readFull(KvLogPrevious& previous) {
    const size_t size = reader_.readVarint();
    previous.view.setView(reader_.readBytes(size), size);
}

void KvLogReader::readPrefixed(KvLogPrevious& previous) {
    const size_t prefixSize = reader_.readVarint();
    if (prefixSize > previous.view.size()) {
        failFormat("prefixSize is higher than previous data size");
    }
    const size_t suffixSize = reader_.readVarint();
    previous.replaceTail(prefixSize, reader_.readBytes(suffixSize), suffixSize);
}

void KvLogReader::readIncremented() {
    if (key_.view.empty()) failFormat("Increment without previous value");
    if (!key_.increment()) failFormat("Increment overflow");
}

}  // namespace quillmere
