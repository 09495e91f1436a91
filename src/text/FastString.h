#pragma once
// FastString<C>: an immutable, reference-counted string. Copies share one buffer, so passing
// messages and labels around costs a counter increment. Thread-safe to copy and read from any thread.

#include <compare>
#include <cstddef>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

namespace qor {

template <class C>
class FastString {
public:
    using String = std::basic_string<C>;
    using View = std::basic_string_view<C>;

    FastString() = default;
    FastString(const C* s) { assign(s ? View(s) : View()); }
    FastString(View s) { assign(s); }
    FastString(const String& s) { assign(View(s)); }
    FastString(String&& s) {
        if (!s.empty()) _data = std::make_shared<const String>(std::move(s));
    }

    const C* c_str() const { return _data ? _data->c_str() : emptyString(); }
    const C* data() const { return c_str(); }
    size_t size() const { return _data ? _data->size() : 0; }
    size_t length() const { return size(); }
    bool empty() const { return size() == 0; }
    View view() const { return _data ? View(*_data) : View(); }
    String str() const { return _data ? *_data : String(); }
    operator View() const { return view(); }
    // As for std::string, index size() gives the terminating C().
    C operator[](size_t i) const { return c_str()[i]; }

    // True when both share one buffer (or both are empty).
    bool sharesWith(const FastString& o) const { return _data == o._data; }

    friend bool operator==(const FastString& a, const FastString& b) {
        return a._data == b._data || a.view() == b.view();
    }
    friend auto operator<=>(const FastString& a, const FastString& b) { return a.view() <=> b.view(); }
    friend bool operator==(const FastString& a, const C* b) { return a.view() == View(b ? b : emptyString()); }
    friend FastString operator+(const FastString& a, View b) {
        String s;
        s.reserve(a.size() + b.size());
        s.append(a.view()).append(b);
        return FastString(std::move(s));
    }
    friend std::basic_ostream<C>& operator<<(std::basic_ostream<C>& out, const FastString& s) {
        return out << s.view();
    }

private:
    static const C* emptyString() {
        static const C empty[1] = {C()};
        return empty;
    }
    void assign(View s) {
        if (!s.empty()) _data = std::make_shared<const String>(s);
    }

    std::shared_ptr<const String> _data;  // null for the empty string
};

}  // namespace qor

template <class C>
struct std::hash<qor::FastString<C>> {
    size_t operator()(const qor::FastString<C>& s) const noexcept {
        return std::hash<std::basic_string_view<C>>()(s.view());
    }
};
