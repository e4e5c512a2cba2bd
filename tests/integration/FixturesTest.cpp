// The packages made by scripts/make-rpm-fixtures with rpmbuild, rpmsign and gpg: their verdicts, and
// the verdicts of rpmkeys --checksig where the two must agree.
#include <gtest/gtest.h>

#include <fstream>
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
