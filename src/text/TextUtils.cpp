#include "text/TextUtils.h"

#include <charconv>
#include <cmath>
#include <limits>

namespace qor::text {

namespace {

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

template <class T>
bool parseInteger(std::string_view text, T& out) {
    text = trimView(text);
    if (!text.empty() && text.front() == '+') {
        text.remove_prefix(1);
        if (!text.empty() && text.front() == '-') return false;
    }
    if (text.empty()) return false;
    T value{};
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, 10);
    if (ec != std::errc() || end != text.data() + text.size()) return false;
    out = value;
    return true;
}

// One code point from UTF-8 at s[i]; returns its length, or 0 for an invalid sequence.
size_t decodeUtf8(std::string_view s, size_t i, char32_t& cp) {
    auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
    unsigned char b0 = byte(i);
    if (b0 < 0x80) {
        cp = b0;
        return 1;
    }
    size_t len;
    char32_t min;
    if ((b0 & 0xE0) == 0xC0) {
        len = 2, cp = b0 & 0x1F, min = 0x80;
    } else if ((b0 & 0xF0) == 0xE0) {
        len = 3, cp = b0 & 0x0F, min = 0x800;
    } else if ((b0 & 0xF8) == 0xF0) {
        len = 4, cp = b0 & 0x07, min = 0x10000;
    } else {
        return 0;
    }
    if (i + len > s.size()) return 0;
    for (size_t k = 1; k < len; ++k) {
        unsigned char b = byte(i + k);
        if ((b & 0xC0) != 0x80) return 0;
        cp = (cp << 6) | (b & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
    return len;
}

void appendUtf8(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

// Latin Extended-A pairs: in these ranges the upper-case letter has the lower code point and the
// two differ by one; `upperEven` tells which parity is upper case.
struct PairRange {
    char32_t first, last;
    bool upperEven;
};
constexpr PairRange kPairs[] = {{0x0100, 0x0137, true},
                                {0x0139, 0x0148, false},
                                {0x014A, 0x0177, true},
                                {0x0179, 0x017E, false}};

char32_t toUpper(char32_t c) {
    if (c >= 'a' && c <= 'z') return c - 0x20;
    if (c < 0xB5) return c;
    if ((c >= 0xE0 && c <= 0xFE && c != 0xF7)) return c - 0x20;
    if (c == 0xFF) return 0x178;
    for (const PairRange& r : kPairs) {
        if (c >= r.first && c <= r.last) {
            bool even = (c % 2) == 0;
            return even == r.upperEven ? c : c - 1;
        }
    }
    if ((c >= 0x3B1 && c <= 0x3C1) || (c >= 0x3C3 && c <= 0x3CB)) return c - 0x20;
    if (c == 0x3C2) return 0x3A3;
    if (c == 0x3AC) return 0x386;
    if (c >= 0x3AD && c <= 0x3AF) return c - 0x25;
    if (c == 0x3CC) return 0x38C;
    if (c == 0x3CD || c == 0x3CE) return c - 0x3F;
    if (c >= 0x430 && c <= 0x44F) return c - 0x20;
    if (c >= 0x450 && c <= 0x45F) return c - 0x50;
    return c;
}

char32_t toLower(char32_t c) {
    if (c >= 'A' && c <= 'Z') return c + 0x20;
    if (c < 0xC0) return c;
    if (c <= 0xDE && c != 0xD7) return c + 0x20;
    if (c == 0x178) return 0xFF;
    for (const PairRange& r : kPairs) {
        if (c >= r.first && c <= r.last) {
            bool even = (c % 2) == 0;
            return even == r.upperEven ? c + 1 : c;
        }
    }
    if ((c >= 0x391 && c <= 0x3A1) || (c >= 0x3A3 && c <= 0x3AB)) return c + 0x20;
    if (c == 0x386) return 0x3AC;
    if (c >= 0x388 && c <= 0x38A) return c + 0x25;
    if (c == 0x38C) return 0x3CC;
    if (c == 0x38E || c == 0x38F) return c + 0x3F;
    if (c >= 0x410 && c <= 0x42F) return c + 0x20;
    if (c >= 0x400 && c <= 0x40F) return c + 0x50;
    return c;
}

template <class Map>
std::string mapCase(std::string_view s, Map map) {
    std::string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size();) {
        unsigned char b = static_cast<unsigned char>(s[i]);
        if (b < 0x80) {
            out += static_cast<char>(map(b));
            ++i;
            continue;
        }
        char32_t cp;
        size_t len = decodeUtf8(s, i, cp);
        if (len == 0) {
            out += s[i++];
            continue;
        }
        appendUtf8(out, map(cp));
        i += len;
    }
    return out;
}

bool isUnreserved(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_' || c == '~';
}

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string percentEncode(std::string_view text, bool keepSlash) {
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(text.size() + text.size() / 2);
    for (char ch : text) {
        unsigned char c = static_cast<unsigned char>(ch);
        if (isUnreserved(c) || (keepSlash && c == '/')) {
            out += ch;
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

bool startsWithNoCase(std::string_view s, std::string_view prefix) {
    if (s.size() < prefix.size()) return false;
    for (size_t i = 0; i < prefix.size(); ++i) {
        char a = s[i];
        if (a >= 'A' && a <= 'Z') a = static_cast<char>(a + 0x20);
        if (a != prefix[i]) return false;
    }
    return true;
}

const char kBase64[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int base64Value(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

}  // namespace

bool tryStrtoi(std::string_view text, int& out) { return parseInteger(text, out); }

bool tryStrtoi64(std::string_view text, int64_t& out) { return parseInteger(text, out); }

int strtoi(std::string_view text, int fallback) {
    int value = fallback;
    return parseInteger(text, value) ? value : fallback;
}

bool tryFrstrtod(std::string_view text, double& out) {
    text = trimView(text);
    bool negative = false;
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    if (text.empty() || text.front() == '+' || text.front() == '-') return false;
    double value = 0.0;
    auto [end, ec] =
        std::from_chars(text.data(), text.data() + text.size(), value, std::chars_format::general);
    if (end != text.data() + text.size()) return false;
    // Out of range: from_chars reports it without a value; follow strtod (infinity or zero).
    if (ec == std::errc::result_out_of_range) {
        size_t e = text.find_first_of("eE");
        bool tiny = e != std::string_view::npos && e + 1 < text.size() && text[e + 1] == '-';
        value = tiny ? 0.0 : std::numeric_limits<double>::infinity();
    } else if (ec != std::errc()) {
        return false;
    }
    out = negative ? -value : value;
    return true;
}

double frstrtod(std::string_view text, double fallback) {
    double value = fallback;
    return tryFrstrtod(text, value) ? value : fallback;
}

std::string dtostr(double value) {
    char buf[64];
    auto [end, ec] = std::to_chars(buf, buf + sizeof buf, value);
    if (ec != std::errc()) return std::string();
    return std::string(buf, end);
}

std::string upcase(std::string_view utf8) { return mapCase(utf8, toUpper); }

std::string downcase(std::string_view utf8) { return mapCase(utf8, toLower); }

std::string_view trimView(std::string_view text) {
    while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
    return text;
}

std::string trim(std::string_view text) { return std::string(trimView(text)); }

std::string urlEncode(std::string_view text) { return percentEncode(text, false); }

std::string urlDecode(std::string_view text, bool plusAsSpace) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '%' && i + 2 < text.size()) {
            int hi = hexValue(text[i + 1]), lo = hexValue(text[i + 2]);
            if (hi >= 0 && lo >= 0) {
                out += static_cast<char>(hi * 16 + lo);
                i += 2;
                continue;
            }
        }
        out += (plusAsSpace && c == '+') ? ' ' : c;
    }
    return out;
}

bool isFileUrl(std::string_view text) { return startsWithNoCase(text, "file:"); }

std::string urlToLocalPath(std::string_view url) {
    if (!isFileUrl(url)) return std::string(url);
    std::string_view rest = url.substr(5);
    if (rest.substr(0, 2) == "//") {
        rest.remove_prefix(2);
        // An authority: empty ("file:///x") or "localhost" ("file://localhost/x").
        size_t slash = rest.find('/');
        if (slash == std::string_view::npos) return std::string();
        rest.remove_prefix(slash);
    }
    return urlDecode(rest);
}

std::string localPathToUrl(std::string_view path) {
    while (!path.empty() && path.front() == '/') path.remove_prefix(1);
    return "file:///" + percentEncode(path, true);
}

std::string base64Encode(const void* data, size_t size) {
    const unsigned char* p = static_cast<const unsigned char*>(data);
    std::string out;
    out.reserve((size + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 3 <= size; i += 3) {
        uint32_t v = (uint32_t(p[i]) << 16) | (uint32_t(p[i + 1]) << 8) | p[i + 2];
        out += kBase64[v >> 18];
        out += kBase64[(v >> 12) & 63];
        out += kBase64[(v >> 6) & 63];
        out += kBase64[v & 63];
    }
    if (size - i == 1) {
        uint32_t v = uint32_t(p[i]) << 16;
        out += kBase64[v >> 18];
        out += kBase64[(v >> 12) & 63];
        out += "==";
    } else if (size - i == 2) {
        uint32_t v = (uint32_t(p[i]) << 16) | (uint32_t(p[i + 1]) << 8);
        out += kBase64[v >> 18];
        out += kBase64[(v >> 12) & 63];
        out += kBase64[(v >> 6) & 63];
        out += '=';
    }
    return out;
}

std::string base64Encode(std::string_view data) { return base64Encode(data.data(), data.size()); }

bool base64Decode(std::string_view text, std::string& out) {
    out.clear();
    out.reserve(text.size() / 4 * 3);
    uint32_t acc = 0;
    int bits = 0, count = 0, padding = 0;
    for (char c : text) {
        if (isSpace(c)) continue;
        if (c == '=') {
            ++padding;
            continue;
        }
        int v = base64Value(c);
        if (v < 0 || padding > 0) return false;
        acc = (acc << 6) | static_cast<uint32_t>(v);
        bits += 6;
        ++count;
        if (bits >= 8) {
            bits -= 8;
            out += static_cast<char>((acc >> bits) & 0xFF);
        }
    }
    // A final group of one character cannot be; padding, when present, must complete the group.
    if (count % 4 == 1) return false;
    if (padding > 0 && (count + padding) % 4 != 0) return false;
    if (padding > 2) return false;
    return true;
}

std::string base64Decode(std::string_view text) {
    std::string out;
    if (!base64Decode(text, out)) out.clear();
    return out;
}

std::u16string utf8_to_utf16(std::string_view utf8) {
    std::u16string out;
    out.reserve(utf8.size());
    for (size_t i = 0; i < utf8.size();) {
        char32_t cp;
        size_t len = decodeUtf8(utf8, i, cp);
        if (len == 0) {
            cp = 0xFFFD;
            len = 1;
        }
        i += len;
        if (cp >= 0x10000) {
            cp -= 0x10000;
            out += static_cast<char16_t>(0xD800 + (cp >> 10));
            out += static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
        } else {
            out += static_cast<char16_t>(cp);
        }
    }
    return out;
}

std::string utf16_to_utf8(std::u16string_view utf16) {
    std::string out;
    out.reserve(utf16.size());
    for (size_t i = 0; i < utf16.size(); ++i) {
        char32_t cp = utf16[i];
        if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < utf16.size() && utf16[i + 1] >= 0xDC00 &&
            utf16[i + 1] <= 0xDFFF) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (utf16[i + 1] - 0xDC00);
            ++i;
        } else if (cp >= 0xD800 && cp <= 0xDFFF) {
            cp = 0xFFFD;
        }
        appendUtf8(out, cp);
    }
    return out;
}

}  // namespace qor::text
