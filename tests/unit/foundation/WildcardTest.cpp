#include <gtest/gtest.h>
#include <unistd.h>

#include <list>
#include <string>

#include "FileHelper.h"
#include "TestSupport.h"
#include "slre.h"

namespace {

int Match(const char* regex, const std::string& text, int flags = 0) {
    return slre_match(regex, text.c_str(), static_cast<int>(text.size()), nullptr, 0, flags);
}

}  // namespace

TEST(Slre, MatchesAndRejects) {
    EXPECT_EQ(Match("abc", "xxabcyy"), 5);  // the end of the match
    EXPECT_EQ(Match("^abc", "xxabc"), SLRE_NO_MATCH);
    EXPECT_EQ(Match("^a[0-9]+z$", "a123z"), 5);
    EXPECT_EQ(Match("^a[^0-9]*$", "abc1"), SLRE_NO_MATCH);
    EXPECT_EQ(Match("^(ab|cd)*$", "abcdab"), 6);
    EXPECT_EQ(Match("^a.*?b", "aXbXb"), 3);
    EXPECT_EQ(Match("^a.*b", "aXbXb"), 5);
    EXPECT_EQ(Match("^\\d\\s\\w\\x41\\.$", "1 _A."), 5);
    EXPECT_EQ(Match("^hello$", "HeLLo", SLRE_IGNORE_CASE), 5);
    EXPECT_EQ(Match("cat|dog", "hotdog"), 6);
    EXPECT_EQ(Match("^(a*)*b$", "aaac"), SLRE_NO_MATCH);                         // empty repetitions do not loop
    EXPECT_EQ(Match("^(a*)*b$", std::string(40, 'a') + "c"), SLRE_TOO_COMPLEX);  // gives up, promptly

    slre_cap caps[2];
    EXPECT_EQ(slre_match("^(\\w+)=(\\w*)$", "key=value", 9, caps, 2, 0), 9);
    EXPECT_EQ(std::string(caps[0].ptr, caps[0].len) + "|" + std::string(caps[1].ptr, caps[1].len), "key|value");
    EXPECT_EQ(slre_match("^(\\w+)=(\\w*)$", "key=value", 9, caps, 1, 0), SLRE_CAPS_ARRAY_TOO_SMALL);

    EXPECT_EQ(Match("*a", "a"), SLRE_UNEXPECTED_QUANTIFIER);
    EXPECT_EQ(Match("a**", "a"), SLRE_UNEXPECTED_QUANTIFIER);
    EXPECT_EQ(Match("(a", "a"), SLRE_UNBALANCED_BRACKETS);
    EXPECT_EQ(Match("a)", "a"), SLRE_UNBALANCED_BRACKETS);
    EXPECT_EQ(Match("[a", "a"), SLRE_INVALID_CHARACTER_SET);
    EXPECT_EQ(Match("[z-a]", "a"), SLRE_INVALID_CHARACTER_SET);
    EXPECT_EQ(Match("a\\", "a"), SLRE_INVALID_METACHARACTER);

    // The characters a file path may consist of, as the module publishes them to its host.
    const char* pathPattern = "^[a-zA-Z0-9()+._ \\/\\-\\[\\]\\\\]*$";
    EXPECT_GE(Match(pathPattern, "/opt/app (1)/pkg_1.0-2+b[x]\\.rpm"), 0);
    EXPECT_EQ(Match(pathPattern, "/tmp/a;rm -rf"), SLRE_NO_MATCH);
    EXPECT_EQ(Match(pathPattern, "$(id)"), SLRE_NO_MATCH);
}

TEST(Wildcards, ExpandPatternsIntoFiles) {
    TempFolder temp;
    for (const char* name : {"p/a.rpm", "p/b.rpm", "p/c.txt", "p/x1.rpm", "p/sub/d.rpm", "p/sub/deep/e.rpm"}) {
        temp.Write(name, "");
    }
    const std::string base = temp / "p";
    std::list<std::string> files;
    EXPECT_EQ(FileHelper::ParseWildcards(base + "/*.rpm", files), 3);
    EXPECT_EQ(files, (std::list<std::string>{base + "/a.rpm", base + "/b.rpm", base + "/x1.rpm"}));
    files.clear();
    EXPECT_EQ(FileHelper::ParseWildcards(base + "/x?.rpm", files), 1);
    EXPECT_EQ(FileHelper::ParseWildcards(base + "/sub/**.rpm", files), 2);
    EXPECT_EQ(files, (std::list<std::string>{base + "/x1.rpm", base + "/sub/d.rpm", base + "/sub/deep/e.rpm"}));
    EXPECT_EQ(FileHelper::ParseWildcards(base + "/**/d.rpm", files), 1);  // one folder down
    EXPECT_EQ(FileHelper::ParseWildcards(base + "/**/a.rpm", files), 1);  // no folder at all
    EXPECT_EQ(FileHelper::ParseWildcards(base + "/a.rpm", files), 1);     // no wildcard
    EXPECT_EQ(FileHelper::ParseWildcards(base + "/none.rpm", files) + FileHelper::ParseWildcards(base + "/sub", files) +
                  FileHelper::ParseWildcards(base + "/*.(rpm)", files),  // regex characters are literal
              0);

    const std::string cwd = FileHelper::GetWorkingDirectory();
    ASSERT_EQ(chdir(temp.Path().c_str()), 0);
    files.clear();
    EXPECT_EQ(FileHelper::ParseWildcards("p/*.txt", files), 1);
    EXPECT_EQ(files, std::list<std::string>{"p/c.txt"});  // answered as the pattern was written
    ASSERT_EQ(chdir(cwd.c_str()), 0);

    std::string asked;
    auto lister = [&](std::list<std::string>* list, const std::string& folder) {
        asked = folder;
        list->insert(list->end(), {"virtual.rpm", "other.bin"});
    };
    files.clear();
    EXPECT_EQ(FileHelper::ParseWildcards("/virtual/*.rpm", files, lister), 1);
    EXPECT_EQ(asked, "/virtual");
    EXPECT_EQ(files, std::list<std::string>{"/virtual/virtual.rpm"});
    EXPECT_EQ(FileHelper::ParseWildcards("/*.bin", files, lister), 1);
    EXPECT_EQ(asked + " " + files.back(), "/ /other.bin");
    EXPECT_EQ(FileHelper::GetFileList("*", files) + FileHelper::ParseFolder("/", files), 0);
}
