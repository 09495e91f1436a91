#include "mediadb/library/ResourceProperty.h"

#include <utility>

#include "base/Log.h"
#include "mediadb/library/Library.h"
#include "text/TextUtils.h"

namespace qor::mediadb {

namespace {

bool validType(ResourcePropertyType type) { return type >= RptString && type <= RptTime; }

}  // namespace

ResourceProperty::ResourceProperty(ResourcePropertyType type, Library* library)
    : _type(type), _library(library) {
    QOR_ASSERT_MSG(validType(type), "unknown resource property type %*", static_cast<int>(type));
}

ResourceProperty::ResourceProperty(const ResourceProperty& other) : _type(other._type) {
    thread::ScopedLock lock(other._mutex);
    _value = other._value;
    _library = other._library;
}

Library* ResourceProperty::library() const {
    thread::ScopedLock lock(_mutex);
    return _library;
}

void ResourceProperty::setLibrary(Library* library) {
    thread::ScopedLock lock(_mutex);
    _library = library;
}

void ResourceProperty::setChangeCallback(Function0<void> callback) {
    thread::ScopedLock lock(_mutex);
    _callback = std::move(callback);
}

bool ResourceProperty::empty() const {
    thread::ScopedLock lock(_mutex);
    return std::holds_alternative<std::monostate>(_value);
}

void ResourceProperty::clearValue() {
    Function0<void> callback;
    {
        thread::ScopedLock lock(_mutex);
        if (std::holds_alternative<std::monostate>(_value)) return;
        _value = std::monostate();
        callback = _callback;
    }
    if (callback) callback();
}

bool ResourceProperty::checkType(ResourcePropertyType wanted) const {
    QOR_ASSERT_MSG(_type == wanted, "resource property of type %* used as type %*",
                   static_cast<int>(_type), static_cast<int>(wanted));
    return _type == wanted;
}

template <class T>
T ResourceProperty::get(ResourcePropertyType wanted) const {
    if (!checkType(wanted)) return T();
    thread::ScopedLock lock(_mutex);
    if (const T* value = std::get_if<T>(&_value)) return *value;
    return T();
}

void ResourceProperty::store(ResourcePropertyType wanted, Value value, bool notify) {
    if (!checkType(wanted)) return;
    Function0<void> callback;
    {
        thread::ScopedLock lock(_mutex);
        _value = std::move(value);
        if (notify) callback = _callback;
    }
    if (callback) callback();
}

void ResourceProperty::setStringValue(std::string value) {
    store(RptString, std::move(value), true);
}
void ResourceProperty::setIntValue(int value) { store(RptInt, value, true); }
void ResourceProperty::setBoolValue(bool value) { store(RptBool, value, true); }
void ResourceProperty::setBagIdValue(ResourceID value) { store(RptBagId, value, true); }
void ResourceProperty::setBagIdsListValue(std::vector<ResourceID> value) {
    store(RptBagIdList, std::move(value), true);
}
void ResourceProperty::setTimeValue(time::Timestamp value) { store(RptTime, value, true); }

std::string ResourceProperty::stringValue() const { return get<std::string>(RptString); }
int ResourceProperty::intValue() const { return get<int>(RptInt); }
bool ResourceProperty::boolValue() const { return get<bool>(RptBool); }
ResourceID ResourceProperty::bagIdValue() const { return get<ResourceID>(RptBagId); }
std::vector<ResourceID> ResourceProperty::bagIdsListValue() const {
    return get<std::vector<ResourceID>>(RptBagIdList);
}
time::Timestamp ResourceProperty::timeValue() const { return get<time::Timestamp>(RptTime); }

std::string ResourceProperty::toString() const {
    Value value;
    Library* library;
    {
        thread::ScopedLock lock(_mutex);
        value = _value;
        library = _library;
    }
    switch (_type) {
        case RptString:
            if (auto* s = std::get_if<std::string>(&value)) return *s;
            return {};
        case RptInt:
            if (auto* i = std::get_if<int>(&value)) return std::to_string(*i);
            return {};
        case RptBool:
            if (auto* b = std::get_if<bool>(&value)) return *b ? "1" : "0";
            return {};
        case RptBagId: {
            auto* id = std::get_if<ResourceID>(&value);
            if (!id || !id->isValid() || !library) return {};
            ResourceName name = library->getBagResourceName(*id);
            return name.empty() ? std::string() : name.persistentString();
        }
        case RptBagIdList:
            // The list is not stored.
            return {};
        case RptTime:
            if (auto* t = std::get_if<time::Timestamp>(&value)) return t->toString();
            return {};
    }
    QOR_ASSERT_MSG(false, "unknown resource property type %*", static_cast<int>(_type));
    return {};
}

void ResourceProperty::fromString(std::string_view text) {
    switch (_type) {
        case RptString:
            store(RptString, std::string(text), false);
            return;
        case RptInt:
            store(RptInt, text::strtoi(text), false);
            return;
        case RptBool:
            store(RptBool, text == "1", false);
            return;
        case RptBagId: {
            Library* lib = library();
            store(RptBagId, lib ? lib->bagIdFromPersistentString(text) : InvalidResourceID, false);
            return;
        }
        case RptBagIdList:
            // The list is not stored, so there is nothing to read.
            return;
        case RptTime:
            store(RptTime, time::Timestamp::fromString(text), false);
            return;
    }
    QOR_ASSERT_MSG(false, "unknown resource property type %*", static_cast<int>(_type));
}

}  // namespace qor::mediadb
