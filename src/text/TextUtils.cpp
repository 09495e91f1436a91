#include "text/TextUtils.h"

#include <curl/curl.h>
#include <openssl/evp.h>
#include <unicode/bytestream.h>
#include <unicode/casemap.h>
#include <unicode/ustring.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <memory>
#include <new>

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

// OpenSSL, libcurl and ICU take int or int32_t lengths. Longer text goes through them in pieces
// of at most `most` units, each cut moved back (by four units at most) while `cutsHere(text, n)`
// says no. kPiece is a multiple of 3 and of 4, so that base64 groups are never cut.
constexpr size_t kPiece = size_t(3) << 28;

template <class Char, class CutsHere, class Fn>
void inPieces(std::basic_string_view<Char> text, size_t most, CutsHere cutsHere, Fn fn) {
    while (text.size() > most) {
        size_t n = most;
        while (n > most - 4 && !cutsHere(text, n)) --n;
        fn(text.substr(0, n));
        text.remove_prefix(n);
    }
    fn(text);
}

bool anywhere(std::string_view, size_t) { return true; }

// Not in front of a UTF-8 continuation byte.
bool betweenCodePoints(std::string_view s, size_t n) {
    return (static_cast<unsigned char>(s[n]) & 0xC0) != 0x80;
}

// Not between the two halves of a surrogate pair.
bool betweenUtf16CodePoints(std::u16string_view s, size_t n) {
    return !(s[n - 1] >= 0xD800 && s[n - 1] <= 0xDBFF);
}

// Not inside a "%XX" escape.
bool betweenEscapes(std::string_view s, size_t n) { return s[n - 1] != '%' && s[n - 2] != '%'; }

// Full Unicode case mapping in the root locale, so that the result never depends on the process
// locale; ICU copies ill-formed UTF-8 sequences unchanged.
std::string mapCase(std::string_view utf8, bool upper) {
    std::string out;
    out.reserve(utf8.size());
    icu::StringByteSink<std::string> sink(&out);
    inPieces(utf8, kPiece, betweenCodePoints, [&](std::string_view piece) {
        UErrorCode err = U_ZERO_ERROR;
        const icu::StringPiece text(piece.data(), static_cast<int32_t>(piece.size()));
        if (upper) {
            icu::CaseMap::utf8ToUpper("", 0, text, sink, nullptr, err);
        } else {
            icu::CaseMap::utf8ToLower("", 0, text, sink, nullptr, err);
        }
        if (err == U_MEMORY_ALLOCATION_ERROR) throw std::bad_alloc();
    });
    return out;
}

// curl_easy_escape/curl_easy_unescape on one piece; they ignore the handle argument and read a
// length of 0 as "up to the NUL", so empty pieces never reach them.
struct CurlFree {
    void operator()(char* text) const { curl_free(text); }
};
using CurlText = std::unique_ptr<char, CurlFree>;

void appendEscaped(std::string& out, std::string_view piece) {
    if (piece.empty()) return;
    const CurlText escaped(curl_easy_escape(nullptr, piece.data(), static_cast<int>(piece.size())));
    if (!escaped) throw std::bad_alloc();
    out += escaped.get();
}

