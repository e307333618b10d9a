#include "query/bytes_condition.h"

#include <algorithm>
#include <functional>
#include <string>
#include <string_view>

#include "core/bytes.h"
#include "query/text_compare.h"
#include "schema/property.h"
#include "store/object_table.h"

namespace quillmere {
namespace {

constexpr size_t kShownText = 20;
constexpr size_t kShownBytes = 10;

bool isPrintable(char c) { return c >= 0x20 && c < 0x7F; }

// `Compare` is asked for the order of a stored value to the parameter, a number, and 0.
template <class Compare>
class QueryConditionBytes final : public QueryConditionWithProperty {
public:
    QueryConditionBytes(const Property& property, QueryOp op, const void* data, size_t size)
        : QueryConditionWithProperty(op, property, ParamKind::Bytes) {
        QueryConditionBytes::setBytes(data, size);
    }

    bool check(const QueryContext& context) const override {
        const std::string_view stored = context.table.string(fieldOffset());
        if (!stored.data()) return false;
        if constexpr (std::is_same_v<Compare, std::equal_to<>>) {
            return equalText<CaseSensitive>(stored, bytes_);
        } else {
            return Compare()(compareText<CaseSensitive>(stored, bytes_), 0);
        }
    }
    std::string describe(uint32_t) const override {
        std::string text = property().name() + ' ' + queryOpWord(op()) + " byte[" +
                           std::to_string(bytes_.size()) + ']';
        if (std::all_of(bytes_.begin(), bytes_.end(), isPrintable)) {
            return text + '"' + bytes_.substr(0, kShownText) + '"';
        }
        return text + "{0x" + Bytes(bytes_.data(), bytes_.size()).toHex(kShownBytes) + '}';
    }
    std::unique_ptr<QueryCondition> clone() const override {
        return std::make_unique<QueryConditionBytes>(*this);
    }
    void setBytes(const void* data, size_t size) override {
        bytes_.assign(static_cast<const char*>(data), size);
    }

private:
    std::string bytes_;
};

}  // namespace

std::unique_ptr<QueryCondition> makeBytesCondition(const Property& property, QueryOp op,
                                                   const void* data, size_t size) {
    const auto make = [&]<class Compare>(Compare) -> std::unique_ptr<QueryCondition> {
        return std::make_unique<QueryConditionBytes<Compare>>(property, op, data, size);
    };
    switch (op) {
        case QueryOp::Equal: return make(std::equal_to<>());
        case QueryOp::Less: return make(std::less<>());
        case QueryOp::LessOrEqual: return make(std::less_equal<>());
        case QueryOp::Greater: return make(std::greater<>());
        case QueryOp::GreaterOrEqual: return make(std::greater_equal<>());
        default: throwUnsupportedOp(op);
    }
}

}  // namespace quillmere
