#include "CoreKestly/Platform/DCIValue.h"

#include <gtest/gtest.h>

namespace {
class Named : public DCIObject {
public:
    explicit Named(std::string name) : name_(std::move(name)) {}
    std::string description() const override { return "<Named " + name_ + ">"; }

private:
    std::string name_;
};
}  // namespace

TEST(DCIValue, DescribesEachKindAsTheOriginalPlatformPrintsIt) {
    EXPECT_EQ(DCIValue().description(), "<null>");
    EXPECT_EQ(DCIValue(true).description(), "1");
    EXPECT_EQ(DCIValue(int64_t{-6}).description(), "-6");
    EXPECT_EQ(DCIValue(UINT64_MAX).description(), "18446744073709551615");
    EXPECT_EQ(DCIValue(0.5).description(), "0.5");
    EXPECT_EQ(DCIValue("text").description(), "text");
    EXPECT_EQ(DCIValue(DCIDate::dateWithTimeIntervalSinceReferenceDate(0)).description(), "2001-01-01 00:00:00 +0000");
    EXPECT_EQ(DCIValue(DCIError("Domain", 4, "Went wrong")).description(), "Error Domain=Domain Code=4 \"Went wrong\"");
    EXPECT_EQ(DCIValue(DCIData(std::string_view("\x01\xff", 2))).description(), "{length = 2, bytes = 0x01ff}");
    EXPECT_EQ(DCIValue(std::make_shared<Named>("kick")).description(), "<Named kick>");
    // Missing things are null, not empty.
    EXPECT_TRUE(DCIValue(static_cast<const char*>(nullptr)).isNull());
    EXPECT_TRUE(DCIValue(std::shared_ptr<Named>()).isNull());
}

TEST(DCIValue, NumbersConvertAndOtherKindsDoNot) {
    EXPECT_EQ(DCIValue(int64_t{3}).uint64Value(), 3u);
    EXPECT_EQ(DCIValue(uint64_t{7}).int64Value(), 7);
    EXPECT_EQ(DCIValue(2.9).int64Value(), 2);
    EXPECT_EQ(DCIValue(0).boolValue(), false);
    EXPECT_EQ(DCIValue(5).boolValue(), true);
    EXPECT_FALSE(DCIValue("3").int64Value().has_value());
    EXPECT_FALSE(DCIValue().doubleValue().has_value());
    EXPECT_EQ(DCIValue("3").string() ? *DCIValue("3").string() : "", "3");
    EXPECT_EQ(DCIValue(4).string(), nullptr);

    const auto named = std::make_shared<Named>("x");
    EXPECT_EQ(DCIValue(named).object<Named>(), named);
    EXPECT_EQ(DCIValue("x").object(), nullptr);
}

TEST(DCIValue, EqualityIsByValueAndObjectsByIdentity) {
    EXPECT_EQ(DCIValue("a"), DCIValue(std::string("a")));
    EXPECT_NE(DCIValue(int64_t{1}), DCIValue(uint64_t{1}));
    const auto named = std::make_shared<Named>("x");
    EXPECT_EQ(DCIValue(named), DCIValue(named));
    EXPECT_NE(DCIValue(named), DCIValue(std::make_shared<Named>("x")));
}

TEST(DCIDictionary, DescriptionQuotesOnlyWhatIsNotAPlainWord) {
    const DCIDictionary dictionary{
        {"sourcePath", "/Samples/kick.wav"}, {"destPath", "/Samples/My Kicks/kick \"1\".wav"}, {"statusCode", 404},
        {"empty", ""},
    };
    EXPECT_EQ(DCIDescription(dictionary),
              "{\n"
              "    destPath = \"/Samples/My Kicks/kick \\\"1\\\".wav\";\n"
              "    empty = \"\";\n"
              "    sourcePath = /Samples/kick.wav;\n"
              "    statusCode = 404;\n"
              "}");
    EXPECT_EQ(DCIDescription({}), "{\n}");
}

TEST(DCIDate, ReferenceDateAndUnixTimeAgree) {
    const auto date = DCIDate::dateWithTimeIntervalSince1970(kDCITimeIntervalBetween1970AndReferenceDate + 1.25);
    EXPECT_DOUBLE_EQ(date.timeIntervalSinceReferenceDate(), 1.25);
    EXPECT_DOUBLE_EQ(date.timeIntervalSinceDate(DCIDate::dateWithTimeIntervalSinceReferenceDate(0.25)), 1.0);
    const double now = DCIAbsoluteTimeGetCurrent();
    EXPECT_GT(now, 25.0 * 365 * 86400);  // after 2026
}

TEST(DCIError, PosixErrorsCarryTheSystemsWords) {
    const auto error = DCIError::posixError(ENOENT, "open /nowhere");
    EXPECT_EQ(error.domain(), kDCIPOSIXErrorDomain);
    EXPECT_EQ(error.code(), ENOENT);
    EXPECT_EQ(error.localizedDescription(), "open /nowhere: No such file or directory");
}
