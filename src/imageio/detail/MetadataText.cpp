#include "imageio/detail/MetadataText.h"

#include <charconv>
#include <climits>

namespace qor::imageio::detail {

namespace {

std::string_view skipSpace(std::string_view text) {
    size_t i = 0;
    while (i < text.size() && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r'))) ++i;
    return text.substr(i);
}

// The leading floating number; `rest` is what follows it. False when there is none.
bool leadingDouble(std::string_view text, double& value, std::string_view& rest) {
    text = skipSpace(text);
    // from_chars takes no '+'; a '+' before a '-' is no number either.
    if (!text.empty() && text[0] == '+') {
        text.remove_prefix(1);
        if (!text.empty() && text[0] == '-') return false;
    }
    // A number outside the range of double counts as no number.
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc()) return false;
    rest = text.substr(static_cast<size_t>(end - text.data()));
    return true;
}

}  // namespace

int metaInt(std::string_view text) {
    text = skipSpace(text);
    bool negative = false;
    if (!text.empty() && (text[0] == '+' || text[0] == '-')) {
        negative = text[0] == '-';
        text.remove_prefix(1);
    }
    long long value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') break;
        value = value * 10 + (c - '0');
        if (value > static_cast<long long>(INT_MAX) + 1) break;  // clamped below
    }
    if (negative) value = -value;
    if (value > INT_MAX) return INT_MAX;
    if (value < INT_MIN) return INT_MIN;
    return static_cast<int>(value);
}

double metaDouble(std::string_view text) {
    double value = 0;
    std::string_view rest;
    if (!leadingDouble(text, value, rest)) return 0.0;
    if (!rest.empty() && rest[0] == '/') {
        double denominator = 0;
        std::string_view tail;
        if (leadingDouble(rest.substr(1), denominator, tail))
            return denominator == 0 ? 0.0 : value / denominator;
    }
    return value;
}

double metaGpsCoordinate(std::string_view text) {
    double result = 0;
    double scale = 1;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\x01', start);
        if (end == std::string_view::npos) end = text.size();
        // A reference letter may stand before the number as well as behind it.
        std::string_view part = text.substr(start, end - start);
        size_t number = part.find_first_of("0123456789+-.");
        if (number != std::string_view::npos) result += metaDouble(part.substr(number)) / scale;
        scale *= 60;
        start = end + 1;
    }
    if (text.find_first_of("SW") != std::string_view::npos) result = -result;
    return result;
}

}  // namespace qor::imageio::detail
