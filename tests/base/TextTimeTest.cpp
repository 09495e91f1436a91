#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "../support/TempDir.h"
#include "base/Md5Stream.h"
#include "base/time/Timestamp.h"
#include "text/TextUtils.h"

using namespace qor;
using namespace qor::text;

// --- Timestamp -------------------------------------------------------------------------------

TEST(Timestamp, ParsesExifAndIsoForms) {
    const Timestamp exif = Timestamp::fromMetaString("2011:06:15 14:30:05");
    ASSERT_FALSE(exif.isNull());
    EXPECT_EQ(exif.toTime_t(), 1308148205);  // the wall-clock fields taken as UTC
    EXPECT_EQ(exif.toMetaString(), "2011:06:15 14:30:05");

    EXPECT_EQ(Timestamp::fromMetaString("2011-06-15T14:30:05Z"), exif);
    EXPECT_EQ(Timestamp::fromMetaString("2011-06-15T16:30:05+02:00"), exif);
    EXPECT_EQ(Timestamp::fromMetaString("2011-06-15T10:30:05-0400"), exif);
    EXPECT_EQ(Timestamp::fromMetaString("2011-06-15T14:30:05+0000"), exif);
    EXPECT_EQ(Timestamp::fromMetaString(std::string("2011:06:15 14:30:05\0", 20)), exif);
    EXPECT_EQ(Timestamp::fromMetaString("  2011:06:15 14:30:05 "), exif);

    const Timestamp frac = Timestamp::fromString("2011-06-15T14:30:05.25Z");
    EXPECT_EQ(frac.microseconds() - exif.microseconds(), 250000);
    EXPECT_EQ(Timestamp::fromString("2011-06-15T14:30:05.1234569").microseconds() % 1000000,
              123456);  // digits past microseconds are cut
    EXPECT_EQ(Timestamp::fromString("2000-02-29").toTime_t(), 951782400);
}

TEST(Timestamp, InvalidTextGivesNull) {
    const char* bad[] = {"",
                         "garbage",
                         "0000:00:00 00:00:00",
                         "2011:13:01 00:00:00",
                         "2011:02:29 00:00:00",
                         "2011:06:15 24:00:00",
                         "2011:06:15 14:30:60",
                         "2011-06-15T14:30:05+25:00",
                         "2011-06-15T14:30:05Zjunk",
                         "2011-06-15T14:30:05.",
                         "2011-06:15 14:30:05",
                         "11:06:15 14:30:05"};
    for (const char* text : bad) {
        EXPECT_TRUE(Timestamp::fromMetaString(text).isNull()) << text;
        Timestamp out = Timestamp::now();
        EXPECT_FALSE(Timestamp::fromString(text, out)) << text;
        EXPECT_TRUE(out.isNull()) << text;
    }
    EXPECT_EQ(Timestamp().toString(), "");
    EXPECT_EQ(Timestamp().toTime_t(), 0);
}

TEST(Timestamp, StringFormRoundTripsExactly) {
    const Timestamp values[] = {
        Timestamp::fromMicroseconds(0),
        Timestamp::fromMicroseconds(1308148205000001),
        Timestamp::fromMicroseconds(-1),                  // 1969-12-31T23:59:59.999999Z
        Timestamp::fromMicroseconds(-62135596800000000),  // 0001-01-01
        Timestamp::fromMicroseconds(253402300799999999),  // 9999-12-31T23:59:59.999999
        Timestamp::now(),
    };
    for (const Timestamp& t : values) {
        const std::string s = t.toString();
        EXPECT_EQ(Timestamp::fromString(s), t) << s;
    }
    EXPECT_EQ(Timestamp::fromMicroseconds(-1).toString(), "1969-12-31T23:59:59.999999Z");
    EXPECT_EQ(Timestamp::fromMicroseconds(-1).toTime_t(), -1);
}

