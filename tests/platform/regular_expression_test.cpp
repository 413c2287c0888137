#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "zul/platform/regular_expression.hpp"

namespace {

using namespace std::literals;
using zul::RegularExpression;

std::shared_ptr<const RegularExpression> compiled(std::string_view pattern, bool caseInsensitive = false) {
    auto regex = RegularExpression::compile(pattern, {.caseInsensitive = caseInsensitive});
    EXPECT_NE(regex, nullptr) << pattern;
    return regex;
}

// The matched texts of every match of `pattern` in `text`.
std::vector<std::string> matchedTexts(std::string_view pattern, std::string_view text, bool caseInsensitive = false) {
    std::vector<std::string> result;
    auto regex = compiled(pattern, caseInsensitive);
    if (regex == nullptr) return result;
    for (const auto& match : regex->matches(text)) {
        const auto whole = match.groups.at(0);
        EXPECT_TRUE(whole.has_value());
        if (whole) result.emplace_back(text.substr(whole->first, whole->second));
    }
    return result;
}

bool wholeMatch(std::string_view pattern, std::string_view text, bool caseInsensitive = false) {
    return compiled("^(?:" + std::string(pattern) + ")$", caseInsensitive)->hasMatch(text);
}

TEST(RegularExpressionTest, CompileReturnsNullForAnInvalidPattern) {
    for (std::string_view pattern : {"(", "[a-", "a{2,1}", "(?<=a+)b", "\\"}) {
        EXPECT_EQ(RegularExpression::compile(pattern), nullptr) << pattern;
    }
    EXPECT_NE(RegularExpression::compile(""), nullptr);
}

TEST(RegularExpressionTest, DotNeverMatchesALineTerminatorAndAnchorsRecognizeEveryOne) {
    for (std::string_view terminator : {"\n"sv, "\v"sv, "\f"sv, "\r"sv, "\u0085"sv, "\u2028"sv, "\u2029"sv}) {
        EXPECT_FALSE(wholeMatch(".", terminator)) << static_cast<int>(terminator[0]);
    }
    // The characters next to the terminators are ordinary.
    for (std::string_view other : {"\t"sv, "\x0e"sv, "\u0084"sv, "\u2027"sv, "\u202A"sv, "\u00A0"sv, "\u00E9"sv}) {
        EXPECT_TRUE(wholeMatch(".", other)) << other;
    }
    // One character, not one byte.
    EXPECT_EQ(matchedTexts("a.c", "a\u20ACc"), std::vector<std::string>{"a\u20ACc"});

    // Long enough subjects are scanned in words; a terminator, a tab or a multi-byte character
    // is put at every position of them.
    for (std::size_t at = 1; at + 1 < 24; ++at) {
        for (const char between : {'\v', '\f', '\r', '\t'}) {
            std::string text(24, 'x');
            text.replace(at - 1, 3, std::string{'a', between, 'b'});
            EXPECT_EQ(compiled("a.b")->hasMatch(text), between == '\t') << at << " " << int{between};
        }
        std::string text(24, 'x');
        text.replace(at, 1, "\u00E9");
        // "." takes the two bytes of "é" as one character.
        EXPECT_TRUE(compiled("^x{" + std::to_string(at) + "}.x{" + std::to_string(23 - at) + "}$")->hasMatch(text))
            << at;
    }

    for (std::string_view ending : {"\n"sv, "\r"sv, "\r\n"sv, "\u0085"sv, "\u2028"sv, "\v"sv}) {
        EXPECT_TRUE(compiled("^\\w+$")->hasMatch("abc" + std::string(ending))) << ending.size();
        EXPECT_FALSE(compiled("^\\w+$")->hasMatch("abc" + std::string(ending) + "d")) << ending.size();
        EXPECT_TRUE(compiled("(?m)^b")->hasMatch("a" + std::string(ending) + "b")) << ending.size();
    }
    EXPECT_FALSE(compiled("(?m)^b")->hasMatch("a\tb"));
}

TEST(RegularExpressionTest, WordDigitAndBoundaryClassesAreUnicodeAware) {
    // Letters in any script, combining marks, decimal digits, connector punctuation.
    for (std::string_view word : {"\u00E9"sv, "\u0416"sv, "\u4E2D"sv, "\u0301"sv, "\u0663"sv, "_"sv, "\u203F"sv, "\uFF3F"sv}) {
        EXPECT_TRUE(wholeMatch("\\w", word)) << word;
        EXPECT_FALSE(wholeMatch("\\W", word)) << word;
        EXPECT_FALSE(wholeMatch("[^\\w]", word)) << word;
    }
    // Numbers that are not decimal digits, punctuation, symbols and spaces are not word characters.
    for (std::string_view other : {"\u00B2"sv, "\u00BD"sv, "\u2167"sv, "-"sv, " "sv, "\u00A0"sv, "\u20AC"sv, "."sv}) {
        EXPECT_FALSE(wholeMatch("\\w", other)) << other;
        EXPECT_TRUE(wholeMatch("\\W", other)) << other;
        EXPECT_TRUE(wholeMatch("[\\W]", other)) << other;
    }
    // A decomposed "é" is one word.
    EXPECT_EQ(matchedTexts("\\w+", "caf" "e\u0301 bar"), (std::vector<std::string>{"caf" "e\u0301", "bar"}));

    for (std::string_view digit : {"7"sv, "\u0663"sv, "\u0967"sv, "\uFF15"sv}) EXPECT_TRUE(wholeMatch("\\d", digit)) << digit;
    for (std::string_view other : {"a"sv, "\u00B2"sv, "\u2167"sv}) EXPECT_FALSE(wholeMatch("\\d", other)) << other;
    EXPECT_EQ(compiled("(.*):(\\d+)(.*)")->replacingMatches("#TAG:\u0661\u0662x", "$2"), "\u0661\u0662");

    EXPECT_EQ(matchedTexts("\\b\\w+\\b", "na\u0303o, \u00E9t\u00E9!"),
              (std::vector<std::string>{"na\u0303o", "\u00E9t\u00E9"}));
    EXPECT_EQ(compiled("\\Bb")->replacingMatches("ab b", "X"), "aX b");
    EXPECT_EQ(compiled("\\bcat\\b")->replacingMatches("cat concat cat_x cat", "C"), "C concat cat_x C");
    EXPECT_EQ(compiled("\\bcat\\b")->replacingMatches("cat \u00E9cat cat\u0301 cat", "C"), "C \u00E9cat cat\u0301 C");
}

TEST(RegularExpressionTest, RewrittenClassesCombineWithTheirOtherItemsAndLeaveQuotesCommentsAndPosixAlone) {
    const struct {
        std::string_view pattern, text;
        bool matches;
    } cases[] = {
        {"[a\\W]", "a", true},   {"[a\\W]", "-", true},   {"[a\\W]", "b", false},
        // Negated: a word character other than the listed ones.
        {"[^a\\W]", "b", true},  {"[^a\\W]", "\u0301", true},  {"[^a\\W]", "a", false},  {"[^a\\W]", "-", false},
        {"[\\b]", "\b", true},  // inside a class "\b" is a backspace, not a boundary
        {"\\Q\\w[\\E", "\\w[", true},  {"a(?#\\w])b", "ab", true},  {"[[:alpha:]\\w]+", "ab_\u0301", true},
        {"[]\\w]+", "]a", true},       {"\\\\w", "\\w", true},
    };
    for (const auto& c : cases) EXPECT_EQ(wholeMatch(c.pattern, c.text), c.matches) << c.pattern << " on " << c.text;
    EXPECT_EQ(matchedTexts("[^\\W\\d]+", "ab12cd"), (std::vector<std::string>{"ab", "cd"}));
    // A quantifier applies to the whole rewritten class.
    EXPECT_EQ(matchedTexts("[x\\W]{2}", "x-yx!"), (std::vector<std::string>{"x-", "x!"}));
}

TEST(RegularExpressionTest, CaseInsensitiveMatchingIsUnicodeAware) {
    EXPECT_TRUE(wholeMatch("\u00C9T\u00C9", "\u00E9t\u00E9", true));
    EXPECT_TRUE(wholeMatch("uri=\"", "URI=\"", true));
    EXPECT_FALSE(wholeMatch("\u00C9", "\u00E9"));
    // The same ASCII pattern folds non-ASCII subjects too.
    EXPECT_TRUE(wholeMatch("k", "\u212A", true));
    EXPECT_TRUE(wholeMatch("s+", "sS\u017F", true));
    EXPECT_EQ(compiled("O", true)->replacingMatches("foo", "0"), "f00");
}

TEST(RegularExpressionTest, MatchesReportGroupsAndStepOverEmptyMatchesAndInvalidUTF8) {
    const auto matches = compiled("(a)|(b)")->matches("xab");
    ASSERT_EQ(matches.size(), 2U);
    using Range = std::optional<std::pair<std::size_t, std::size_t>>;
    EXPECT_EQ(matches[0].groups, (std::vector<Range>{std::pair{1U, 1U}, std::pair{1U, 1U}, std::nullopt}));
    EXPECT_EQ(matches[1].groups, (std::vector<Range>{std::pair{2U, 1U}, std::nullopt, std::pair{2U, 1U}}));
    EXPECT_TRUE(compiled("(a)|(b)")->matches("xyz").empty());

    // Empty matches advance by one character: two-byte and three-byte characters are stepped over whole.
    EXPECT_EQ(matchedTexts("x*", "axb"), (std::vector<std::string>{"", "x", "", ""}));
    const auto empty = compiled("")->matches("\u00E9\u20AC");
    ASSERT_EQ(empty.size(), 3U);
    EXPECT_EQ(empty[1].groups[0]->first, 2U);
    EXPECT_EQ(empty[2].groups[0]->first, 5U);
    EXPECT_EQ(compiled("a*")->replacingMatches("baac", "<$0>"), "<>b<aa><>c<>");
    // An empty match does not let an alternative take the same character afterwards.
    EXPECT_EQ(compiled("|a")->replacingMatches("a", "[$0]"), "[]a[]");

    // Invalid UTF-8 is matched without failing, a bad byte at a time.
    const std::string invalid = "a\xFF" "b\xC3";
    EXPECT_EQ(compiled("b")->replacingMatches(invalid, "c"), "a\xFF" "c\xC3");
    EXPECT_EQ(compiled("x?")->matches(invalid).size(), 5U);
}

TEST(RegularExpressionTest, ReplacingMatchesSubstitutesGroupsInEveryNonOverlappingMatch) {
    const auto tag = compiled("(.*):(\\d.*),(.*)");
    EXPECT_EQ(tag->replacingMatches("#EXTINF:9.97667,Title", "$2|$3"), "9.97667|Title");
    EXPECT_EQ(tag->replacingMatches("#EXTINF:9.97667,", "$3"), "");
    EXPECT_EQ(tag->replacingMatches("#EXTINF:9.97667,Title", "$1|$0"), "#EXTINF|#EXTINF:9.97667,Title");
    // No match: the text comes back unchanged.
    EXPECT_EQ(tag->replacingMatches("#EXTINF:abc", "$2"), "#EXTINF:abc");

    const auto optional = compiled("(a)(b)?");
    EXPECT_EQ(optional->replacingMatches("a", "[$2]"), "[]");
    EXPECT_EQ(optional->replacingMatches("a", "[$7]"), "[]");
    EXPECT_EQ(optional->replacingMatches("ab", "$x$"), "$x$");
    EXPECT_EQ(optional->replacingMatches("ab", "\\$1=$1"), "$1=a");
    EXPECT_EQ(optional->replacingMatches("ab", "\\\\$2\\n"), "\\bn");
    EXPECT_EQ(optional->replacingMatches("ab", "end\\"), "end\\");
    // Extra digits belong to the number only while it names a group.
    EXPECT_EQ(optional->replacingMatches("ab", "$12"), "a2");
    EXPECT_EQ(compiled("(a)(b)(c)(d)(e)(f)(g)(h)(i)(j)(k)")->replacingMatches("abcdefghijk", "$11$10$1"), "kja");

    EXPECT_EQ(compiled("aa")->replacingMatches("aaaaa", "b"), "bba");
    EXPECT_EQ(compiled("(\\w+)=(\\w+)")->replacingMatches("a=1, b=2; c=3", "$2:$1"), "1:a, 2:b; 3:c");
    EXPECT_EQ(compiled("o")->replacingMatches("", "0"), "");
}

TEST(RegularExpressionTest, SharedPatternsWorkFromSeveralThreads) {
    const auto pattern = compiled("(.*):(\\d+)(.*)", true);
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (std::size_t t = 0; t < failures.size(); ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 2000; ++i) {
                const std::string number = std::to_string(i * 7 + static_cast<int>(t));
                if (pattern->replacingMatches("#EXT-X-VERSION:" + number + "x", "$2") != number) ++failures[t];
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(failures, std::vector<int>(4, 0));
}

}  // namespace
