// Values, their descriptions, and the formatter that prints them.

#include "CoreKestly/Platform/Values/DCIFormat.h"

#include "CoreKestly/Platform/Values/DCIValue.h"
#include "support/Testing.h"

namespace {

struct Named : DCIObject {
    explicit Named(std::string text) : name(std::move(text)) {}
    std::string description() const override { return "<Named " + name + ">"; }
    std::string name;
};

struct FormatCase {
    const char* format;
    std::vector<DCIFormatArgument> arguments;
    std::string expected;
};

constexpr int64_t kInt64Min = std::numeric_limits<int64_t>::min();
constexpr uint64_t kUInt64Max = std::numeric_limits<uint64_t>::max();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();

TEST(DCIFormatTests, ConversionTable) {
    // An argument borrows a value's text, so the values outlive the table.
    const DCIValue literalText("text"), stringText(std::string("ab"));
    const FormatCase cases[] = {
        // Text and percent signs.
        {"", {}, ""}, {"no conversions at all", {1}, "no conversions at all"}, {"100%%", {}, "100%"},
        {"%%d", {7}, "%d"}, {"%d%%", {50}, "50%"}, {"50%", {}, "50%"}, {"50% ", {}, "50% "},
        {"cut off %-08.3", {1}, "cut off %-08.3"}, {"cut off %l", {1}, "cut off %l"},
        {"Bëat Prøject: %@", {"kick.wav"}, "Bëat Prøject: kick.wav"},
        // Unknown conversions are copied and take no argument.
        {"%k", {}, "%k"}, {"%5k then %d", {7}, "%5k then 7"}, {"%n%d", {3}, "%n3"}, {"%*k %d", {9}, "%*k 9"},
        {"%$ %y %C", {1}, "%$ %y %C"},
        // Integer conversions.
        {"%d %i", {42, -7}, "42 -7"}, {"%5d|%-5d|%05d", {42, 42, -42}, "   42|42   |-0042"},
        {"%+d % d %+d", {5, 5, -5}, "+5  5 -5"}, {"%.3d|%6.3d|%-06d|", {7, -7, 7}, "007|  -007|7     |"},
        {"%u %lu %llu", {3000000000u, kUInt64Max, 0u}, "3000000000 18446744073709551615 0"},
        {"%x %X %#x %08x %#010X", {255, 255, 255, 0xbeef, 0xbeef}, "ff FF 0xff 0000beef 0X0000BEEF"},
        {"%o %#o", {8, 8}, "10 010"}, {"%lld", {kInt64Min}, "-9223372036854775808"},
        {"%hhd %hd %ld %lld %qd %zd %td %jd %Ld", {1, 2, 3, 4, 5, 6, 7, 8, 9}, "1 2 3 4 5 6 7 8 9"},
        {"%hhu %zu", {300, size_t{1} << 40}, "300 1099511627776"},
        // Floating point conversions.
        {"%5.2f|", {3.14159}, " 3.14|"}, {"%f %F", {1.5, kInfinity}, "1.500000 INF"}, {"%f", {kNaN}, "nan"},
        {"%e %E", {12345.678, 0.00012}, "1.234568e+04 1.200000E-04"}, {"%a", {1.0}, "0x1p+0"},
        {"%g %G %g", {0.0001, 1e-10, 100000.0}, "0.0001 1E-10 100000"},
        {"%+.1f % .1f %010.3f", {2.0, 2.0, -3.14159}, "+2.0  2.0 -00003.142"},
        {"%-8.1f|%#.0f", {2.0, 3.0}, "2.0     |3."}, {"%Lf %lf", {1.5, 2.5}, "1.500000 2.500000"},
        // Text, characters and pointers. A precision never cuts a UTF-8 character in half.
        {"%s %@", {"hello", "world"}, "hello world"}, {"%-8s|%8s|", {"kick", "snare"}, "kick    |   snare|"},
        {"%.3s|%.0s|%.9s", {"abcdef", "abc", "abc"}, "abc||abc"}, {"%.2s|%.3s", {"Bëat", "Bëat"}, "B|Bë"},
        {"%10@|", {"kick"}, "      kick|"}, {"%c%c%c", {'K', 'i', 'k'}, "Kik"}, {"%3c|%-3c|", {'x', 'y'}, "  x|y  |"},
        {"%c", {static_cast<char>('\xC3')}, "\xC3"}, {"%p", {static_cast<const void*>(nullptr)}, "0x0"},
        {"%8p|", {reinterpret_cast<const void*>(uintptr_t{0xbeef})}, "  0xbeef|"},
        // Width and precision from arguments.
        {"%*d|%-*d|", {5, 42, 4, 42}, "   42|42  |"}, {"%*d|", {-5, 42}, "42   |"},
        {"%.*f|%*.*f|", {2, 3.14159, 7, 1, 3.14159}, "3.14|    3.1|"},
        {"%.*s|", {-1, "abc"}, "abc|"}, {"%*d|", {2.9, 7}, " 7|"},
        // A width that is not a number is taken and ignored.
        {"%*d|", {"wide", 7}, "7|"}, {"%*d|", {}, "(null)|"}, {"%*d|%d", {uint64_t{3}, 1, 2}, "  1|2"},
        // Arguments of another kind are never reinterpreted.
        {"%d|%5d|%x", {"text", "ab", "ff"}, "text|   ab|ff"}, {"%.1d|", {"text"}, "text|"},
        {"%s %@ %s", {42, -3, uint64_t{7}}, "42 -3 7"}, {"%@ %@ %s", {1.5, 0.1, 1e300}, "1.5 0.1 1e+300"},
        {"%d %d %i %x", {2.9, -2.9, 1e10, 255.5}, "2 -2 10000000000 ff"},
        {"%d %d %u", {1e300, kNaN, 1.8e19}, "1e+300 nan 18000000000000000000"},
        {"%u %x %05o %#X", {-1, -255, -8, -1}, "-1 -255 -0008 -1"},
        {"%d %+d %5i|", {kUInt64Max, kUInt64Max, kUInt64Max},
         "18446744073709551615 18446744073709551615 18446744073709551615|"},
        {"%f %.1e %g", {3, uint64_t{10}, -2}, "3.000000 1.0e+01 -2"},
        {"%c %c %c", {1000, "xy", 65.7}, "1000 xy A"}, {"%p %p", {5, "text"}, "5 text"},
        // Values print by their kind; the null value is the shared null object, not a missing one.
        {"%d %d %u %d", {DCIValue(3.5), DCIValue(-4), DCIValue(-4), DCIValue(true)}, "3 -4 -4 1"},
        {"%@ %@ %@", {DCIValue(kUInt64Max), DCIValue(int64_t{1} << 62), DCIValue(0.25)},
         "18446744073709551615 4611686018427387904 0.25"},
        {"%f %@ %d", {DCIValue(2), DCIValue(kNaN), DCIValue(1e300)}, "2.000000 nan 1e+300"},
        {"%s %5d|", {literalText, stringText}, "text    ab|"},
        {"%@ %@", {DCIValue(), std::optional<DCIValue>()}, "<null> (null)"},
        // Missing arguments and nil objects print null; a precision is for the argument that is
        // missing, not for the word that stands in for it.
        {"%@ and %@", {"a"}, "a and (null)"}, {"%.2s", {}, "(null)"},
        {"%d %s %f %@ %c %p %x", {}, "(null) (null) (null) (null) (null) (null) (null)"},
        {"%8@|%-8d|%3s|", {}, "  (null)|(null)  |(null)|"},
        {"%@ %@ %@ %s", {std::shared_ptr<DCIObject>{}, nullptr, std::optional<std::string>{},
                         static_cast<const char*>(nullptr)}, "(null) (null) (null) (null)"},
        // Extra arguments are ignored and many are taken in order.
        {"%d", {1, 2, 3}, "1"}, {"none", {1, "two"}, "none"},
        {"%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d%d", {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15},
         "0123456789101112131415"},
        {"%@=%d, %@=%.1f, %@=%s", {"a", 1, "b", 2.0, "c", "three"}, "a=1, b=2.0, c=three"},
    };
    for (const auto& [format, arguments, expected] : cases)
        EXPECT_EQ(DCIFormatArguments(format, arguments), expected) << "format: \"" << format << "\"";
}

TEST(DCIFormatTests, PointersPrintTheirAddressAndWidthsAndPrecisionsAreCapped) {
    const int object = 0;
    const std::string address = DCIFormat("%p", static_cast<const void*>(&object));
    EXPECT_EQ(address.substr(0, 2), "0x");
    EXPECT_EQ(std::stoull(address.substr(2), nullptr, 16), reinterpret_cast<uintptr_t>(&object));

    EXPECT_EQ((std::vector{DCIFormat("%99999999999999999999d", 1).size(), DCIFormat("%*s", 1'000'000'000, "x").size(),
                           DCIFormat("%.99999f", 1.0).size(), DCIFormat("%-*d|", kInt64Min, 1).size()}),
              (std::vector<size_t>{4096, 4096, 2 + 4096, 4097}));
}

TEST(DCIFormatTests, ArgumentsKeepTheTypeTheyArePassedWith) {
    const auto sample = std::make_shared<Named>("kick.wav");
    char buffer[] = "mutable";
    EXPECT_EQ(DCIFormat("%c %d %d", 'A', 'A', true), "A 65 1");
    EXPECT_EQ(DCIFormat("%.2f %u %d", 1.5f, static_cast<unsigned short>(7), static_cast<signed char>(-3)),
              "1.50 7 -3");
    EXPECT_EQ(DCIFormat("%@ %@", std::optional<int>(5), std::optional<int>()), "5 (null)");
    EXPECT_EQ(DCIFormat("%@|%s", std::string("owned"), buffer), "owned|mutable");
    EXPECT_EQ(DCIFormat("%@ %@", sample, std::shared_ptr<Named>()), "<Named kick.wav> (null)");
    EXPECT_EQ(DCIFormat("100%%"), "100%");
}

}  // namespace

TEST(DCIValue, DescribesEachKindAsTheOriginalPlatformPrintsIt) {
    const std::pair<DCIValue, std::string> table[] = {
        {DCIValue(), "<null>"}, {true, "1"}, {int64_t{-6}, "-6"}, {UINT64_MAX, "18446744073709551615"}, {0.5, "0.5"},
        {"text", "text"}, {DCIDate::dateWithTimeIntervalSinceReferenceDate(0), "2001-01-01 00:00:00 +0000"},
        {DCIError("Domain", 4, "Went wrong"), "Error Domain=Domain Code=4 \"Went wrong\""},
        {DCIData(std::string_view("\x01\xff", 2)), "{length = 2, bytes = 0x01ff}"},
        {std::make_shared<Named>("kick"), "<Named kick>"},
        // Missing things are null, not empty.
        {static_cast<const char*>(nullptr), "<null>"}, {std::shared_ptr<Named>(), "<null>"}};
    for (const auto& [value, text] : table) EXPECT_EQ(value.description(), text);
}

TEST(DCIValue, NumbersConvertOtherKindsDoNotAndEqualityIsByKindValueAndIdentity) {
    EXPECT_EQ(std::tuple(DCIValue(int64_t{3}).uint64Value(), DCIValue(uint64_t{7}).int64Value(), DCIValue(2.9).int64Value(),
                         DCIValue(0).boolValue(), DCIValue(5).boolValue()),
              std::tuple(3u, 7, 2, false, true));
    EXPECT_EQ(std::tuple(DCIValue("3").int64Value(), DCIValue().doubleValue(), DCIValue(4).string()),
              std::tuple(std::nullopt, std::nullopt, nullptr));
    EXPECT_EQ(*DCIValue("3").string(), "3");
    const auto named = std::make_shared<Named>("x");
    EXPECT_EQ(DCIValue(named).object<Named>(), named);
    EXPECT_EQ(DCIValue("x").object(), nullptr);
    EXPECT_EQ(DCIValue(named), DCIValue(named));
    EXPECT_NE(DCIValue(named), DCIValue(std::make_shared<Named>("x")));
    EXPECT_EQ(DCIValue("a"), DCIValue(std::string("a")));
    EXPECT_NE(DCIValue(int64_t{1}), DCIValue(uint64_t{1}));
}

TEST(DCIDictionary, DescriptionQuotesOnlyWhatIsNotAPlainWord) {
    const DCIDictionary dictionary{
        {"sourcePath", "/Samples/kick.wav"}, {"destPath", "/Samples/My Kicks/kick \"1\".wav"}, {"statusCode", 404},
        {"empty", ""}};
    EXPECT_EQ(DCIDescription(dictionary), "{\n    destPath = \"/Samples/My Kicks/kick \\\"1\\\".wav\";\n    empty = \"\";\n"
                                          "    sourcePath = /Samples/kick.wav;\n    statusCode = 404;\n}");
    EXPECT_EQ(DCIDescription({}), "{\n}");
}