// The calendar against the C library's timegm and gmtime_r: every day of the years around 1970
// and 2000, of the century years whose leap rule differs, and of the first and last years, with
// the time of day moving through the day. February 29th exists only in leap years; an impossible
// day (which timegm would roll into the next month) gives null.
TEST(Timestamp, CalendarAgreesWithTheCLibraryAcrossLeapYearsAndBefore1970) {
    std::vector<int> years = {1, 4, 100, 400, 1600, 1700, 1800, 2100, 2200, 2400, 9996, 9999};
    for (int y = 1890; y <= 2110; ++y) years.push_back(y);
    int step = 0, days = 0;
    for (int y : years)
        for (int m = 1; m <= 12; ++m)
            for (int d = 1; d <= 31; ++d) {
                ++step;
                const int hour = step % 24, minute = step * 7 % 60, second = step * 13 % 60;
                std::tm fields{};
                fields.tm_year = y - 1900;
                fields.tm_mon = m - 1;
                fields.tm_mday = d;
                fields.tm_hour = hour;
                fields.tm_min = minute;
                fields.tm_sec = second;
                const time_t expected = timegm(&fields);  // normalises fields in place
                const Timestamp t = Timestamp::fromFields(y, m, d, hour, minute, second, step);
                if (fields.tm_mday != d) {
                    EXPECT_TRUE(t.isNull()) << y << "-" << m << "-" << d;
                    continue;
                }
                ++days;
                ASSERT_FALSE(t.isNull()) << y << "-" << m << "-" << d;
                EXPECT_EQ(t.toTime_t(), expected) << y << "-" << m << "-" << d;
                EXPECT_EQ(t.microseconds() - int64_t(expected) * 1000000, step);

                std::tm back{};
                ASSERT_TRUE(gmtime_r(&expected, &back));
                char text[80];  // room for any int in each field, as the compiler checks
                std::snprintf(text, sizeof text, "%04d:%02d:%02d %02d:%02d:%02d",
                              back.tm_year + 1900, back.tm_mon + 1, back.tm_mday, back.tm_hour,
                              back.tm_min, back.tm_sec);
                EXPECT_EQ(t.toMetaString(), text);
                EXPECT_EQ(Timestamp::fromString(t.toString()), t) << t.toString();
            }
    EXPECT_GE(days, int(years.size()) * 365);
    EXPECT_EQ(Timestamp::fromFields(1969, 12, 31, 23, 59, 59).toTime_t(), -1);
    EXPECT_TRUE(Timestamp::fromFields(1900, 2, 29).isNull());
    EXPECT_FALSE(Timestamp::fromFields(1600, 2, 29).isNull());
}

TEST(Timestamp, ComparesAndMeasuresDifferences) {
    const Timestamp a = Timestamp::fromTime_t(1000);
    const Timestamp b = a.addSeconds(2.5);
    EXPECT_LT(a, b);
    EXPECT_LT(Timestamp(), a);  // null comes first
    EXPECT_DOUBLE_EQ(b.secondsSince(a), 2.5);
    EXPECT_DOUBLE_EQ(a.secondsSince(b), -2.5);
    EXPECT_DOUBLE_EQ(b.secondsSince(Timestamp()), 0.0);
    EXPECT_TRUE(Timestamp().addSeconds(5).isNull());
    EXPECT_EQ(Timestamp::fromSeconds(1000.5), a.addSeconds(0.5));
    EXPECT_NEAR(static_cast<double>(Timestamp::now().toTime_t()),
                static_cast<double>(std::time(nullptr)), 5.0);
}

// --- Numbers ---------------------------------------------------------------------------------

TEST(TextUtils, ParsesIntegersStrictly) {
    int v = 7;
    EXPECT_TRUE(tryStrtoi(" -42 ", v));
    EXPECT_EQ(v, -42);
    EXPECT_TRUE(tryStrtoi("+3", v));
    EXPECT_EQ(v, 3);
    for (const char* bad : {"", " ", "4.5", "12abc", "0x10", "2147483648", "+-1", "--1"}) {
        v = 7;
        EXPECT_FALSE(tryStrtoi(bad, v)) << bad;
        EXPECT_EQ(v, 7) << bad;
    }
    EXPECT_EQ(strtoi("2147483647"), 2147483647);
    EXPECT_EQ(strtoi("x", -1), -1);
    int64_t big = 0;
    EXPECT_TRUE(tryStrtoi64("9000000000", big));
    EXPECT_EQ(big, 9000000000LL);
}

