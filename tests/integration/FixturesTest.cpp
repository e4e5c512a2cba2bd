// The packages made by scripts/make-rpm-fixtures with rpmbuild, rpmsign and gpg: their verdicts, the
// verdicts of rpmkeys --checksig where the two must agree, and the rpm-verify command over them.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "rpmutil.h"

namespace {

const std::string kData = SIGNING_TEST_DATA;

struct Fixture {
    std::string file, key;
    int status;
    bool forged = false;  // a forgery no real tool makes (fourth field "forged")
    std::string Path() const { return kData + "/rpm/" + file; }
    std::string KeyPath() const { return kData + "/keys/" + key + ".asc"; }
};

std::vector<Fixture> Fixtures() {
    std::vector<Fixture> fixtures;
    std::ifstream list(kData + "/rpm/packages.txt");
    std::string line;
    while (std::getline(list, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream fields(line);
        Fixture fixture;
        std::string mark;
        fields >> fixture.file >> fixture.key >> fixture.status >> mark;
        fixture.forged = mark == "forged";
        fixtures.push_back(fixture);
    }
    return fixtures;
}

// The keys that keys.txt marks as refused by the module.
std::set<std::string> RejectedKeys() {
    std::set<std::string> rejected;
    std::ifstream list(kData + "/keys/keys.txt");
    std::string name, id, bits, readable;
    while (list >> name >> id >> bits >> readable) {
        if (readable == "rejected") rejected.insert(name);
    }
    return rejected;
}

struct Output {
    int exitStatus = -1;
    std::string text;
};

Output Shell(const std::string& command) {
    Output output;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return output;
    char buffer[4096];
    size_t count;
    while ((count = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.text.append(buffer, count);
    const int status = pclose(pipe);
    output.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return output;
}

std::string Quoted(const std::string& text) {
    return "'" + text + "'";
}

// The message rpm_verify gives for a status, with its file name.
std::string MessageFor(const Fixture& fixture) {
    const std::string path = fixture.Path();
    switch (fixture.status) {
        case 0: return path + " is signed.";
        case 1: return path + " is not signed.";
        case 2: return path + " has invalid signature.";
        case 3: return path + " has invalid hash.";
        default: return "";
    }
}

}  // namespace

TEST(RpmFixtures, EveryFixtureGetsItsStatusAndMessage) {
    const std::vector<Fixture> fixtures = Fixtures();
    ASSERT_GE(fixtures.size(), 19u);
    for (const Fixture& fixture : fixtures) {
        RpmVerifyResult result = rpm_verify(fixture.Path().c_str(), fixture.KeyPath().c_str());
        const std::string message = result.message;
        std::free(result.message);
        EXPECT_EQ(result.status, fixture.status) << fixture.file << " with " << fixture.key << ": " << message;
        if (fixture.status < 5) {
            EXPECT_EQ(message, MessageFor(fixture));
        }
    }
    // The status-5 fixtures, each for its own reason.
    RpmVerifyResult result = rpm_verify((kData + "/rpm/header-only.rpm").c_str(),
                                        (kData + "/keys/publisher-2048.asc").c_str());
    EXPECT_STREQ(result.message, "Unknown error");
    std::free(result.message);
    for (const char* file : {"truncated-signature.rpm", "tampered-signature-value.rpm", "amplified.rpm"}) {
        const std::string path = kData + "/rpm/" + file;
        result = rpm_verify(path.c_str(), (kData + "/keys/publisher-2048.asc").c_str());
        EXPECT_EQ(result.message, "Internal error occured while verifying " + path);
        std::free(result.message);
    }
}

// rpmkeys --checksig with the key imported into a temporary database. Where both judge the same
// thing they agree: a digest failure, a valid header-and-payload signature, a wrong key. A forgery
// only has to be refused by both: rpmkeys may catch it by checks this module does not make (the
// payload digest of the main header, the number of signature tags, malformed packets).
TEST(RpmFixtures, AgreeWithRpmkeysWhereBothJudge) {
    if (Shell("command -v rpmkeys").exitStatus != 0) GTEST_SKIP() << "rpmkeys is not installed";
    for (const Fixture& fixture : Fixtures()) {
        TempFolder database;
        ASSERT_EQ(Shell("rpmkeys --dbpath " + Quoted(database.Path()) + " --import " + Quoted(fixture.KeyPath())).exitStatus, 0);
        const Output oracle = Shell("rpmkeys --dbpath " + Quoted(database.Path()) + " --checksig " + Quoted(fixture.Path()));
        const bool oracleOk = oracle.exitStatus == 0;
        const bool digestsBad = oracle.text.find("DIGESTS") != std::string::npos;
        const bool signaturesBad = oracle.text.find("SIGNATURES NOT OK") != std::string::npos;
        const std::string context = fixture.file + " with " + fixture.key + ": rpmkeys said " + oracle.text;

        if (fixture.forged) {
            EXPECT_FALSE(oracleOk) << context;
            EXPECT_NE(fixture.status, 0) << context;
            continue;
        }
        if (fixture.status == 0) {
            EXPECT_TRUE(oracleOk) << context;
        }
        if (fixture.status == 2) {
            EXPECT_TRUE(signaturesBad && !digestsBad) << context;
        }
        EXPECT_EQ(fixture.status == 3, digestsBad) << context;
        // rpmkeys accepts a header-only signature; this module wants one over header and payload too.
        // It also reads key blocks with a signing subkey, which this module refuses (keys.txt).
        if (oracleOk && oracle.text.find("signatures OK") != std::string::npos && fixture.file != "header-only.rpm" &&
            RejectedKeys().count(fixture.key) == 0) {
            EXPECT_EQ(fixture.status, 0) << context;
        }
    }
}

TEST(RpmVerifyCommand, LinesJsonVerboseAndExitStatus) {
    const std::string tool = RPM_VERIFY_TOOL;
    const std::string key = kData + "/keys/publisher-2048.asc";
    const std::string good = kData + "/rpm/signed-sha256.rpm", bad = kData + "/rpm/tampered-payload.rpm";

    Output output = Shell(tool + " --key " + key + " " + good + " " + kData + "/rpm/signed-sha512.rpm");
    EXPECT_EQ(output.exitStatus, 0);
    EXPECT_EQ(output.text, good + " is signed.\n" + kData + "/rpm/signed-sha512.rpm is signed.\n");

    output = Shell(tool + " --verbose --key " + key + " " + good + " " + bad);
    EXPECT_EQ(output.exitStatus, 1);
    EXPECT_EQ(output.text, good + " is signed.\n" + bad + " has invalid hash. (Invalid value of MD5 hash)\n");

    output = Shell(tool + " --json --key " + key + " " + bad);
    EXPECT_EQ(output.exitStatus, 1);
    EXPECT_EQ(output.text, "[\n  {\"file\": \"" + bad + "\", \"status\": 3, \"message\": \"" + bad +
                               " has invalid hash.\"}\n]\n");

    output = Shell(tool + " --help");
    EXPECT_EQ(output.exitStatus, 0);
    EXPECT_EQ(output.text.rfind("usage: rpm-verify [--json] [--verbose] --key KEY PACKAGE...\n", 0), 0u);
    for (const std::string& arguments : std::vector<std::string>{"", good, "--key " + key, "--key", "--colour --key " + key + " " + good}) {
        output = Shell(tool + " " + arguments);
        EXPECT_EQ(output.exitStatus, 2) << arguments;
        EXPECT_EQ(output.text.rfind("rpm-verify: ", 0), 0u) << output.text;
    }
}

TEST(SigningCheckCommand, RunsTheExampleSessionsThroughTheLoadedModule) {
    const std::string tool = SIGNING_CHECK_TOOL;
    const std::string examples = SIGNING_EXAMPLES;
    const std::string key = " --set signature=" + examples + "/keys/publisher.asc ";

    Output output = Shell(tool + key + examples + "/session.json 2>/dev/null");
    EXPECT_EQ(output.exitStatus, 0) << output.text;
    EXPECT_NE(output.text.find("operation_progress=100\n"), std::string::npos) << output.text;
    EXPECT_NE(output.text.find("SIGNIFICANCE=0\n"), std::string::npos) << output.text;

    output = Shell(tool + key + examples + "/session-tampered.json");
    EXPECT_EQ(output.exitStatus, 1);
    EXPECT_NE(output.text.find("_signing_validate_file: signing validation result 3 (0 is success)"), std::string::npos);
    EXPECT_NE(output.text.find("SIGNIFICANCE=0;1\n"), std::string::npos) << output.text;

    output = Shell(tool + " --json" + key + examples + "/session-tampered.json 2>/dev/null");
    EXPECT_NE(output.text.find("\"SHORT_DESC\": \"OS_prereq_short_desc;SIGNING_prereq_err_signing_check_short_desc\""),
              std::string::npos) << output.text;

    // Session values are bytes: one that is not UTF-8 is shown with U+FFFD instead of ending the run.
    output = Shell(tool + " --json --set \"BYTES=a$(printf '\\377')b\"" + key + examples + "/session.json 2>/dev/null");
    EXPECT_EQ(output.exitStatus, 0) << output.text;
    EXPECT_NE(output.text.find("\"BYTES\": \"a\xEF\xBF\xBD" "b\""), std::string::npos) << output.text;

    for (const std::string& arguments : std::vector<std::string>{"", examples + "/missing.json", "--module /nonexistent.so " + examples + "/session.json", "--set novalue " + examples + "/session.json"}) {
        output = Shell(tool + " " + arguments);
        EXPECT_EQ(output.exitStatus, 2) << arguments;
        EXPECT_EQ(output.text.rfind("signing-check: ", 0), 0u) << output.text;
    }
}
