#pragma once
// Text conversions shared by the whole system: numbers, case, URL encoding, file URLs, base64,
// UTF-8/UTF-16. All functions are pure: they keep no state, are safe on any thread and never
// depend on the C locale. None throws, except std::bad_alloc.
//
// Case and UTF conversions are ICU's, percent-encoding is libcurl's and base64 is OpenSSL's; the
// rules below are what these functions promise, whichever library does the work.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace qor::text {

// Decimal text to int: optional white space, an optional sign, digits, optional white space; any
// other text or a value outside int fails. The try forms return false and leave `out` alone on
// failure; strtoi returns `fallback`.
bool tryStrtoi(std::string_view text, int& out);
bool tryStrtoi64(std::string_view text, int64_t& out);
int strtoi(std::string_view text, int fallback = 0);

// Text to double with '.' as the decimal point whatever the locale says. Accepts white space
// around, an optional sign, decimal or exponent notation, "inf" and "nan". Same failure rules as
// strtoi.
bool tryFrstrtod(std::string_view text, double& out);
double frstrtod(std::string_view text, double fallback = 0.0);

// Shortest text that reads back as the same double, with '.' whatever the locale.
std::string dtostr(double value);

// Upper-/lower-cases UTF-8 text with Unicode's full case mapping in the root locale, the same
// whatever the process locale: every script with case, and a letter may become several ("ß" ->
// "SS", "İ" -> "i̇"); a final sigma lower-cases to "ς". Ill-formed byte sequences are copied
// unchanged.
std::string upcase(std::string_view utf8);
std::string downcase(std::string_view utf8);

// Text without leading and trailing ASCII white space.
std::string_view trimView(std::string_view text);
std::string trim(std::string_view text);

// Percent-encodes every byte outside the RFC 3986 unreserved set (A-Z a-z 0-9 - . _ ~), with
// upper-case hex digits: "a b&ä" gives "a%20b%26%C3%A4" (the form OAuth signatures need).
std::string urlEncode(std::string_view text);
// Undoes %XX escapes (either case of hex digits); a '%' not followed by two hex digits is kept as
// it stands. With plusAsSpace (HTML form bodies) '+' becomes a space.
std::string urlDecode(std::string_view text, bool plusAsSpace = false);

// "file:///home/x/a%20b.jpg" and "file://localhost/home/x/a%20b.jpg" give "/home/x/a b.jpg".
// Text that is not a "file:" URL is returned unchanged, so plain paths pass through.
std::string urlToLocalPath(std::string_view url);
// "/home/x/a b.jpg" gives "file:///home/x/a%20b.jpg" ('/' is kept). A relative path is encoded
// the same way, behind "file:///", so pass absolute paths.
std::string localPathToUrl(std::string_view path);
// True when the text begins with "file:" (any case).
bool isFileUrl(std::string_view text);

// RFC 4648 base64 with padding.
std::string base64Encode(const void* data, size_t size);
std::string base64Encode(std::string_view data);
// Decodes padded or unpadded base64; white space is skipped. Returns false on any other
// character or a bad length, and then `out` is unspecified.
bool base64Decode(std::string_view text, std::string& out);
// The same, giving an empty string on failure.
std::string base64Decode(std::string_view text);

// UTF-8 <-> UTF-16. Invalid input becomes U+FFFD: a lone surrogate, and in UTF-8 each maximal
// ill-formed part (a truncated sequence gives one U+FFFD, a byte that can never start or continue
// one its own), as Unicode recommends.
std::u16string utf8_to_utf16(std::string_view utf8);
std::string utf16_to_utf8(std::u16string_view utf16);

}  // namespace qor::text