TEST(TextUtils, ParsesDoublesWithADotInAnyLocale) {
    auto check = [] {
        double d = 0;
        EXPECT_TRUE(tryFrstrtod("3.25", d));
        EXPECT_EQ(d, 3.25);
        EXPECT_EQ(frstrtod(" -1.5e3 "), -1500.0);
        EXPECT_EQ(frstrtod("+0.125"), 0.125);
        EXPECT_EQ(frstrtod("1e999"), HUGE_VAL);
        EXPECT_EQ(frstrtod("3,25", -1.0), -1.0);  // a comma is never a decimal point
        EXPECT_EQ(frstrtod("abc", -1.0), -1.0);
        EXPECT_EQ(frstrtod("2.5x", -1.0), -1.0);
        EXPECT_EQ(dtostr(0.1), "0.1");
        EXPECT_EQ(frstrtod(dtostr(1.0 / 3.0)), 1.0 / 3.0);
    };
    check();

    // A German locale: the system's, or else one made here from the locale sources (package
    // locales) into a folder that LOCPATH names.
    const std::string previous = std::setlocale(LC_NUMERIC, nullptr);
    const char* chosen = std::setlocale(LC_NUMERIC, "de_DE.UTF-8");
    qor::test::TempDir made;
    if (!chosen) {
        const std::string command =
            "localedef -i de_DE -f UTF-8 '" + made.path() + "/de_DE.UTF-8' >/dev/null 2>&1";
        ASSERT_EQ(std::system(command.c_str()), 0) << "localedef failed: is 'locales' installed?";
        ::setenv("LOCPATH", made.path().c_str(), 1);
        chosen = std::setlocale(LC_NUMERIC, "de_DE.UTF-8");
        ::unsetenv("LOCPATH");
    }
    ASSERT_NE(chosen, nullptr);
    ASSERT_STREQ(std::localeconv()->decimal_point, ",");
    check();
    std::setlocale(LC_NUMERIC, previous.c_str());
}

// --- Case, URLs, base64, UTF-16 --------------------------------------------------------------

TEST(TextUtils, ChangesCaseOfAsciiAndEuropeanLetters) {
    EXPECT_EQ(upcase("abc.jpg"), "ABC.JPG");
    EXPECT_EQ(upcase("äöüéñ ÿ ąž αβς яё 1€"), "ÄÖÜÉÑ Ÿ ĄŽ ΑΒΣ ЯЁ 1€");
    EXPECT_EQ(downcase("ÄÖÜÉÑ Ÿ ĄŽ ΑΒ ЯЁ"), "äöüéñ ÿ ąž αβ яё");
    EXPECT_EQ(upcase(std::string("a\xff\xc3", 3)), std::string("A\xff\xc3", 3));  // bad bytes kept
    EXPECT_EQ(trim("  a b \t\n"), "a b");
}

TEST(TextUtils, ChangesCaseOfEveryScriptWithFullMappings) {
    // Beyond Latin, Greek and Cyrillic: Armenian, Georgian Mtavruli, Latin Extended-B and
    // Deseret, whose letters lie outside the BMP (four bytes in UTF-8).
    EXPECT_EQ(upcase("աբ ǆ ა 𐐨𐐩"), "ԱԲ Ǆ Ა 𐐀𐐁");
    EXPECT_EQ(downcase("ԱԲ Ǆ 𐐀𐐁"), "աբ ǆ 𐐨𐐩");
    // Full mappings change lengths: a sharp s upper-cases to two letters and the dotted capital
    // I lower-cases to i and a combining dot, so names that differ only so compare equal.
    EXPECT_EQ(upcase("Straße"), upcase("STRASSE"));
    EXPECT_EQ(downcase("İ"), "i\u0307");
    EXPECT_EQ(downcase("ΟΔΟΣ ΟΔΟΣ."), "οδος οδος.");  // final sigma
    // Ill-formed parts between letters are kept byte for byte, the letters around them mapped.
    const std::string broken("\xc3\xa4\xe2\x82z\xed\xa0\x80\xf0\x90\x90\xa8\xc0", 13);
    EXPECT_EQ(upcase(broken), std::string("\xc3\x84\xe2\x82Z\xed\xa0\x80\xf0\x90\x90\x80\xc0", 13));
    EXPECT_EQ(upcase(std::string("a\0b", 3)), std::string("A\0B", 3));
}

