#include <gtest/gtest.h>

#include "FileHelper.h"
#include "HostSupport.h"
#include "rpmutil.h"

namespace {

const std::string kData = SIGNING_TEST_DATA;
const std::string kKey = kData + "/keys/publisher-2048.asc";
const std::string kPackages = kData + "/rpm";

const char kShortValidate[] = ";SIGNING_prereq_war_signing_check_validate_short_desc";
const char kFullValidate[] = ";SIGNING_prereq_war_signing_check_validate_full_desc";
const char kShortDownload[] = ";SIGNING_prereq_war_signing_check_download_short_desc";
const char kFullDownload[] = ";SIGNING_prereq_war_signing_check_download_full_desc";

void AddPackages(ScopedSession& session, const std::vector<std::pair<std::string, std::string>>& components) {
    host::HostProduct& product = session->AddProduct();
    for (const auto& component : components) {
        product.AddComponent(component.first, "${PACKAGES}", component.first, component.second);
    }
    session["PACKAGES"] = kPackages;
}

}  // namespace

TEST(PrerequisiteStatus, WarningEntriesByCode) {
    struct Case {
        int code;
        const char *shortKey, *fullKey;
    };
    for (const Case& c : {Case{4, kShortDownload, kFullDownload}, Case{3, kShortValidate, kFullValidate},
                          Case{2, kShortValidate, kFullValidate}, Case{9, kShortValidate, kFullValidate}}) {
        ScopedSession session;
        _signing_set_optional_prerequisite_status(session.get(), c.code);
        EXPECT_EQ(session["SIGNIFICANCE"], ";0");
        EXPECT_EQ(session["SHORT_DESC"], c.shortKey);
        EXPECT_EQ(session["FULL_DESC"], c.fullKey);
        EXPECT_EQ(session->log, std::vector<std::string>{"_signing_set_optional_prerequisite_status: ;0"});
    }
    ScopedSession session;
    session["SIGNIFICANCE"] = "1";
    session["SHORT_DESC"] = "A";
    _signing_set_optional_prerequisite_status(session.get(), 3);
    EXPECT_EQ(session["SIGNIFICANCE"], "1;0");
    EXPECT_EQ(session["SHORT_DESC"], std::string("A") + kShortValidate);
    // The order keeps the lists aligned: significance, short, full.
    ASSERT_EQ(session->assignments.size(), 3u);
    EXPECT_EQ(session->assignments[1].first, "SHORT_DESC");
}

TEST(PrerequisiteCheck, PackageWalkProgressLogAndOneErrorEntry) {
    ScopedSession session;
    session["signature"] = kKey;
    session["SIGNIFICANCE"] = "0";
    AddPackages(session, {{"signed-sha256.rpm", "rpm"}, {"missing.rpm", "rpm"}, {"tampered-payload.rpm", "rpm"}});
    AddPackages(session, {{"signed-sha1.rpm", "srpm"}, {"other-key.rpm", "rpm"}, {"signed-sha512.rpm", "rpm"}});
    EXPECT_EQ(signing_validate_package_list(session.get()), 1);

    EXPECT_EQ(session.History("operation_progress"),
              (std::vector<std::string>{"0", "16", "33", "50", "66", "83", "100"}));
    const std::string user = "signing_get_public_key: public key specified by user " + kKey;
    auto result = [&](int status, const std::string& file, const std::string& message) {
        return "_signing_validate_file: signing validation result " + std::to_string(status) +
               " (0 is success) for " + kPackages + "/" + file + " package [" + kPackages + "/" + file + message + "]";
    };
    const std::vector<std::string> expected = {
        "signing_validate_package_list: started",
        user,
        result(0, "signed-sha256.rpm", " is signed."),
        "signing_validate_package_list: component 'missing.rpm' is not verified because it is not available",
        result(3, "tampered-payload.rpm", " has invalid hash."),
        "signing_validate_package_list: component 'signed-sha1.rpm' is not verified because it is not available",
        result(2, "other-key.rpm", " has invalid signature."),
        result(0, "signed-sha512.rpm", " is signed."),
        "signing_validate_package_list: 0;1",
        "signing_validate_package_list: finished"};
    EXPECT_EQ(session->log, expected);
    EXPECT_EQ(session["SIGNIFICANCE"], "0;1");  // two failures, one entry
    EXPECT_EQ(session["SHORT_DESC"], ";SIGNING_prereq_err_signing_check_short_desc");
    EXPECT_EQ(session["FULL_DESC"], ";SIGNING_prereq_err_signing_check_full_desc");
}

