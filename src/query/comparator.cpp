#include "query/comparator.h"

#include <limits>
#include <string_view>
#include <type_traits>
#include <utility>

#include "core/error.h"
#include "query/number_value.h"
#include "query/property_rules.h"
#include "query/text_compare.h"
#include "schema/property.h"
#include "store/object_table.h"

namespace quillmere {
namespace {

using Next = std::shared_ptr<const Comparator>;

// What all kinds have in common.
class PropertyComparator : public Comparator {
protected:
    PropertyComparator(const Property& property, uint32_t flags, Next next)
        : next_(std::move(next)),
          slot_(property.flatOffset()),
          descending_((flags & kOrderDescending) != 0),
          nullsLast_((flags & kOrderNullsLast) != 0) {}

    bool decideTie(const ObjectTable& a, const ObjectTable& b) const {
        return next_ && next_->before(a, b);
    }

    const Next next_;
    const uint16_t slot_;
    const bool descending_;
    const bool nullsLast_;
};

// The value that a null counts as. Where nulls come first it is the smallest integer, but for
// floats the smallest positive one, so that nulls stand behind the negative values.
template <class T>
T nullReplacement(uint32_t flags) {
    if (flags & kOrderNullsZero) return T{0};
    return (flags & kOrderNullsLast) ? std::numeric_limits<T>::max()
                                     : std::numeric_limits<T>::min();
}

template <class T>
class ScalarComparator : public PropertyComparator {
public:
    ScalarComparator(const Property& property, uint32_t flags, Next next)
        : PropertyComparator(property, flags, std::move(next)),
          replacement_(nullReplacement<T>(flags)),
          nullsZero_((flags & kOrderNullsZero) != 0) {}

    bool before(const ObjectTable& a, const ObjectTable& b) const override {
        const uint8_t* const aField = a.field(slot_, sizeof(T));
        const uint8_t* const bField = b.field(slot_, sizeof(T));
        const T aValue = aField ? loadNumber<T>(aField) : replacement_;
        const T bValue = bField ? loadNumber<T>(bField) : replacement_;
        // A NaN is neither before nor behind anything.
        if (aValue != bValue) return descending_ ? aValue > bValue : aValue < bValue;
        // A value that equals what a null counts as.
        if (!aField != !bField && !nullsZero_) return (aField != nullptr) == nullsLast_;
        return decideTie(a, b);
    }

private:
    const T replacement_;
    const bool nullsZero_;
};

std::string_view upToZero(std::string_view text) {
    return text.substr(0, text.find('\0'));
}

class StringComparator : public PropertyComparator {
public:
    StringComparator(const Property& property, uint32_t flags, Next next)
        : PropertyComparator(property, flags, std::move(next)),
          caseSensitive_((flags & kOrderCaseSensitive) != 0) {}

    bool before(const ObjectTable& a, const ObjectTable& b) const override {
        const std::string_view aText = a.string(slot_);
        const std::string_view bText = b.string(slot_);
        if (!aText.data() != !bText.data()) return (aText.data() != nullptr) == nullsLast_;
        if (aText.data()) {
            const int order = compare(upToZero(aText), upToZero(bText));
            if (order != 0) return descending_ ? order > 0 : order < 0;
        }
        return decideTie(a, b);
    }

private:
    int compare(std::string_view a, std::string_view b) const {
        return caseSensitive_ ? compareText<CaseSensitive>(a, b)
                              : compareText<CaseInsensitive>(a, b);
    }

    const bool caseSensitive_;
};

template <class T>
Next makeScalar(const Property& property, uint32_t flags, Next next) {
    if ((flags & kOrderNullsLast) && (flags & kOrderNullsZero)) {
        throwIllegalArgument("Only one of the NULLS order flags may be used");
    }
    return std::make_shared<ScalarComparator<T>>(property, flags, std::move(next));
}

template <class Signed>
Next makeInteger(const Property& property, uint32_t flags, Next next) {
    using Unsigned = std::make_unsigned_t<Signed>;
    const bool isUnsigned = (flags & kOrderUnsigned) || hasUnsignedValues(property);
    return isUnsigned ? makeScalar<Unsigned>(property, flags, std::move(next))
                      : makeScalar<Signed>(property, flags, std::move(next));
}

Next makeString(const Property& property, uint32_t flags, Next next) {
    if (flags & kOrderNullsZero) {
        throwIllegalArgument("NULLS_ZERO order flag is not supported for strings");
    }
    return std::make_shared<StringComparator>(property, flags, std::move(next));
}

}  // namespace

std::shared_ptr<const Comparator> makeComparator(const Property& property, uint32_t flags,
                                                 std::shared_ptr<const Comparator> next) {
    switch (property.type()) {
        case PropertyType::Bool: return makeScalar<uint8_t>(property, flags, std::move(next));
        case PropertyType::Byte: return makeInteger<int8_t>(property, flags, std::move(next));
        case PropertyType::Short:
        case PropertyType::Char: return makeInteger<int16_t>(property, flags, std::move(next));
        case PropertyType::Int: return makeInteger<int32_t>(property, flags, std::move(next));
        case PropertyType::Long:
        case PropertyType::Date:
        case PropertyType::DateNano: return makeInteger<int64_t>(property, flags, std::move(next));
        case PropertyType::Float: return makeScalar<float>(property, flags, std::move(next));
        case PropertyType::Double: return makeScalar<double>(property, flags, std::move(next));
        case PropertyType::String: return makeString(property, flags, std::move(next));
        default: throwException("Order: Unsupported type for property ", property.name());
    }
}

}  // namespace quillmere
