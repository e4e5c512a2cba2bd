#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <list>
#include <string>

#include "FileHelper.h"
#include "TempFolder.h"
#include "slre.h"

namespace {

int Match(const char* regex, const std::string& text, int flags = 0) {
    return slre_match(regex, text.c_str(), static_cast<int>(text.size()), nullptr, 0, flags);
}

}  // namespace

TEST(Slre, MatchesAndReportsWhereTheMatchEnds) {
    EXPECT_EQ(Match("abc", "xxabcyy"), 5);
    EXPECT_EQ(Match("^abc", "xxabc"), SLRE_NO_MATCH);
    EXPECT_EQ(Match("^a.c$", "abc"), 3);
    EXPECT_EQ(Match("^a[0-9]+z$", "a123z"), 5);
    EXPECT_EQ(Match("^a[^0-9]*$", "abc1"), SLRE_NO_MATCH);
    EXPECT_EQ(Match("^(ab|cd)*$", "abcdab"), 6);
    EXPECT_EQ(Match("^(ab|cd)*$", "abcda"), SLRE_NO_MATCH);
    EXPECT_EQ(Match("^x?y+", "yyy"), 3);
    EXPECT_EQ(Match("^a.*?b", "aXbXb"), 3);  // lazy
    EXPECT_EQ(Match("^a.*b", "aXbXb"), 5);   // greedy
    EXPECT_EQ(Match("^\\d\\s\\w\\x41\\.$", "1 _A."), 5);
    EXPECT_EQ(Match("^hello$", "HeLLo", SLRE_IGNORE_CASE), 5);
    EXPECT_EQ(Match("^(a*)*b$", "aaac"), SLRE_NO_MATCH);                         // empty repetitions do not loop
    EXPECT_EQ(Match("^(a*)*b$", std::string(40, 'a') + "c"), SLRE_TOO_COMPLEX);  // gives up instead of taking ages
    EXPECT_EQ(Match("cat|dog", "hotdog"), 6);

    slre_cap caps[2];
    const char* text = "key=value";
    EXPECT_EQ(slre_match("^(\\w+)=(\\w*)$", text, 9, caps, 2, 0), 9);
    EXPECT_EQ(std::string(caps[0].ptr, caps[0].len), "key");
    EXPECT_EQ(std::string(caps[1].ptr, caps[1].len), "value");
    EXPECT_EQ(slre_match("^(\\w+)=(\\w*)$", text, 9, caps, 1, 0), SLRE_CAPS_ARRAY_TOO_SMALL);
}

TEST(Slre, RejectsMalformedExpressions) {
    EXPECT_EQ(Match("*a", "a"), SLRE_UNEXPECTED_QUANTIFIER);
    EXPECT_EQ(Match("a**", "a"), SLRE_UNEXPECTED_QUANTIFIER);
    EXPECT_EQ(Match("^*", "a"), SLRE_UNEXPECTED_QUANTIFIER);
    EXPECT_EQ(Match("(a", "a"), SLRE_UNBALANCED_BRACKETS);
    EXPECT_EQ(Match("a)", "a"), SLRE_UNBALANCED_BRACKETS);
    EXPECT_EQ(Match("[a", "a"), SLRE_INVALID_CHARACTER_SET);
    EXPECT_EQ(Match("[z-a]", "a"), SLRE_INVALID_CHARACTER_SET);
    EXPECT_EQ(Match("a\\", "a"), SLRE_INVALID_METACHARACTER);
    EXPECT_EQ(Match("\\q", "q"), SLRE_INVALID_METACHARACTER);
    EXPECT_EQ(Match("(((((((((((((((((((((((((((((((x)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+)+y",
                    std::string(40, 'x')),
              SLRE_TOO_COMPLEX);
}

TEST(Slre, ReadsTheFilePathExpression) {
    // The characters a file path may consist of, as the module publishes them to its host.
    const char* pattern = "^[a-zA-Z0-9()+._ \\/\\-\\[\\]\\\\]*$";
    EXPECT_GE(Match(pattern, "/opt/app (1)/pkg_1.0-2+b[x]\\.rpm"), 0);
    EXPECT_EQ(Match(pattern, "/tmp/a;rm -rf"), SLRE_NO_MATCH);
    EXPECT_EQ(Match(pattern, "$(id)"), SLRE_NO_MATCH);
}

TEST(Wildcards, ExpandPatternsIntoFiles) {
    TempFolder temp;
    temp.Write("pkgs/a.rpm", "");
    temp.Write("pkgs/b.rpm", "");
    temp.Write("pkgs/c.txt", "");
    temp.Write("pkgs/sub/d.rpm", "");
    temp.Write("pkgs/sub/deep/e.rpm", "");
    temp.Write("pkgs/x1.rpm", "");
    const std::string base = temp / "pkgs";

    std::list<std::string> files;
    EXPECT_EQ(FileHelper::ParseWildcards(base + "/*.rpm", files), 3);
    EXPECT_EQ(files, (std::list<std::string>{base + "/a.rpm", base + "/b.rpm", base + "/x1.rpm"}));

    files.clear();
    EXPECT_EQ(FileHelper::ParseWildcards(base + "/x?.rpm", files), 1);
    EXPECT_EQ(FileHelper::ParseWildcards(base + "/sub/**.rpm", files), 2);
    EXPECT_EQ(files, (std::list<std::string>{base + "/x1.rpm", base + "/sub/d.rpm", base + "/sub/deep/e.rpm"}));

    files.clear();
    EXPECT_EQ(FileHelper::ParseWildcards(base + "/**/d.rpm", files), 1);  // one folder down
    EXPECT_EQ(FileHelper::ParseWildcards(base + "/**/a.rpm", files), 1);  // no folder at all
    EXPECT_EQ(FileHelper::ParseWildcards(base + "/a.rpm", files), 1);     // no wildcard
    EXPECT_EQ(FileHelper::ParseWildcards(base + "/none.rpm", files), 0);
    EXPECT_EQ(FileHelper::ParseWildcards(base + "/sub", files), 0);      // a folder is no file
    EXPECT_EQ(FileHelper::ParseWildcards(base + "/*.(rpm)", files), 0);  // regex characters are literal

    // Relative patterns list the working directory and answer in their own terms.
    const std::string cwd = FileHelper::GetWorkingDirectory();
    ASSERT_EQ(chdir(temp.Path().c_str()), 0);
    files.clear();
    EXPECT_EQ(FileHelper::ParseWildcards("pkgs/*.txt", files), 1);
    EXPECT_EQ(files, std::list<std::string>{"pkgs/c.txt"});
    ASSERT_EQ(chdir(cwd.c_str()), 0);

    // The folder listing comes from the caller when it supplies one.
    std::string asked;
    auto lister = [&](std::list<std::string>* list, const std::string& folder) {
        asked = folder;
        list->push_back("virtual.rpm");
        list->push_back("other.bin");
    };
    files.clear();
    EXPECT_EQ(FileHelper::ParseWildcards("/virtual/*.rpm", files, lister), 1);
    EXPECT_EQ(asked, "/virtual");
    EXPECT_EQ(files, std::list<std::string>{"/virtual/virtual.rpm"});
    EXPECT_EQ(FileHelper::ParseWildcards("/*.bin", files, lister), 1);
    EXPECT_EQ(asked, "/");
    EXPECT_EQ(files.back(), "/other.bin");

    EXPECT_EQ(FileHelper::GetFileList("*", files), 0);
    EXPECT_EQ(FileHelper::ParseFolder("/", files), 0);
}