TEST(PrerequisiteCheck, GoodAndEmptySessionsPass) {
    ScopedSession good;
    good["signature"] = kKey;
    AddPackages(good, {{"signed-sha1.rpm", "rpm"}, {"signed-sha256.rpm", "rpm"}, {"signed-sha512.rpm", "rpm"}});
    EXPECT_EQ(signing_validate_package_list(good.get()), 0);
    EXPECT_EQ(good.History("operation_progress"), (std::vector<std::string>{"0", "33", "66", "100"}));
    EXPECT_EQ(good->log.back(), "signing_validate_package_list: finished");
    EXPECT_EQ(good["SIGNIFICANCE"], "");

    EXPECT_EQ(signing_validate_package_list(nullptr), 1);

    ScopedSession empty;
    empty["signature"] = kKey;
    empty->AddProduct();
    EXPECT_EQ(signing_validate_package_list(empty.get()), 0);
    EXPECT_EQ(empty.History("operation_progress"), std::vector<std::string>{"0"});
    EXPECT_EQ(empty->log.back(), "signing_validate_package_list: finished");
}

TEST(PrerequisiteCheck, KeySelectionFallsBackToTheLocalKey) {
    TempFolder temp;
    const std::string webKey = temp.Write("web.asc", "<a href=\"http://example.com/\">moved</a>\n");
    ScopedPath noTools({});

    // A user key holding an address is refused; the local key is taken instead.
    ScopedSession fallback;
    fallback["signature"] = webKey;
    fallback["KEYS"] = kData + "/keys";
    fallback["SIGNING_LOCAL_PUBLIC_KEY"] = "${KEYS}/publisher-2048.asc";
    AddPackages(fallback, {{"signed-sha256.rpm", "rpm"}});
    EXPECT_EQ(signing_validate_package_list(fallback.get()), 0);
    EXPECT_EQ(fallback["signature"], kKey);
    EXPECT_EQ(fallback.CountLogged("_signing_is_valid_key: public key contains incorrect value"), 1u);

    // The local key is unusable too: warning kind 3, no package checked.
    ScopedSession invalid;
    invalid["signature"] = webKey;
    invalid["SIGNING_LOCAL_PUBLIC_KEY"] = temp / "missing.asc";
    AddPackages(invalid, {{"signed-sha256.rpm", "rpm"}});
    EXPECT_EQ(signing_validate_package_list(invalid.get()), 1);
    EXPECT_TRUE(invalid.Logged("signing_validate_package_list: public key is not valid"));
    EXPECT_EQ(invalid["SHORT_DESC"], kShortValidate);
    EXPECT_EQ(invalid.CountLogged("_signing_validate_file"), 0u);
    EXPECT_FALSE(invalid.Logged("signing_validate_package_list: finished"));

    // No key anywhere and no download tool: warning kind 4.
    ScopedSession none;
    AddPackages(none, {{"signed-sha256.rpm", "rpm"}});
    EXPECT_EQ(signing_validate_package_list(none.get()), 1);
    EXPECT_EQ(none->log, (std::vector<std::string>{
                             "signing_validate_package_list: started",
                             "signing_get_public_key: public key will be downloaded from Tarvo",
                             "signing_get_public_key: request value [?id=]",
                             "signing_get_public_key: public key will be downloaded from Tarvo",
                             "signing_get_public_key: request value [?id=]",
                             "signing_validate_package_list: unable to obtain public key location",
                             "_signing_set_optional_prerequisite_status: ;0"}));
    EXPECT_EQ(none["SHORT_DESC"], kShortDownload);
    EXPECT_EQ(none["FULL_DESC"], kFullDownload);
    EXPECT_EQ(none.History("operation_progress"), std::vector<std::string>{"0"});
}

TEST(PrerequisiteCheck, UnsafeAddressesNeverReachTheShell) {
    TempFolder temp;
    const std::string marker = temp / "injected";
    for (const std::string& url : {"http://x/key;touch " + marker, "http://x/$(touch " + marker + ")",
                                   "http://x/`touch " + marker + "`", "http://x/key|touch " + marker}) {
        ScopedSession session;
        session["signing_url"] = url;
        session["TEMP_FOLDER"] = temp.Path();
        EXPECT_EQ(_signing_get_public_key(session.get()), "");
        EXPECT_EQ(session.CountLogged("_signing_get_command: refused to build a command from unsafe characters"), 1u)
            << url;
        EXPECT_EQ(session.CountLogged("signing_get_public_key: command value"), 0u);
    }
    ScopedSession session;
    EXPECT_EQ(_signing_get_command("http://127.0.0.1/key", "/tmp/a b/PUBLIC_KEY.PUB"), "");
    EXPECT_FALSE(FileHelper::IsExist(marker));
}