TEST(TextUtils, UrlEncodesAllButUnreservedBytes) {
    EXPECT_EQ(urlEncode("AZaz09-._~"), "AZaz09-._~");
    EXPECT_EQ(urlEncode(" !*'();:@&=+$,/?#[]"),
              "%20%21%2A%27%28%29%3B%3A%40%26%3D%2B%24%2C%2F%3F%23%5B%5D");
    EXPECT_EQ(urlEncode("ä€"), "%C3%A4%E2%82%AC");
    EXPECT_EQ(urlEncode(std::string("\0\x7f", 2)), "%00%7F");

    EXPECT_EQ(urlDecode("a%20b%c3%A4"), "a bä");
    EXPECT_EQ(urlDecode("100%+%zz%4"), "100%+%zz%4");  // bad escapes stay as they are
    EXPECT_EQ(urlDecode("a+b", true), "a b");
    EXPECT_EQ(urlDecode("a+b%2B", true), "a b+");  // an escaped plus stays a plus
    EXPECT_EQ(urlDecode("a+b%2B"), "a+b+");
    EXPECT_EQ(urlEncode(""), "");
    const std::string all = [] {
        std::string s;
        for (int c = 0; c < 256; ++c) s += static_cast<char>(c);
        return s;
    }();
    EXPECT_EQ(urlDecode(urlEncode(all)), all);
}

TEST(TextUtils, ConvertsFileUrlsAndLocalPaths) {
    EXPECT_EQ(urlToLocalPath("file:///home/x/a%20b.jpg"), "/home/x/a b.jpg");
    EXPECT_EQ(urlToLocalPath("file://localhost/home/x/%C3%A4.jpg"), "/home/x/ä.jpg");
    EXPECT_EQ(urlToLocalPath("FILE:///x"), "/x");
    EXPECT_EQ(urlToLocalPath("/plain/a%20b.jpg"), "/plain/a%20b.jpg");  // not a url: unchanged
    EXPECT_EQ(localPathToUrl("/home/x/a b#1.jpg"), "file:///home/x/a%20b%231.jpg");
    EXPECT_EQ(urlToLocalPath(localPathToUrl("/a/ä %/b")), "/a/ä %/b");
    EXPECT_TRUE(isFileUrl("file:///x"));
    EXPECT_FALSE(isFileUrl("ptp://camera/x"));
}

TEST(TextUtils, Base64MatchesRfc4648Vectors) {
    const std::pair<const char*, const char*> vectors[] = {
        {"", ""},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"},
    };
    for (auto [plain, encoded] : vectors) {
        EXPECT_EQ(base64Encode(plain), encoded);
        std::string out;
        EXPECT_TRUE(base64Decode(encoded, out)) << encoded;
        EXPECT_EQ(out, plain);
    }
    EXPECT_EQ(base64Decode("Zm9vYg"), "foob");             // padding may be left out
    EXPECT_EQ(base64Decode("Zm9v\r\nYmFy"), "foobar");     // line breaks are skipped
    EXPECT_EQ(base64Decode(" Zm 9v\tY g =\n= "), "foob");  // white space anywhere, padding too
    EXPECT_EQ(base64Decode("Zm9vYmE"), "fooba");
    std::string out;
    EXPECT_TRUE(base64Decode(" \n", out));
    EXPECT_EQ(out, "");
    for (const char* bad : {"Zm9v!", "Z", "Zg=", "Zg===", "Zg==Zg==", "Zm=9", "Zm9v-", "Zm9v=", "=",
                            "====", "Zm9v\x80"})
        EXPECT_FALSE(base64Decode(bad, out)) << bad;
    EXPECT_EQ(base64Decode("Zm=9"), "");

    std::string all;
    for (int c = 0; c < 256; ++c) all += static_cast<char>(c);
    EXPECT_EQ(base64Decode(base64Encode(all)), all);
}

