#include "query/string_set_condition.h"

#include <algorithm>
#include <limits>
#include <string>
#include <unordered_set>

#include "core/ascii.h"
#include "core/hash.h"
#include "schema/property.h"
#include "store/index_cursor.h"
#include "store/object_table.h"

namespace quillmere {
namespace {

// The strings with a summary of their lengths, which discards most others without a look-up.
class StringSet {
public:
    StringSet(const std::vector<std::string_view>& values, bool caseSensitive)
        : caseSensitive_(caseSensitive) {
        for (const std::string_view value : values) add(value);
        folded_.reserve(maxLength_);
    }

    bool contains(std::string_view text) const {
        const size_t length = text.size();
        if (length < minLength_ || length > maxLength_ || (lengthBits_ | length) != lengthBits_) {
            return false;
        }
        const std::string_view upToZero = text.substr(0, text.find('\0'));
        if (caseSensitive_) return strings_.contains(upToZero);
        folded_.assign(upToZero);
        for (char& c : folded_) c = foldAscii(c);
        return strings_.contains(folded_);
    }
    const auto& strings() const { return strings_; }

private:
    void add(std::string_view value) {
        std::string copy = caseSensitive_ ? std::string(value) : foldAscii(value);
        minLength_ = std::min(minLength_, copy.size());
        maxLength_ = std::max(maxLength_, copy.size());
        lengthBits_ |= copy.size();
        strings_.insert(std::move(copy));
    }

    std::unordered_set<std::string, FnvHash<std::string>, std::equal_to<>> strings_;
    size_t minLength_ = std::numeric_limits<size_t>::max();
    size_t maxLength_ = 0;
    size_t lengthBits_ = 0;  // of all lengths
    mutable std::string folded_;  // memory for look-ups: at most maxLength_
    bool caseSensitive_;
};

class QueryConditionStringIn final : public QueryConditionWithProperty {
public:
    QueryConditionStringIn(const Property& property, const std::vector<std::string_view>& values,
                           bool caseSensitive)
        : QueryConditionWithProperty(QueryOp::In, property, ParamKind::StringSet),
          set_(values, caseSensitive), caseSensitive_(caseSensitive) {}

    bool check(const QueryContext& context) const override {
        const std::string_view stored = context.table.string(fieldOffset());
        return stored.data() && set_.contains(stored);
    }
    std::string describe(uint32_t) const override {
        std::string text = property().name() + " in" + (caseSensitive_ ? " [" : "(i) [");
        const char* separator = "";
        for (const std::string_view string : sortedStrings()) {
            text.append(separator).append("\"").append(string).append("\"");
            separator = ", ";
        }
        return text + ']';
    }
    std::unique_ptr<QueryCondition> clone() const override {
        return std::make_unique<QueryConditionStringIn>(*this);
    }
    void setStrings(const std::vector<std::string_view>& values) override {
        set_ = StringSet(values, caseSensitive_);
    }

    bool canLookupIndex() const override { return caseSensitive_ && property().isIndexed(); }
    // An empty set finds nothing at once.
    bool lookupIndex(IndexCursor& cursor, std::vector<uint64_t>& ids, bool& notDefinite) override {
        const auto found = static_cast<std::ptrdiff_t>(ids.size());
        for (const std::string& string : set_.strings()) {
            bool stringNotDefinite = false;
            cursor.findIds(string, &ids, stringNotDefinite, IndexMatch::Equal);
            notDefinite = notDefinite || stringNotDefinite;
        }
        std::sort(ids.begin() + found, ids.end());
        ids.erase(std::unique(ids.begin() + found, ids.end()), ids.end());
        return true;
    }

private:
    std::vector<std::string_view> sortedStrings() const {
        std::vector<std::string_view> strings(set_.strings().begin(), set_.strings().end());
        std::sort(strings.begin(), strings.end());
        return strings;
    }

    StringSet set_;
    const bool caseSensitive_;
};

}  // namespace

std::unique_ptr<QueryCondition> makeStringSetCondition(const Property& property,
                                                       const std::vector<std::string_view>& values,
                                                       bool caseSensitive) {
    return std::make_unique<QueryConditionStringIn>(property, values, caseSensitive);
}

}  // namespace quillmere
