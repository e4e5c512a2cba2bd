// Today's rpm as the oracle. tests/data/oracle holds packages built and signed by rpm 6.1's own tools
// (scripts/make-oracle-fixtures) with the verdicts of rpmkeys 6.1 and 4.18 on every package and key;
// tests/data/current/rpm6.txt holds rpm 6.1's verdicts on the older fixtures. "current" signs a pair
// exactly when rpm 6.1 verified a signature of it and found nothing bad, except where rpm 4.18 found
// an MD5 or SHA-1 digest bad that rpm 6.1 no longer reads: every digest a package carries must match.
// Where the oracle root is there (and the suite runs as root), rpm 6.1 is asked again.
#include <gtest/gtest.h>

#include <unistd.h>
#include <fstream>
#include <regex>
#include <sstream>

#include "HostSupport.h"
#include "RpmReport.h"
#include "rpmutil.h"

namespace {

const std::string kData = std::string(SIGNING_TEST_DATA) + "/";

struct Pair {
    std::string folder, package, key;
    std::string rpm6Status, rpm6;  // rpmkeys 6.1: exit status and what it said
    bool rpm4DigestBad;            // rpm 4.18 found a digest bad that rpm 6.1 does not read
};

std::vector<std::string> Fields(const std::string& line) {
    std::vector<std::string> fields;
    std::istringstream in(line);
    for (std::string field; std::getline(in, field, '\t');) fields.push_back(field);
    return fields;
}

// The pairs of both tables.
std::vector<Pair> Pairs() {
    std::vector<Pair> pairs;
    std::ifstream oracle(kData + "oracle/verdicts.txt");
    for (std::string line; std::getline(oracle, line);) {
        const auto f = Fields(line);
        if (line.empty() || line[0] == '#' || f.size() < 6) continue;
        const bool digestBad = std::regex_search(f[5], std::regex("(MD5|SHA1) digest: BAD"));
        pairs.push_back(Pair{"oracle/", f[0], f[1], f[2], f[3], digestBad});
    }
    std::map<std::string, bool> rpm4Ok;
    std::ifstream current(kData + "current/packages.txt");
    for (std::string line; std::getline(current, line);) {
        std::istringstream in(line);
        std::string package, key, verdict;
        if (line.empty() || line[0] == '#' || !(in >> package >> key >> verdict)) continue;
        rpm4Ok[package + " " + key] = verdict == "OK";
    }
    std::ifstream rpm6(kData + "current/rpm6.txt");
    for (std::string line; std::getline(rpm6, line);) {
        const auto f = Fields(line);
        if (line.empty() || line[0] == '#' || f.size() < 4) continue;
        // rpm 4.18 refused these for a digest it read when rpm 6.1 verified them.
        const bool digestBad = !rpm4Ok[f[0] + " " + f[1]] && f[0].find("digest") != std::string::npos;
        pairs.push_back(Pair{"current/", f[0], f[1], f[2], f[3], digestBad});
    }
    return pairs;
}

// What rpm 6.1 said of the package, after what it said of the key's import.
std::string Verdict(const std::string& said) {
    std::smatch verdict;
    return std::regex_search(said, verdict, std::regex("(digests|DIGESTS) ")) ? said.substr(verdict.position(0)) : said;
}

bool Rpm6Verified(const Pair& pair) {
    return pair.rpm6Status == "0" && std::regex_search(Verdict(pair.rpm6), std::regex("[Ss]ignature[^;]*: OK"));
}

}  // namespace

// Every recorded pair: signed exactly when rpm 6.1 verified it and no digest it carries is bad; a
// signature rpm 6.1 rated NOTTRUSTED is not trusted here either when nothing verified.
TEST(Oracle, CurrentSignsWhatRpm6Verifies) {
    const std::vector<Pair> pairs = Pairs();
    ASSERT_GE(pairs.size(), 200u);
    int signedPairs = 0;
    TempFolder keySets;
    for (const Pair& pair : pairs) {
        const std::string package = kData + pair.folder + pair.package;
        // KEY+KEY...: the key files imported together, given here as one file of all of them.
        std::string key, keys;
        std::istringstream parts(pair.key);
        for (std::string part; std::getline(parts, part, '+');) {
            std::ifstream in(kData + pair.folder + part);
            keys += std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
        }
        key = pair.key.find('+') == std::string::npos ? kData + pair.folder + pair.key : keySets.Write(pair.key, keys);
        RpmReport report;
        const RpmVerifyResult result = rpm_verify_report(package.c_str(), key.c_str(), report, SigningPolicy::Current);
        free(result.message);
        const bool expected = Rpm6Verified(pair) && !pair.rpm4DigestBad;
        signedPairs += expected ? 1 : 0;
        EXPECT_EQ(result.status == RPM_STATUS_SIGNED, expected)
            << pair.folder << pair.package << " with " << pair.key << ": " << report.detail
            << "\n  rpm 6.1: " << pair.rpm6;
        const bool notTrusted = std::any_of(report.checks.begin(), report.checks.end(),
                                            [](const RpmCheck& c) { return c.state == RpmCheck::NotTrusted; });
        if (!Rpm6Verified(pair) && pair.rpm6Status == "0" && pair.rpm6.find("NOTTRUSTED") != std::string::npos) {
            EXPECT_TRUE(notTrusted) << pair.package << " with " << pair.key << ": " << report.detail;
        }
    }
    EXPECT_GE(signedPairs, 30);
}

// rpm 6.1 itself, where the oracle root is there: it still says what the tables recorded.
TEST(Oracle, LiveRpm6SaysWhatTheTablesRecorded) {
    const std::string root = kData + "../../build/oracle-root";
    if (geteuid() != 0 || access((root + "/usr/bin/rpmkeys").c_str(), X_OK) != 0) {
        GTEST_SKIP() << "no oracle root (scripts/oracle-root) or not root";
    }
    for (const std::string folder : {"oracle/", "current/"}) {
        std::string pairsText;
        std::map<std::string, std::string> recorded;
        for (const Pair& pair : Pairs()) {
            if (pair.folder != folder) continue;
            pairsText += pair.package + " " + pair.key + "\n";
            recorded[pair.package + "\t" + pair.key] = pair.rpm6Status;
        }
        TempFolder work;
        std::ofstream(work.Path() + "/pairs.txt") << pairsText;
        const auto said =
            Shell(kData + "../../scripts/oracle-checksig " + kData + folder + " < " + work.Path() + "/pairs.txt 2>&1");
        ASSERT_EQ(said.first, 0) << said.second;
        std::istringstream lines(said.second);
        size_t compared = 0;
        for (std::string line; std::getline(lines, line);) {
            const auto f = Fields(line);
            if (f.size() < 3) continue;
            EXPECT_EQ(f[2], recorded[f[0] + "\t" + f[1]]) << folder << f[0] << " with " << f[1] << ": " << line;
            ++compared;
        }
        EXPECT_EQ(compared, recorded.size()) << folder;
    }
}