TEST(TextUtils, ConvertsBetweenUtf8AndUtf16) {
    const std::string s = "aä€😀";
    const std::u16string w = utf8_to_utf16(s);
    EXPECT_EQ(w, u"aä€😀");
    EXPECT_EQ(w.size(), 5u);  // the emoji is a surrogate pair
    EXPECT_EQ(utf16_to_utf8(w), s);
    EXPECT_EQ(utf8_to_utf16("a\xff"
                            "b"),
              u"a\uFFFDb");
    EXPECT_EQ(utf8_to_utf16("\xed\xa0\x80"), u"\uFFFD\uFFFD\uFFFD");  // encoded surrogate
    EXPECT_EQ(utf16_to_utf8(std::u16string(1, char16_t(0xD800))), "\xEF\xBF\xBD");
}

// UTF-8 of one code point, written out here so that the conversions are checked against an
// encoder of their own.
std::string utf8Of(char32_t c) {
    std::string s;
    if (c < 0x80) {
        s += char(c);
    } else if (c < 0x800) {
        s += {char(0xC0 | c >> 6), char(0x80 | (c & 0x3F))};
    } else if (c < 0x10000) {
        s += {char(0xE0 | c >> 12), char(0x80 | (c >> 6 & 0x3F)), char(0x80 | (c & 0x3F))};
    } else {
        s += {char(0xF0 | c >> 18), char(0x80 | (c >> 12 & 0x3F)), char(0x80 | (c >> 6 & 0x3F)),
              char(0x80 | (c & 0x3F))};
    }
    return s;
}

TEST(TextUtils, Utf16RoundTripsEveryScalarValue) {
    std::string all;
    size_t units = 0;
    for (char32_t c = 0; c <= 0x10FFFF; ++c) {
        if (c >= 0xD800 && c <= 0xDFFF) continue;
        all += utf8Of(c);
        units += c >= 0x10000 ? 2 : 1;
    }
    const std::u16string wide = utf8_to_utf16(all);
    ASSERT_EQ(wide.size(), units);
    EXPECT_EQ(wide.substr(0, 3), std::u16string(u"\0\x01\x02", 3));  // NUL is a character
    EXPECT_EQ(wide.substr(units - 2), u"\U0010FFFF");
    EXPECT_EQ(utf16_to_utf8(wide), all);
}

TEST(TextUtils, ReplacesEachIllFormedPartOnce) {
    const std::pair<std::string, std::u16string> cases[] = {
        {"\xe2\x82"
         "a",
         u"\uFFFDa"},                   // truncated three-byte sequence: one part
        {"\xf0\x9f\x98", u"\uFFFD"},    // truncated at the end
        {"\xc0\xaf", u"\uFFFD\uFFFD"},  // overlong '/', never valid
        {"\xf4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},            // above U+10FFFF
        {"\xf8\x88\x80\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD"},  // five-byte form
        {"\x80"
         "a\xbf",
         u"\uFFFDa\uFFFD"},  // stray continuation bytes
    };
    for (const auto& [bytes, expected] : cases) EXPECT_EQ(utf8_to_utf16(bytes), expected) << bytes;

    // UTF-16: only whole pairs make a character; a low half first, a high half at the end or a
    // high half before another character are each replaced.
    EXPECT_EQ(utf16_to_utf8(u"\xDE00\xD83D"), "\uFFFD\uFFFD");
    EXPECT_EQ(utf16_to_utf8(std::u16string{0xD83D, u'a', 0xD83D, 0xDE00}), "\uFFFDa😀");
}

// --- MD5 -------------------------------------------------------------------------------------

TEST(Md5Stream, MatchesKnownDigests) {
    Md5Stream md5;
    EXPECT_EQ(md5.getDigest().toHex(), "d41d8cd98f00b204e9800998ecf8427e");
    md5.update("abc", 3);
    EXPECT_EQ(md5.getDigest().toHex(), "900150983cd24fb0d6963f7d28e17f72");
    // After getDigest the stream starts over; pieces give the digest of the whole.
    md5.update("a");
    md5.update("bc");
    EXPECT_EQ(md5.getDigest(), Md5Stream::of("abc"));
    EXPECT_EQ(Md5Stream::of("The quick brown fox jumps over the lazy dog").toHex(),
              "9e107d9d372bb6826bd81d3542a419d6");
}
