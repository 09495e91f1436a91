#pragma once
// MetadataValue: one value of any metadata type, tagged with its MetadataType. It carries a field's
// value where the type is known only at run time (generic reads, query conditions).
//
// The typed getters check the tag with a logged assertion ("_type == MdtInt", "_type == MdtVec2i"
// ...) and return a zero value of the asked type on a mismatch.
// Thread contract: a plain value; distinct objects may be used on any threads.

#include <ostream>
#include <variant>

#include "imageio/MetadataField.h"

namespace qor::imageio {

class MetadataValue {
public:
    // No value; type() is MdtUnknown.
    MetadataValue() = default;
    MetadataValue(int value) : _type(MdtInt), _value(value) {}
    MetadataValue(const Vec2i& value) : _type(MdtVec2i), _value(value) {}
    MetadataValue(double value) : _type(MdtDouble), _value(value) {}
    MetadataValue(const Vec3d& value) : _type(MdtVec3d), _value(value) {}
    MetadataValue(const FastString<char>& value) : _type(MdtString), _value(value) {}
    MetadataValue(const Timestamp& value) : _type(MdtTime), _value(value) {}
    MetadataValue(const Digest& value) : _type(MdtDigest), _value(value) {}

    // The zero value of a type: 0, (0,0), 0.0, (0,0,0), "", the null time, the null digest.
    static MetadataValue zero(MetadataType type);

    MetadataType type() const { return _type; }
    bool empty() const { return _type == MdtUnknown; }

    int getInt() const;
    Vec2i getVec2i() const;
    double getDouble() const;
    Vec3d getVec3d() const;
    FastString<char> getString() const;
    Timestamp getTime() const;
    Digest getDigest() const;

    // Same type and same value.
    friend bool operator==(const MetadataValue& a, const MetadataValue& b) {
        return a._type == b._type && a._value == b._value;
    }
    // The value as text (a time in ISO form, a digest in hex); nothing for an empty value.
    friend std::ostream& operator<<(std::ostream& out, const MetadataValue& v);

private:
    using Value = std::variant<std::monostate, int, Vec2i, double, Vec3d, FastString<char>,
                               Timestamp, Digest>;

    template <class T>
    T valueAs() const {
        const T* held = std::get_if<T>(&_value);
        return held ? *held : T{};
    }

    MetadataType _type = MdtUnknown;
    Value _value;
};

}  // namespace qor::imageio
