#include "base/time/Timestamp.h"

#include <chrono>
#include <cmath>
#include <cstdio>

namespace qor::time {

namespace {

constexpr int64_t kUsPerSecond = 1000000;
constexpr int64_t kUsPerDay = 86400 * kUsPerSecond;

// Days since 1970-01-01 of a proleptic Gregorian date (H. Hinnant's days_from_civil).
int64_t daysFromCivil(int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

struct Civil {
    int64_t year;
    unsigned month, day;
};

Civil civilFromDays(int64_t z) {
    z += 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    const unsigned d = doy - (153 * mp + 2) / 5 + 1;
    const unsigned m = mp < 10 ? mp + 3 : mp - 9;
    return {static_cast<int64_t>(yoe) + era * 400 + (m <= 2), m, d};
}

bool isLeap(int y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

int daysInMonth(int y, int m) {
    static const int days[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && isLeap(y) ? 29 : days[m - 1];
}

int64_t floorDiv(int64_t a, int64_t b) {
    int64_t q = a / b;
    if ((a % b != 0) && ((a < 0) != (b < 0))) --q;
    return q;
}

// A cursor over the text being parsed.
struct Reader {
    std::string_view s;
    size_t i = 0;

    bool atEnd() const { return i >= s.size(); }
    char peek() const { return atEnd() ? '\0' : s[i]; }
    bool accept(char c) {
        if (peek() != c || atEnd()) return false;
        ++i;
        return true;
    }
    // Exactly n decimal digits.
    bool digits(int n, int& out) {
        out = 0;
        for (int k = 0; k < n; ++k) {
            char c = peek();
            if (atEnd() || c < '0' || c > '9') return false;
            out = out * 10 + (c - '0');
            ++i;
        }
        return true;
    }
};

bool isPadding(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\0'; }

std::string_view trim(std::string_view s) {
    while (!s.empty() && isPadding(s.front())) s.remove_prefix(1);
    while (!s.empty() && isPadding(s.back())) s.remove_suffix(1);
    return s;
}

bool parse(std::string_view text, Timestamp& out) {
    out = Timestamp();
    Reader r{trim(text)};
    int year, month, day, hour = 0, minute = 0, second = 0, micro = 0;
    if (!r.digits(4, year)) return false;
    char dateSep = r.peek();
    if (dateSep != '-' && dateSep != ':') return false;
    r.accept(dateSep);
    if (!r.digits(2, month) || !r.accept(dateSep) || !r.digits(2, day)) return false;
    int64_t offsetMinutes = 0;
    if (!r.atEnd()) {
        if (!r.accept('T') && !r.accept(' ')) return false;
        if (!r.digits(2, hour) || !r.accept(':') || !r.digits(2, minute)) return false;
        if (r.accept(':') && !r.digits(2, second)) return false;
        if (r.accept('.') || r.accept(',')) {
            int scale = 100000, digitCount = 0;
            while (!r.atEnd() && r.peek() >= '0' && r.peek() <= '9') {
                micro += (r.peek() - '0') * scale;
                scale /= 10;
                ++r.i;
                ++digitCount;
            }
            if (digitCount == 0) return false;
        }
        if (r.accept('Z') || r.accept('z')) {
        } else if (r.peek() == '+' || r.peek() == '-') {
            int sign = r.peek() == '-' ? -1 : 1;
            ++r.i;
            int oh, om = 0;
            if (!r.digits(2, oh)) return false;
            if (!r.atEnd()) {
                r.accept(':');
                if (!r.digits(2, om)) return false;
            }
            if (oh > 23 || om > 59) return false;
            offsetMinutes = sign * (oh * 60 + om);
        }
        if (!r.atEnd()) return false;
    }
    Timestamp t = Timestamp::fromFields(year, month, day, hour, minute, second, micro);
    if (t.isNull()) return false;
    out = Timestamp::fromMicroseconds(t.microseconds() - offsetMinutes * 60 * kUsPerSecond);
    return true;
}

}  // namespace

Timestamp Timestamp::now() {
    auto since = std::chrono::system_clock::now().time_since_epoch();
    return Timestamp(std::chrono::duration_cast<std::chrono::microseconds>(since).count());
}

Timestamp Timestamp::fromSeconds(double seconds) {
    if (!std::isfinite(seconds) || std::fabs(seconds) > 9.0e12) return Timestamp();
    return Timestamp(static_cast<int64_t>(std::llround(seconds * 1e6)));
}

Timestamp Timestamp::fromFields(int year, int month, int day, int hour, int minute, int second,
                                int microsecond) {
    if (year < 1 || year > 9999 || month < 1 || month > 12 || day < 1 ||
        day > daysInMonth(year, month) || hour < 0 || hour > 23 || minute < 0 || minute > 59 ||
        second < 0 || second > 59 || microsecond < 0 || microsecond >= kUsPerSecond)
        return Timestamp();
    int64_t days = daysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day));
    int64_t secs = static_cast<int64_t>(hour) * 3600 + minute * 60 + second;
    return Timestamp(days * kUsPerDay + secs * kUsPerSecond + microsecond);
}

Timestamp Timestamp::fromMetaString(std::string_view text) {
    Timestamp t;
    parse(text, t);
    return t;
}

bool Timestamp::fromMetaString(std::string_view text, Timestamp& out) { return parse(text, out); }

Timestamp Timestamp::fromString(std::string_view text) { return fromMetaString(text); }

bool Timestamp::fromString(std::string_view text, Timestamp& out) { return parse(text, out); }

time_t Timestamp::toTime_t() const {
    if (isNull()) return 0;
    return static_cast<time_t>(floorDiv(_us, kUsPerSecond));
}

double Timestamp::toSeconds() const { return isNull() ? 0.0 : static_cast<double>(_us) / 1e6; }

namespace {

struct Fields {
    int64_t year;
    unsigned month, day;
    int hour, minute, second, micro;
};

Fields fieldsOf(int64_t us) {
    int64_t days = floorDiv(us, kUsPerDay);
    int64_t rest = us - days * kUsPerDay;
    Civil c = civilFromDays(days);
    int64_t secs = rest / kUsPerSecond;
    return {c.year,
            c.month,
            c.day,
            static_cast<int>(secs / 3600),
            static_cast<int>(secs / 60 % 60),
            static_cast<int>(secs % 60),
            static_cast<int>(rest % kUsPerSecond)};
}

}  // namespace

std::string Timestamp::toString() const {
    if (isNull()) return std::string();
    Fields f = fieldsOf(_us);
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04lld-%02u-%02uT%02d:%02d:%02d.%06dZ",
                  static_cast<long long>(f.year), f.month, f.day, f.hour, f.minute, f.second,
                  f.micro);
    return buf;
}

std::string Timestamp::toMetaString() const {
    if (isNull()) return std::string();
    Fields f = fieldsOf(_us);
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04lld:%02u:%02u %02d:%02d:%02d",
                  static_cast<long long>(f.year), f.month, f.day, f.hour, f.minute, f.second);
    return buf;
}

double Timestamp::secondsSince(const Timestamp& earlier) const {
    if (isNull() || earlier.isNull()) return 0.0;
    return static_cast<double>(_us - earlier._us) / 1e6;
}

Timestamp Timestamp::addSeconds(double seconds) const {
    if (isNull() || !std::isfinite(seconds)) return *this;
    return Timestamp(_us + static_cast<int64_t>(std::llround(seconds * 1e6)));
}

}  // namespace qor::time
