#include "imagecache/metadata/FieldExpression.h"

#include <cstdint>
#include <string>

#include "base/Log.h"
#include "text/TextUtils.h"

namespace qor::imagecache {

namespace {

// -1, 0 or 1 as `a` is below, equal to or above `b`.
template <class T>
int order(const T& a, const T& b) {
    return a < b ? -1 : (b < a ? 1 : 0);
}

bool comparable(MetadataType type) {
    return type == imageio::MdtInt || type == imageio::MdtVec2i || type == imageio::MdtString;
}

}  // namespace

bool FieldCondition::accepts(const MetadataValue& value) const {
    const MetadataType type = _refValue.type();
    if (value.type() != type || !comparable(type)) {
        QOR_ASSERT_TEXT(false, "false");
        return false;
    }
    int cmp = 0;         // the value's order against the reference
    bool equal = false;  // Equal means the same value, which for a size is more than its area
    bool contains = false;
    switch (type) {
        case imageio::MdtInt:
            cmp = order(value.getInt(), _refValue.getInt());
            equal = cmp == 0;
            break;
        case imageio::MdtVec2i: {
            const imageio::Vec2i a = value.getVec2i(), b = _refValue.getVec2i();
            cmp = order(int64_t(a.x) * a.y, int64_t(b.x) * b.y);
            equal = a == b;
            break;
        }
        default: {  // MdtString
            const std::string a = text::downcase(value.getString().view());
            const std::string b = text::downcase(_refValue.getString().view());
            cmp = a.compare(b) < 0 ? -1 : (a == b ? 0 : 1);
            equal = cmp == 0;
            contains = a.find(b) != std::string::npos;
            break;
        }
    }
    switch (_comparison) {
        case Equal:
            return equal;
        case NotEqual:
            return !equal;
        case Less:
            return cmp < 0;
        case LessOrEqual:
            return cmp <= 0;
        case Greater:
            return cmp > 0;
        case GreaterOrEqual:
            return cmp >= 0;
        case Contains:
            return type == imageio::MdtString && contains;
    }
    return false;
}

void FieldExpression::addCondition(const FieldCondition& cond) {
    QOR_ASSERT(cond.refValue().type() == fieldDataType(_field));
    QOR_ASSERT(cond.comparison() != FieldCondition::Contains || isString());
    _conditions.push_back(cond);
}

bool FieldExpression::isString() const { return fieldDataType(_field) == imageio::MdtString; }

bool FieldExpression::isScalar() const {
    const MetadataType type = fieldDataType(_field);
    return type == imageio::MdtInt || type == imageio::MdtDouble;
}

bool FieldExpression::matches(const ItemMetadata& item) const {
    const MetadataType type = fieldDataType(_field);
    if (!comparable(type)) {
        QOR_ASSERT_TEXT(false, "false");
        return false;
    }
    if (_conditions.empty()) return false;
    const MetadataValue value = item.getGeneric(_field);
    for (const FieldCondition& cond : _conditions)
        if (cond.refValue().type() == type && cond.accepts(value)) return true;
    return false;
}

}  // namespace qor::imagecache
