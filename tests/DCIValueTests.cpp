#include "CoreKestly/Platform/DCIValue.h"

#include <gtest/gtest.h>

#include <tuple>

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