void appendUnescaped(std::string& out, std::string_view piece) {
    if (piece.empty()) return;
    int length = 0;
    const CurlText plain(
        curl_easy_unescape(nullptr, piece.data(), static_cast<int>(piece.size()), &length));
    if (!plain) throw std::bad_alloc();
    out.append(plain.get(), static_cast<size_t>(length));
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

std::string upcase(std::string_view utf8) { return mapCase(utf8, true); }

std::string downcase(std::string_view utf8) { return mapCase(utf8, false); }
std::string_view trimView(std::string_view text) {
    while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
    return text;
}

std::string trim(std::string_view text) { return std::string(trimView(text)); }

std::string urlEncode(std::string_view text) {
    std::string out;
    out.reserve(text.size() + text.size() / 2);
    inPieces(text, kPiece, anywhere, [&](std::string_view piece) { appendEscaped(out, piece); });
    return out;
}

std::string urlDecode(std::string_view text, bool plusAsSpace) {
    std::string spaced;
    if (plusAsSpace && text.find('+') != std::string_view::npos) {
        // Before decoding, so that an escaped plus ("%2B") stays a plus.
        spaced = text;
        std::replace(spaced.begin(), spaced.end(), '+', ' ');
        text = spaced;
    }
    std::string out;
    out.reserve(text.size());
    inPieces(text, kPiece, betweenEscapes,
             [&](std::string_view piece) { appendUnescaped(out, piece); });
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
    std::string out = "file:///";
    out.reserve(out.size() + path.size() + path.size() / 2);
    // Each part on its own, so that the separators stay.
    for (size_t start = 0;;) {
        const size_t slash = path.find('/', start);
        appendEscaped(out, path.substr(start, slash - start));
        if (slash == std::string_view::npos) break;
        out += '/';
        start = slash + 1;
    }
    return out;
}

std::string base64Encode(const void* data, size_t size) {
    std::string out((size + 2) / 3 * 4 + 1, '\0');  // EVP_EncodeBlock adds a NUL
    unsigned char* to = reinterpret_cast<unsigned char*>(out.data());
    inPieces(std::string_view(static_cast<const char*>(data), size), kPiece, anywhere,
             [&](std::string_view piece) {
                 to += EVP_EncodeBlock(to, reinterpret_cast<const unsigned char*>(piece.data()),
                                       static_cast<int>(piece.size()));
             });
    out.resize(out.size() - 1);
    return out;
}

std::string base64Encode(std::string_view data) { return base64Encode(data.data(), data.size()); }

bool base64Decode(std::string_view text, std::string& out) {
    out.clear();
    // EVP_DecodeBlock wants complete groups of four without white space, reads '=' anywhere as
    // zero bits and ignores some characters at the end; our rules are checked here first.
    std::string groups;
    groups.reserve(text.size() + 2);
    for (char c : text)
        if (!isSpace(c)) groups += c;
    const size_t data = groups.find_last_not_of('=') + 1;  // 0 when all is padding or empty
    const size_t padding = groups.size() - data;
    const bool alphabet = std::all_of(groups.begin(), groups.begin() + data, [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
               c == '+' || c == '/';
    });
    if (!alphabet || data % 4 == 1 || padding > 2 || (padding > 0 && groups.size() % 4 != 0))
        return false;
    if (groups.empty()) return true;
    groups.append((4 - data % 4) % 4 - padding, '=');

    out.resize(groups.size() / 4 * 3);
    unsigned char* to = reinterpret_cast<unsigned char*>(out.data());
    bool ok = true;
    inPieces(std::string_view(groups), kPiece, anywhere, [&](std::string_view piece) {
        const int n = EVP_DecodeBlock(to, reinterpret_cast<const unsigned char*>(piece.data()),
                                      static_cast<int>(piece.size()));
        ok = ok && n >= 0;
        to += std::max(n, 0);
    });
    // The padding characters come out as zero bytes.
    out.resize(out.size() - (groups.size() - data));
    return ok;
}

std::string base64Decode(std::string_view text) {
    std::string out;
    if (!base64Decode(text, out)) out.clear();
    return out;
}

std::u16string utf8_to_utf16(std::string_view utf8) {
    // Never more UTF-16 units than UTF-8 bytes.
    std::u16string out(utf8.size(), u'\0');
    size_t written = 0;
    inPieces(utf8, kPiece, betweenCodePoints, [&](std::string_view piece) {
        int32_t length = 0;
        UErrorCode err = U_ZERO_ERROR;
        u_strFromUTF8WithSub(out.data() + written, static_cast<int32_t>(piece.size()), &length,
                             piece.data(), static_cast<int32_t>(piece.size()), 0xFFFD, nullptr,
                             &err);
        written += U_SUCCESS(err) ? static_cast<size_t>(length) : 0;
    });
    out.resize(written);
    return out;
}

std::string utf16_to_utf8(std::u16string_view utf16) {
    // At most three bytes for each UTF-16 unit (four for a pair of two).
    std::string out(utf16.size() * 3, '\0');
    size_t written = 0;
    inPieces(utf16, kPiece / 4, betweenUtf16CodePoints, [&](std::u16string_view piece) {
        int32_t length = 0;
        UErrorCode err = U_ZERO_ERROR;
        u_strToUTF8WithSub(out.data() + written, static_cast<int32_t>(piece.size() * 3), &length,
                           piece.data(), static_cast<int32_t>(piece.size()), 0xFFFD, nullptr, &err);
        written += U_SUCCESS(err) ? static_cast<size_t>(length) : 0;
    });
    out.resize(written);
    return out;
}

}  // namespace qor::text
