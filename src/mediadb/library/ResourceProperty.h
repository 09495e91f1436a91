#pragma once
// ResourceProperty: one typed setting of a bag (a string, int, bool, bag id, list of bag ids or
// time), with a back pointer to its Library and a change callback.
//
// The application registers a prototype per settings key (Library::registerProperty); each bag
// gets copies of it on demand (Library::getProperty), whose callback reports a change to the
// library, which then saves the bag's entry in library.xml. A property is empty until a value is
// set. Values are stored in files as text (toString/fromString):
//
//   type          toString                                 fromString
//   RptString     the string                               the string
//   RptInt        decimal text                             text::strtoi
//   RptBool       "1" or "0"                               true exactly for "1"
//   RptBagId      persistent string of the bag, or ""      Library::bagIdFromPersistentString
//   RptBagIdList  "" (the list is not stored)              ignored
//   RptTime       time::Timestamp::toString                time::Timestamp::fromString
//
// A getter or setter of another type than the property's is a logged assertion; a getter then
// returns the type's default value and a setter stores nothing.
//
// Thread contract: a property is shared between the bag's settings map and its readers, so every
// member may be called from any thread; one mutex guards the value and the callback. The callback
// runs after the value is stored, with no lock held, on the thread of the setter.

#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "base/ResourceID.h"
#include "base/thread/Mutex.h"
#include "base/time/Timestamp.h"
#include "util/Function.h"

namespace qor::mediadb {

class Library;

enum ResourcePropertyType {
    RptString = 0,
    RptInt = 1,
    RptBool = 2,
    RptBagId = 3,
    RptBagIdList = 4,
    RptTime = 5,
};

class ResourceProperty {
public:
    // An empty property of `type`; a type outside the enumeration is a logged assertion (the
    // property then takes no values).
    explicit ResourceProperty(ResourcePropertyType type, Library* library = nullptr);
    // Copies value, type and library; the copy has no callback.
    ResourceProperty(const ResourceProperty& other);
    ResourceProperty& operator=(const ResourceProperty& other) = delete;

    ResourcePropertyType type() const { return _type; }
    Library* library() const;
    void setLibrary(Library* library);
    // Called after each setter stored its value.
    void setChangeCallback(Function0<void> callback);

    // No value has been set (or clearValue was called).
    bool empty() const;
    // Back to empty; calls the callback when a value was there.
    void clearValue();

    void setStringValue(std::string value);
    void setIntValue(int value);
    void setBoolValue(bool value);
    void setBagIdValue(ResourceID value);
    void setBagIdsListValue(std::vector<ResourceID> value);
    void setTimeValue(time::Timestamp value);

    // The value, or the type's default while empty.
    std::string stringValue() const;
    int intValue() const;
    bool boolValue() const;
    ResourceID bagIdValue() const;
    std::vector<ResourceID> bagIdsListValue() const;
    time::Timestamp timeValue() const;

    // The stored text of the value (see the table above).
    std::string toString() const;
    // Reads a stored text. Stores without calling the callback: a value read from a file is not a
    // change. A bag id needs the library (an invalid id without one).
    void fromString(std::string_view text);

private:
    using Value = std::variant<std::monostate, std::string, int, bool, ResourceID,
                               std::vector<ResourceID>, time::Timestamp>;

    bool checkType(ResourcePropertyType wanted) const;
    template <class T>
    T get(ResourcePropertyType wanted) const;
    void store(ResourcePropertyType wanted, Value value, bool notify);

    const ResourcePropertyType _type;
    mutable thread::Mutex _mutex;         // guards the fields below
    Value _value QOR_GUARDED_BY(_mutex);  // monostate while empty
    Library* _library QOR_GUARDED_BY(_mutex) = nullptr;
    Function0<void> _callback QOR_GUARDED_BY(_mutex);
};

}  // namespace qor::mediadb
