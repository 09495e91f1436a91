#include "imageio/MetadataValue.h"

#include "base/Log.h"

namespace qor::imageio {

MetadataValue MetadataValue::zero(MetadataType type) {
    switch (type) {
        case MdtInt:
            return MetadataValue(0);
        case MdtVec2i:
            return MetadataValue(Vec2i());
        case MdtDouble:
            return MetadataValue(0.0);
        case MdtVec3d:
            return MetadataValue(Vec3d());
        case MdtString:
            return MetadataValue(FastString<char>());
        case MdtTime:
            return MetadataValue(Timestamp());
        case MdtDigest:
            return MetadataValue(Digest());
        case MdtUnknown:
            break;
    }
    return MetadataValue();
}

int MetadataValue::getInt() const {
    QOR_ASSERT(_type == MdtInt);
    return valueAs<int>();
}

Vec2i MetadataValue::getVec2i() const {
    QOR_ASSERT(_type == MdtVec2i);
    return valueAs<Vec2i>();
}

double MetadataValue::getDouble() const {
    QOR_ASSERT(_type == MdtDouble);
    return valueAs<double>();
}

Vec3d MetadataValue::getVec3d() const {
    QOR_ASSERT(_type == MdtVec3d);
    return valueAs<Vec3d>();
}

FastString<char> MetadataValue::getString() const {
    QOR_ASSERT(_type == MdtString);
    return valueAs<FastString<char>>();
}

Timestamp MetadataValue::getTime() const {
    QOR_ASSERT(_type == MdtTime);
    return valueAs<Timestamp>();
}

Digest MetadataValue::getDigest() const {
    QOR_ASSERT(_type == MdtDigest);
    return valueAs<Digest>();
}

std::ostream& operator<<(std::ostream& out, const MetadataValue& v) {
    std::visit(
        [&out](const auto& value) {
            using T = std::decay_t<decltype(value)>;
            if constexpr (std::is_same_v<T, std::monostate>) {
            } else if constexpr (std::is_same_v<T, Timestamp>) {
                out << value.toString();
            } else {
                out << value;
            }
        },
        v._value);
    return out;
}

}  // namespace qor::imageio
