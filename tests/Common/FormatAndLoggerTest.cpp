#include <gtest/gtest.h>

#include "Common/Format.h"
#include "Common/OrvLogger.h"
#include "support/LogCapture.h"

namespace orv {
namespace {

struct Described {
    std::string description() const { return "<Described>"; }
};

TEST(Format, ConversionsThePhrasesAndLogLinesUse) {
    EXPECT_EQ(format("%@ and %@", "text", std::string("more")), "text and more");
    EXPECT_EQ(format("%@|%@|%@", 42, 2.5, -7L), "42|2.5|-7");
    EXPECT_EQ(format("%d %i %u %ld %lu", -3, 4, 5u, -6L, 7UL), "-3 4 5 -6 7");
    EXPECT_EQ(format("%0.1f / %f / %g", 1.25, 0.5, 100.0), "1.2 / 0.500000 / 100");
    EXPECT_EQ(format("%s=%%", "pct"), "pct=%");
    EXPECT_EQ(format("%2$@ %1$@", "world", "hello"), "hello world");
    EXPECT_EQ(format("%08lu", 1UL), "00000001");
    enum Code : int32_t { kSome = -25204 };
    EXPECT_EQ(format("failed - %d (%@)", kSome, kSome), "failed - -25204 (-25204)");
}

TEST(Format, ObjectsDescribeThemselvesAndNullIsSaidSo) {
    Described d;
    auto shared = std::make_shared<Described>();
    std::shared_ptr<Described> none;
    EXPECT_EQ(format("%@ %@ %@", d, shared, none), "<Described> <Described> (null)");
    int x = 0;
    EXPECT_NE(format("%p", static_cast<const void*>(&x)).find("0x"), std::string::npos);
}

TEST(Format, NeverReadsPastItsArguments) {
    EXPECT_EQ(format("%@ %@", "one"), "one (missing)");
    EXPECT_EQ(format("%9$@", "one"), "(missing)");
    EXPECT_EQ(format("trailing %"), "trailing %");
    EXPECT_EQ(format("bad %k conv", 1), "bad %k conv");
    // A string given where a number is expected prints as zero rather than crashing.
    EXPECT_EQ(format("%d", "text"), "0");
    // Widths from a hand-edited phrase table neither overflow nor pad without end.
    EXPECT_EQ(format("%99999999999@", "x").size(), 1000u);
    EXPECT_EQ(format("%.99999999999f", 1.0).size(), 1002u);
}

TEST(Format, OutsideTextIsEscapedAndCut) {
    using namespace std::string_literals;
    EXPECT_EQ(outsideText("plain caf\xc3\xa9"), "plain caf\xc3\xa9");
    EXPECT_EQ(outsideText("a\nb\tc\x1b[2J"), "a\\nb\\tc\\x1b[2J");
    EXPECT_EQ(outsideText("nul\0after"s), "nul\\x00after");
    EXPECT_EQ(outsideText("\xef\xbb\xbf" "bom"), "\\u{feff}bom");
    EXPECT_EQ(outsideText("\xe2\x80\xae" "evil"), "\\u{202e}evil");
    // Broken, overlong and truncated sequences are bytes, not text.
    EXPECT_EQ(outsideText("\xc0\xaf\xe2\x82"), "\\xc0\\xaf\\xe2\\x82");
    EXPECT_EQ(outsideText("\xc2\x85"), "\\u{85}");

    const std::string big(10'000'000, 'x');
    const std::string cut = outsideText(big, 40);
    EXPECT_EQ(cut, std::string(40, 'x') + "... (9999960 more bytes)");
    // A multi-byte character or an escape is never cut in half.
    EXPECT_EQ(outsideText("ab\xc3\xa9", 3), "ab... (2 more bytes)");
    EXPECT_EQ(outsideText("ab\n", 3), "ab... (1 more bytes)");
}

TEST(Logger, AForgedNewlineStaysInsideItsLine) {
    test::LogCapture cap(3);
    OrvLogger::addInfoMessageWithFormat("got %@", "x\n2026-01-01 00:00:00.000 agent[1] (error) forged");
    systemLog("plain\rline\x07");
    ASSERT_EQ(cap.count(), 2u);
    EXPECT_EQ(cap.lines()[0], "(info) got x\\n2026-01-01 00:00:00.000 agent[1] (error) forged");
    EXPECT_EQ(cap.lines()[1], "plain\\rline\\x07");
}

TEST(Logger, FiltersByVerbosityWithLevelPrefixes) {
    test::LogCapture cap(1);
    EXPECT_FALSE(OrvLogger::infoMessageIsLogged());
    OrvLogger::addInfoMessage("info");
    OrvLogger::addWarningMessage("warn");
    OrvLogger::addErrorMessage("err");
    ASSERT_EQ(cap.lines(), std::vector<std::string>{"(error) err"});

    OrvLogger::setVerbosity(2);
    OrvLogger::addWarningMessageWithFormat("w %d", 2);
    OrvLogger::addInfoMessageWithFormat("i %d", 3);
    EXPECT_EQ(cap.lines().back(), "(warning) w 2");
    EXPECT_EQ(cap.count(), 2u);

    OrvLogger::setVerbosity(3);
    EXPECT_TRUE(OrvLogger::infoMessageIsLogged());
    OrvLogger::addInfoMessageWithFormat("i %@", "x");
    EXPECT_EQ(cap.lines().back(), "(info) i x");
}

TEST(Logger, PlainTextKeepsPercentAndFormatsAreNotBuiltWhenFiltered) {
    test::LogCapture cap(1);
    OrvLogger::addErrorMessage("100% sure %@ %d");
    EXPECT_EQ(cap.lines().back(), "(error) 100% sure %@ %d");

    int described = 0;
    struct Counting {
        int* n;
        std::string description() const {
            ++*n;
            return "c";
        }
    };
    OrvLogger::addWarningMessageWithFormat("%@", Counting{&described});
    EXPECT_EQ(described, 0);
    OrvLogger::addErrorMessageWithFormat("%@", Counting{&described});
    EXPECT_EQ(described, 1);
}

TEST(Logger, UnknownLevelsUseTheirOwnPrefixAndCompareWithVerbosity) {
    test::LogCapture cap(3);
    OrvLogger::addMessage("four", 4);
    EXPECT_EQ(cap.count(), 0u);
    OrvLogger::setVerbosity(4);
    OrvLogger::addMessage("four", 4);
    OrvLogger::addMessage("zero", 0);
    EXPECT_EQ(cap.lines(), (std::vector<std::string>{"(unknown) four", "(unknown) zero"}));
    EXPECT_EQ(OrvLogger::prefix("x", 1), "(error) x");
}

}  // namespace
}  // namespace orv
