#include "base/time/Timestamp.h"

#include <chrono>
#include <cmath>
#include <cstdio>

namespace qor::time {

namespace {

constexpr int64_t kUsPerSecond = 1000000;

using Micros = std::chrono::sys_time<std::chrono::microseconds>;

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
    using namespace std::chrono;
    if (year < 1 || year > 9999 || month < 1 || month > 12 || day < 1 || day > 31 || hour < 0 ||
        hour > 23 || minute < 0 || minute > 59 || second < 0 || second > 59 || microsecond < 0 ||
        microsecond >= kUsPerSecond)
        return Timestamp();
    // Proleptic Gregorian calendar; ok() checks the day against the month and leap years.
    const year_month_day date{std::chrono::year(year), std::chrono::month(unsigned(month)),
                              std::chrono::day(unsigned(day))};
    if (!date.ok()) return Timestamp();
    const Micros t = sys_days(date) + hours(hour) + minutes(minute) + seconds(second) +
                     std::chrono::microseconds(microsecond);
    return Timestamp(t.time_since_epoch().count());
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
    return static_cast<time_t>(
        std::chrono::floor<std::chrono::seconds>(std::chrono::microseconds(_us)).count());
}

double Timestamp::toSeconds() const { return isNull() ? 0.0 : static_cast<double>(_us) / 1e6; }

namespace {

struct Fields {
    int year;
    unsigned month, day;
    long hour, minute, second, micro;
};

// The calendar's years run from -32767 to 32767: a value beyond them (which no parser makes)
// comes out with a wrong year.
Fields fieldsOf(int64_t us) {
    using namespace std::chrono;
    const Micros t{microseconds(us)};
    const sys_days day = floor<days>(t);
    const year_month_day date(day);
    const hh_mm_ss<microseconds> time(t - day);
    return {int(date.year()),
            unsigned(date.month()),
            unsigned(date.day()),
            long(time.hours().count()),
            long(time.minutes().count()),
            long(time.seconds().count()),
            long(time.subseconds().count())};
}

}  // namespace

std::string Timestamp::toString() const {
    if (isNull()) return std::string();
    Fields f = fieldsOf(_us);
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04d-%02u-%02uT%02ld:%02ld:%02ld.%06ldZ", f.year, f.month,
                  f.day, f.hour, f.minute, f.second, f.micro);
    return buf;
}

std::string Timestamp::toMetaString() const {
    if (isNull()) return std::string();
    Fields f = fieldsOf(_us);
    char buf[64];
    std::snprintf(buf, sizeof buf, "%04d:%02u:%02u %02ld:%02ld:%02ld", f.year, f.month, f.day,
                  f.hour, f.minute, f.second);
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
