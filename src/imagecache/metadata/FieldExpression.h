#pragma once
// FieldExpression: a query on one metadata field of an item, a list of FieldConditions that are
// alternatives: an item matches when any one of them accepts its value. Library views filter and
// search with it, through ItemMetadata, so values come from the metadata cache.
//
// The field is read by its own type, the zero value standing in for an absent one. Fields of type
// MdtInt, MdtVec2i and MdtString can be compared; matches() on any other type fails the logged
// assertion "false" and answers false. Comparisons:
// - MdtInt: as numbers.
// - MdtVec2i (a size): equal when both sides are; ordered by area (x * y), so "Greater than
//   1920 x 1080" means more pixels.
// - MdtString: ignoring case (Unicode lower-casing); ordered by the lower-cased bytes; Contains
//   finds the reference anywhere in the value. Contains is for strings only.
//
// Thread contract: a value; build it on one thread, then match on any number of threads at once.

#include <vector>

#include "imageio/ItemMetadata.h"
#include "imageio/MetadataField.h"
#include "imageio/MetadataValue.h"

namespace qor::imagecache {

using imageio::ItemMetadata;
using imageio::MetadataField;
using imageio::MetadataType;
using imageio::MetadataValue;

class FieldCondition {
public:
    enum Comparison { Equal, NotEqual, Less, LessOrEqual, Greater, GreaterOrEqual, Contains };

    FieldCondition(Comparison comparison, const MetadataValue& refValue)
        : _comparison(comparison), _refValue(refValue) {}

    Comparison comparison() const { return _comparison; }
    const MetadataValue& refValue() const { return _refValue; }

    // Whether `value`, of the reference's type, meets the condition. A value of another type, or
    // of a type that cannot be compared, fails the assertion "false" and is not accepted.
    bool accepts(const MetadataValue& value) const;

private:
    Comparison _comparison;
    MetadataValue _refValue;
};

class FieldExpression {
public:
    explicit FieldExpression(MetadataField field) : _field(field) {}

    MetadataField field() const { return _field; }
    const std::vector<FieldCondition>& conditions() const { return _conditions; }

    // Adds an alternative. A reference of another type than the field's fails the assertion
    // "cond.refValue().type() == fieldDataType(_field)", Contains on a field that is not a string
    // the assertion "cond.comparison() != FieldCondition::Contains || isString()"; such a
    // condition is kept and never accepts.
    void addCondition(const FieldCondition& cond);

    // The field's type is MdtString.
    bool isString() const;
    // The field's type is a single number (MdtInt or MdtDouble).
    bool isScalar() const;

    // Reads the field of `item` through its cache (which may read the file: blocks) and tells
    // whether any condition accepts it. False without conditions.
    bool matches(const ItemMetadata& item) const;

private:
    MetadataField _field;
    std::vector<FieldCondition> _conditions;
};

}  // namespace qor::imagecache
