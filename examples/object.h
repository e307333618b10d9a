#pragma once

// Objects are FlatBuffers tables. With a schema file, flatc generates classes for them; these two
// show what such classes come down to. The property with ID n is the n-th field of the table.

#include <flatbuffers/flatbuffers.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Writes one object after the other and reuses its memory. Texts come first, as FlatBuffers cannot
// create them inside of a table; a property that is not written is null.
class ObjectWriter {
public:
    ObjectWriter() { builder_.ForceDefaults(true); }

    ObjectWriter& text(uint16_t propertyId, std::string_view value) {
        offsets_.emplace_back(fieldOf(propertyId), builder_.CreateString(value).o);
        return *this;
    }
    ObjectWriter& texts(uint16_t propertyId, const std::vector<std::string>& values) {
        offsets_.emplace_back(fieldOf(propertyId), builder_.CreateVectorOfStrings(values).o);
        return *this;
    }
    template <class T>
    ObjectWriter& number(uint16_t propertyId, T value) {
        startTable();
        builder_.AddElement<T>(fieldOf(propertyId), value, T{});
        return *this;
    }

    // Ends the object. The bytes live until the next object is begun and may be changed: a put
    // writes the new ID into them.
    std::pair<void*, size_t> finish() {
        startTable();
        for (const auto& [field, offset] : offsets_) {
            builder_.AddOffset(field, flatbuffers::Offset<void>(offset));
        }
        builder_.Finish(flatbuffers::Offset<flatbuffers::Table>(builder_.EndTable(tableStart_)));
        tableStart_ = 0;
        offsets_.clear();
        return {builder_.GetBufferPointer(), builder_.GetSize()};
    }
    ObjectWriter& begin() {
        builder_.Clear();
        return *this;
    }

private:
    static flatbuffers::voffset_t fieldOf(uint16_t propertyId) {
        return flatbuffers::FieldIndexToOffset(static_cast<flatbuffers::voffset_t>(propertyId - 1));
    }
    void startTable() {
        if (tableStart_ == 0) tableStart_ = builder_.StartTable();
    }

    flatbuffers::FlatBufferBuilder builder_;
    std::vector<std::pair<flatbuffers::voffset_t, flatbuffers::uoffset_t>> offsets_;
    flatbuffers::uoffset_t tableStart_ = 0;
};

// Reads the properties of an object in place; lives no longer than the bytes.
class ObjectReader {
public:
    explicit ObjectReader(const void* data)
        : table_(flatbuffers::GetRoot<flatbuffers::Table>(data)) {}

    bool isNull(uint16_t propertyId) const { return !table_->CheckField(fieldOf(propertyId)); }

    template <class T>
    T number(uint16_t propertyId) const {
        return table_->GetField<T>(fieldOf(propertyId), T{});
    }
    std::string_view text(uint16_t propertyId) const {
        const auto* text = table_->GetPointer<const flatbuffers::String*>(fieldOf(propertyId));
        return text ? text->string_view() : std::string_view();
    }
    std::vector<std::string> texts(uint16_t propertyId) const {
        using Texts = flatbuffers::Vector<flatbuffers::Offset<flatbuffers::String>>;
        std::vector<std::string> values;
        if (const auto* texts = table_->GetPointer<const Texts*>(fieldOf(propertyId))) {
            for (const auto* text : *texts) values.push_back(text->str());
        }
        return values;
    }

private:
    static flatbuffers::voffset_t fieldOf(uint16_t propertyId) {
        return flatbuffers::FieldIndexToOffset(static_cast<flatbuffers::voffset_t>(propertyId - 1));
    }

    const flatbuffers::Table* table_;
};
