#pragma once
// Timestamp: a point in time as 64-bit microseconds since the Unix epoch (UTC), or null.
//
// Text forms:
// - toString()/fromString(): ISO 8601 with microseconds and "Z", "2024-03-01T12:30:05.000250Z";
//   they round-trip exactly for the years 1 to 9999, the range the parsers accept.
// - toMetaString()/fromMetaString(): the EXIF form "YYYY:MM:DD HH:MM:SS". EXIF times carry no zone,
//   so their wall-clock fields are stored as they stand, as if they were UTC, with no conversion
//   to or from local time; toMetaString() writes the UTC fields back, so the round trip is exact.
//
// Both parsers accept both forms: date separators '-' or ':', 'T' or a space before the time, an
// optional fraction ('.' or ','; digits past the sixth are truncated), an optional zone "Z",
// "+hh:mm", "+hhmm" or "+hh" (the time is converted to UTC), and a date alone (midnight).
// Surrounding white space and NUL padding are ignored. Invalid text, including the EXIF "unknown"
// value "0000:00:00 00:00:00", yields a null timestamp; the parsers never throw.
//
// A value type: copies are independent, and a const Timestamp is safe to read from any thread.

#include <compare>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

namespace qor::time {

class Timestamp {
public:
    // The null timestamp.
    constexpr Timestamp() = default;

    static Timestamp now();
    static constexpr Timestamp fromMicroseconds(int64_t us) { return Timestamp(us); }
    static constexpr Timestamp fromTime_t(time_t seconds) {
        return Timestamp(static_cast<int64_t>(seconds) * 1000000);
    }
    // Seconds since the epoch with a fraction; rounded to the nearest microsecond.
    static Timestamp fromSeconds(double seconds);
    // Builds a timestamp from UTC calendar fields; null when a field is out of range.
    static Timestamp fromFields(int year, int month, int day, int hour = 0, int minute = 0,
                                int second = 0, int microsecond = 0);

    // Parse as described above. The bool forms return false and set `out` to null on bad text.
    static Timestamp fromMetaString(std::string_view text);
    static bool fromMetaString(std::string_view text, Timestamp& out);
    static Timestamp fromString(std::string_view text);
    static bool fromString(std::string_view text, Timestamp& out);

    constexpr bool isNull() const { return _us == kNull; }
    // Microseconds since the epoch; meaningless for a null timestamp.
    constexpr int64_t microseconds() const { return _us; }
    // Whole seconds since the epoch, rounded down; 0 for a null timestamp.
    time_t toTime_t() const;
    double toSeconds() const;

    // "2024-03-01T12:30:05.000250Z"; "" for a null timestamp.
    std::string toString() const;
    // "2024:03:01 12:30:05" (fraction dropped); "" for a null timestamp.
    std::string toMetaString() const;

    // Seconds from `earlier` to this one (negative when this one is earlier). 0 if either is null.
    double secondsSince(const Timestamp& earlier) const;
    // This time moved by `seconds`; null stays null.
    Timestamp addSeconds(double seconds) const;

    // Null compares equal to null and before every other value.
    friend constexpr bool operator==(const Timestamp&, const Timestamp&) = default;
    friend constexpr auto operator<=>(const Timestamp&, const Timestamp&) = default;

private:
    static constexpr int64_t kNull = INT64_MIN;
    constexpr explicit Timestamp(int64_t us) : _us(us) {}

    int64_t _us = kNull;
};

}  // namespace qor::time

namespace qor {
using time::Timestamp;
}  // namespace qor
