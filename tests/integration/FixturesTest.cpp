// The packages made by scripts/make-rpm-fixtures with rpmbuild, rpmsign and gpg: their verdicts, and
// the verdicts of rpmkeys --checksig where the two must agree.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "HostSupport.h"
#include "rpmutil.h"

namespace {

const std::string kData = SIGNING_TEST_DATA, kKey = kData + "/keys/publisher-2048.asc", kRpm = kData + "/rpm/";

struct Fixture {
    std::string file, key;
    int status;
    bool forged;  // a forgery no real tool makes (fourth field "forged")
};

std::vector<Fixture> Fixtures() {
    std::vector<Fixture> fixtures;
    std::ifstream list(kRpm + "packages.txt");
    for (std::string line, mark; std::getline(list, line); mark.clear()) {
        if (line.empty() || line[0] == '#') continue;
        Fixture f;
        std::istringstream(line) >> f.file >> f.key >> f.status >> mark;
        f.forged = mark == "forged";
        fixtures.push_back(f);
    }
    return fixtures;
}

}  // namespace

TEST(RpmFixtures, EveryFixtureGetsItsStatusAndMessage) {
    const char* const texts[] = {" is signed.", " is not signed.", " has invalid signature.", " has invalid hash."};
    const std::vector<Fixture> fixtures = Fixtures();
    ASSERT_EQ(fixtures.size(), 21u);
    for (const Fixture& f : fixtures) {
        const std::string path = kRpm + f.file;
        RpmVerifyResult result = rpm_verify(path.c_str(), (kData + "/keys/" + f.key + ".asc").c_str());
        const std::string message = result.message;
        std::free(result.message);
        EXPECT_EQ(result.status, f.status) << f.file << " with " << f.key << ": " << message;
        EXPECT_EQ(message, f.status < 4                  ? path + texts[f.status]
                           : f.file == "header-only.rpm" ? "Unknown error"
                                                         : "Internal error occured while verifying " + path);
    }
}

// rpmkeys --checksig with the key imported into a temporary database. Where both judge the same
// thing they agree: a digest failure, a valid header-and-payload signature, a wrong key. A forgery
// only has to be refused by both: rpmkeys may catch it by checks this module does not make (the
// payload digest of the main header, the number of signature tags, malformed packets).
TEST(RpmFixtures, AgreeWithRpmkeysWhereBothJudge) {
    if (Shell("command -v rpmkeys").first != 0) GTEST_SKIP() << "rpmkeys is not installed";
    const std::string rejected = Shell("grep ' rejected$' " + kData + "/keys/keys.txt").second;  // refused keys
    for (const Fixture& f : Fixtures()) {
        TempFolder db;
        const std::string rpmkeys = "rpmkeys --dbpath " + db.Path();
        ASSERT_EQ(Shell(rpmkeys + " --import " + kData + "/keys/" + f.key + ".asc 2>&1").first, 0);
        const auto oracle = Shell(rpmkeys + " --checksig " + kRpm + f.file + " 2>&1");
        const bool ok = oracle.first == 0, digestsBad = oracle.second.find("DIGESTS") != std::string::npos,
                   signaturesBad = oracle.second.find("SIGNATURES NOT OK") != std::string::npos;
        const std::string context = f.file + " with " + f.key + ": rpmkeys said " + oracle.second;
        EXPECT_TRUE(!f.forged || (!ok && f.status != 0)) << context;
        if (f.forged) continue;
        EXPECT_TRUE(f.status != 0 || ok) << context;
        EXPECT_TRUE(f.status != 2 || (signaturesBad && !digestsBad)) << context;
        EXPECT_EQ(f.status == 3, digestsBad) << context;
        // rpmkeys accepts a header-only signature; this module wants one over header and payload too.
        // It also reads key blocks with a signing subkey, which this module refuses (keys.txt).
        EXPECT_TRUE(!ok || oracle.second.find("signatures OK") == std::string::npos || f.file == "header-only.rpm" ||
                    rejected.find(f.key + " ") != std::string::npos || f.status == 0)
            << context;
    }
}

