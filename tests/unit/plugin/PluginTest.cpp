#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <filesystem>
#include <thread>

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

// What the download is refused, before any tool runs: another scheme or an option for the tool, a
// path the shell would read otherwise, a folder that others can change.
TEST(PrerequisiteCheck, DownloadOnlyOverHttpIntoAPrivateFolder) {
    TempFolder temp;
    const std::string shared = temp / "shared", open = temp / "open", inOpen = temp / "open/mine",
                      group = temp / "group", link = temp / "link";
    for (const auto& folder : {std::make_pair(shared, 01777), std::make_pair(open, 0777),
                               std::make_pair(inOpen, 0700), std::make_pair(group, 0770)}) {
        ASSERT_EQ(mkdir(folder.first.c_str(), 0700), 0);
        ASSERT_EQ(chmod(folder.first.c_str(), static_cast<mode_t>(folder.second)), 0);
    }
    ASSERT_EQ(symlink(temp.Path().c_str(), link.c_str()), 0);
    const std::string https = "https://127.0.0.1:1/key", folderRefused = "]: its folder must belong to this user and be "
                                                                        "writable by nobody else";
    const struct {
        std::string url, folder, logged;
    } rows[] = {
        {"--config=/etc/wgetrc", temp.Path(),
         "_signing_get_command: refused to download from [--config=/etc/wgetrc?id=]: the address must begin with "
         "http:// or https://"},
        {"ftp://127.0.0.1/key", temp.Path(),
         "_signing_get_command: refused to download from [ftp://127.0.0.1/key?id=]: the address must begin with "
         "http:// or https://"},
        {https, "~/keys", "_signing_get_command: refused to write to [~/keys/PUBLIC_KEY.PUB]: the path must be absolute"},
        {https, "#keys", "_signing_get_command: refused to write to [#keys/PUBLIC_KEY.PUB]: the path must be absolute"},
        {https, shared, "_signing_get_command: refused to write to [" + shared + "/PUBLIC_KEY.PUB" + folderRefused},
        {https, group, "_signing_get_command: refused to write to [" + group + "/PUBLIC_KEY.PUB" + folderRefused},
        {https, inOpen, "_signing_get_command: refused to write to [" + inOpen + "/PUBLIC_KEY.PUB" + folderRefused},
        {https, link, "_signing_get_command: refused to write to [" + link + "/PUBLIC_KEY.PUB" + folderRefused},
        {https, temp / "missing", "_signing_get_command: refused to write to [" + temp / "missing/PUBLIC_KEY.PUB" +
                                      folderRefused},
    };
    ScopedPath tools({"which", "sh", "wget"});
    for (const auto& row : rows) {
        ScopedSession session;
        session["signing_url"] = row.url;
        session["TEMP_FOLDER"] = row.folder;
        EXPECT_EQ(_signing_get_public_key(session.get()), "") << row.logged;
        EXPECT_TRUE(session.Logged(row.logged)) << row.logged;
        EXPECT_EQ(session.CountLogged("signing_get_public_key: command value"), 0u);
    }
    EXPECT_NE(_signing_get_command(https, temp / "PUBLIC_KEY.PUB"), "");
}

// One run of a download command ends within its time and writes no more than its bytes; the
// shell and everything it started end with it.
TEST(PrerequisiteCheck, ADownloadRunIsBoundedInTimeAndBytes) {
    TempFolder temp;
    const SigningDownloadLimits limits = _signing_download_limits();
    EXPECT_EQ(limits.seconds, 30u);
    EXPECT_EQ(limits.bytes, 1024u * 1024u);

    bool stopped = true;
    int status = _signing_run_command("exit 3", {5, 1024}, &stopped);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3);
    EXPECT_FALSE(stopped);

    const auto started = std::chrono::steady_clock::now();
    const std::string late = temp / "late";
    status = _signing_run_command("(sleep 2; touch " + late + ") & sleep 10", {1, 1024}, &stopped);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(2));
    EXPECT_TRUE(stopped);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_FALSE(FileHelper::IsExist(late));  // the background child went with the group

    const std::string big = temp / "big";
    status = _signing_run_command("head -c 3000000 /dev/zero > " + big, {10, 65536}, &stopped);
    EXPECT_NE(status, 0);
    EXPECT_FALSE(stopped);
    EXPECT_EQ(std::filesystem::file_size(big), 65536u);
}

// A key is a small regular file: anything else is refused before its lines are read, and the
// host's reader gives no lines for it either.
TEST(PrerequisiteCheck, KeysAndTextFilesThatAreNotSmallRegularFiles) {
    TempFolder temp;
    const std::string fifo = temp / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string huge = temp.Write("huge.asc", std::string(1024 * 1024 + 1, 'k'));
    const std::string limit = temp.Write("limit.asc", std::string(1024 * 1024 - 2, 'k') + "\nk");
    for (const std::string& path : {fifo, std::string("/dev/zero"), temp.Path(), huge}) {
        ScopedSession session;
        EXPECT_EQ(_signing_is_valid_key(path), 1) << path;
        EXPECT_TRUE(session.Logged("_signing_is_valid_key: public key is not a regular file of at most 1048576 bytes"));
        EXPECT_TRUE(readContentOfTextFile(path).empty()) << path;
    }
    EXPECT_EQ(_signing_is_valid_key(limit), 0);
    EXPECT_EQ(readContentOfTextFile(limit).size(), 2u);
    EXPECT_EQ(readContentOfTextFile(temp.Write("lines", "a\r\n\nb")), (std::vector<std::string>{"a\r", "", "b"}));
    EXPECT_EQ(readContentOfTextFile(temp.Write("ended", "a\nb\n")), (std::vector<std::string>{"a", "b"}));
}

// The check walks the products of the session it is given, whatever other sessions exist.
TEST(PrerequisiteCheck, ProductsComeFromTheSessionHandle) {
    ScopedSession bad, good;
    bad["signature"] = good["signature"] = kKey;
    AddPackages(bad, {{"tampered-header.rpm", "rpm"}});
    AddPackages(good, {{"signed-sha256.rpm", "rpm"}});
    EXPECT_EQ(signing_validate_package_list(good.get()), 0);
    EXPECT_EQ(good.History("operation_progress"), (std::vector<std::string>{"0", "100"}));
    EXPECT_TRUE(bad.History("operation_progress").empty());
    EXPECT_EQ(signing_validate_package_list(bad.get()), 1);
    EXPECT_EQ(bad["SIGNIFICANCE"], ";1");
    EXPECT_EQ(good["SIGNIFICANCE"], "");
}