namespace {

// What rpm-verify --json says of a package with one key file: the package's status and message, or
// -1 when it refused the key file (exit status 2, no package verified).
// rpm-verify's classic verdicts ("STATUS MESSAGE") of packages with one key file, in their order.
std::vector<std::string> ToolVerdicts(const std::string& key, const std::vector<std::string>& packages) {
    std::string files;
    for (const std::string& package : packages) files += " " + package;
    const auto run = Shell(SIGNING_LAUNCHER " " RPM_VERIFY_TOOL " --json --key " + key + files +
                           " 2>/dev/null | python3 -c 'import json,sys; r=json.load(sys.stdin); "
                           "[print(p[\"status\"], p[\"message\"]) for p in r[\"packages\"]]'");
    std::vector<std::string> verdicts;
    std::istringstream lines(run.second);
    for (std::string line; std::getline(lines, line);) verdicts.push_back(line);
    return verdicts;
}

}  // namespace

// Under the classic policy rpm-verify gives, for each key file, the installer's verdict with that file
// as a whole: rpm_verify's status and message, also where it cannot use the file. Every fixture
// package with every key file of the fixtures (secret, damaged and unusable ones included), every
// package of the oracle set with every key file of that set, the pairs of the newer fixture set,
// and key files of two keys made of fixture keys: one block (binary keys concatenated, either
// order), two armor blocks.
TEST(RpmFixtures, RpmVerifyGivesTheInstallersVerdictForEachKeyFile) {
    TempFolder made;
    const std::string current = kData + "/current/";
    ASSERT_EQ(Shell("cd " + current + " && for k in rsa2048 rsa3072; do gpg --dearmor < $k.asc > " + made.Path() +
                    "/$k.gpg; done && cd " + made.Path() +
                    " && cat rsa2048.gpg rsa3072.gpg > ab.gpg && cat rsa3072.gpg rsa2048.gpg > ba.gpg && cat " +
                    current + "rsa3072.asc " + current + "rsa2048.asc > ba.asc")
                  .first,
              0);
    std::map<std::string, std::vector<std::string>> packagesByKey;
    std::vector<std::string> fixtures;
    for (const Fixture& f : Fixtures()) fixtures.push_back(kRpm + f.file);
    for (const auto& entry : std::filesystem::directory_iterator(kData + "/keys")) {
        if (entry.is_regular_file() && entry.path().extension() != ".txt") packagesByKey[entry.path()] = fixtures;
    }
    // The oracle set: every package rpm 6.1 made with every key file it was checked with.
    std::vector<std::string> oraclePackages;
    for (const auto& entry : std::filesystem::directory_iterator(kData + "/oracle")) {
        if (entry.path().extension() == ".rpm") oraclePackages.push_back(entry.path());
    }
    for (const auto& entry : std::filesystem::directory_iterator(kData + "/oracle")) {
        if (entry.path().extension() == ".asc") packagesByKey[entry.path()] = oraclePackages;
    }
    std::ifstream classic(current + "classic.txt");
    for (std::string line, package, key; std::getline(classic, line);) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream(line) >> package >> key;
        packagesByKey[current + key].push_back(current + package);
    }
    for (const char* key : {"/ab.gpg", "/ba.gpg", "/ba.asc"}) {
        packagesByKey[made / key] = {current + "rsa2048-v3-sha256.rpm", current + "rsa3072-v3-sha256.rpm",
                                     current + "unsigned.rpm"};
    }
    size_t pairs = 0;
    for (const auto& keyAndPackages : packagesByKey) {
        const std::vector<std::string> tool = ToolVerdicts(keyAndPackages.first, keyAndPackages.second);
        ASSERT_EQ(tool.size(), keyAndPackages.second.size()) << keyAndPackages.first;
        for (size_t i = 0; i < tool.size(); ++i) {
            const std::string& package = keyAndPackages.second[i];
            RpmVerifyResult result = rpm_verify(package.c_str(), keyAndPackages.first.c_str());
            EXPECT_EQ(tool[i], std::to_string(result.status) + " " + result.message)
                << package << " with " << keyAndPackages.first;
            std::free(result.message);
            ++pairs;
        }
    }
    EXPECT_GT(pairs, 1900u);
}
