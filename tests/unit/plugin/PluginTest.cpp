// The prerequisite check in this process with the reference host: the entries it adds, the package
// walk, the download command's screening and runs, the deadline of the key acquisition (with a short
// limit), the key screening, the escaping of session values in the log. The key selection, the update
// identifier and the download itself are cases in tests/integration/cases/check.txt.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "HostSupport.h"
#include "KeyPinning.h"
#include "PgpKey.h"
#include "rpmutil.h"

namespace {

using Lines = std::vector<std::string>;
const std::string kData = SIGNING_TEST_DATA, kKey = kData + "/keys/publisher-2048.asc", kPackages = kData + "/rpm";

void AddPackages(ScopedSession& session, const std::vector<std::pair<std::string, std::string>>& components) {
    host::HostProduct& product = session->AddProduct();
    for (const auto& c : components) product.AddComponent(c.first, "${PACKAGES}", c.first, c.second);
    session["PACKAGES"] = kPackages;
}

std::string Result(int status, const std::string& file, const std::string& message) {
    const std::string path = kPackages + "/" + file;
    return "_signing_validate_file: signing validation result " + std::to_string(status) + " (0 is success) for " +
           path + " package [" + path + message + "]";
}

}  // namespace

// A warning entry appends "0", then the "download" keys for code 4 and the "validate" keys for any
// other code, in the order significance, short, full.
TEST(PrerequisiteStatus, WarningEntriesByCode) {
    for (const auto& row :
         std::map<int, std::string>{{0, "validate"}, {3, "validate"}, {4, "download"}, {5, "validate"}}) {
        ScopedSession session;
        session["SIGNIFICANCE"] = "1";
        _signing_set_optional_prerequisite_status(session.get(), row.first);
        const std::string key = ";SIGNING_prereq_war_signing_check_" + row.second;
        EXPECT_EQ(
            session->assignments,
            (std::vector<std::pair<std::string, std::string>>{
                {"SIGNIFICANCE", "1;0"}, {"SHORT_DESC", key + "_short_desc"}, {"FULL_DESC", key + "_full_desc"}}));
        EXPECT_EQ(session->log, Lines{"_signing_set_optional_prerequisite_status: 1;0"});
    }
}

// Every component in order, progress before each; a missing package or one whose type is not
// exactly "rpm" is named; every package is checked, and two failures make one error entry.
TEST(PrerequisiteCheck, PackageWalkProgressLogAndOneErrorEntry) {
    ScopedSession session;
    session["signature"] = kKey;
    session["SIGNIFICANCE"] = "0";
    AddPackages(session, {{"signed-sha256.rpm", "rpm"}, {"missing.rpm", "rpm"}, {"tampered-payload.rpm", "rpm"}});
    AddPackages(session, {{"signed-sha1.rpm", "RPM"}, {"other-key.rpm", "rpm"}, {"signed-sha512.rpm", "rpm"}});
    EXPECT_EQ(signing_validate_package_list(session.get()), 1);
    EXPECT_EQ(session.History("operation_progress"), (Lines{"0", "16", "33", "50", "66", "83", "100"}));
    auto unavailable = [](const std::string& id) {
        return "signing_validate_package_list: component '" + id + "' is not verified because it is not available";
    };
    EXPECT_EQ(
        session->log,
        (Lines{"signing_validate_package_list: started", "signing_get_public_key: public key specified by user " + kKey,
               "signing_validate_package_list: packages are checked with the key specified by user [" + kKey + "]",
               Result(0, "signed-sha256.rpm", " is signed."), unavailable("missing.rpm"),
               Result(3, "tampered-payload.rpm", " has invalid hash."), unavailable("signed-sha1.rpm"),
               Result(2, "other-key.rpm", " has invalid signature."), Result(0, "signed-sha512.rpm", " is signed."),
               "signing_validate_package_list: 0;1", "signing_validate_package_list: finished"}));
    EXPECT_EQ(session["SHORT_DESC"], ";SIGNING_prereq_err_signing_check_short_desc");
    EXPECT_EQ(session["FULL_DESC"], ";SIGNING_prereq_err_signing_check_full_desc");
}

// The check walks the products of the session it is handed, whatever other sessions exist; a
// session without components passes, no session fails.
TEST(PrerequisiteCheck, ProductsComeFromTheSessionHandle) {
    ScopedSession bad, good;  // the log goes to the last one made
    bad["signature"] = good["signature"] = kKey;
    AddPackages(bad, {{"tampered-header.rpm", "rpm"}});
    AddPackages(good, {{"signed-sha1.rpm", "rpm"}, {"signed-sha256.rpm", "rpm"}, {"signed-sha512.rpm", "rpm"}});
    EXPECT_EQ(signing_validate_package_list(good.get()), 0);
    EXPECT_EQ(good.History("operation_progress"), (Lines{"0", "33", "66", "100"}));
    EXPECT_EQ(good->log.size(), 7u);  // started, the key twice, three results, finished
    EXPECT_TRUE(bad.History("operation_progress").empty());
    EXPECT_EQ(signing_validate_package_list(bad.get()), 1);
    EXPECT_EQ(bad["SIGNIFICANCE"] + good["SIGNIFICANCE"] + good["SHORT_DESC"], ";1");
    ScopedSession empty;
    empty["signature"] = kKey;
    empty->AddProduct();
    EXPECT_EQ(signing_validate_package_list(empty.get()), 0);
    EXPECT_EQ(empty.History("operation_progress"), Lines{"0"});
    EXPECT_EQ(signing_validate_package_list(nullptr), 1);
    EXPECT_EQ(empty->log.back(), "signing_validate_package_list: no session was given");
}

// The log says why a package got status 5 (its own line is the installer's "Internal error"), and
// that a check which found no RPM package to verify verified none, with what the session showed.
TEST(PrerequisiteCheck, LogTellsTheReasonForStatus5AndAnEmptyWalk) {
    ScopedSession session;
    session["signature"] = kKey;
    AddPackages(session, {{"truncated-signature.rpm", "rpm"}, {"unsigned.rpm", "rpm"}});
    EXPECT_EQ(signing_validate_package_list(session.get()), 1);
    const std::string path = kPackages + "/truncated-signature.rpm";
    ASSERT_GE(session->log.size(), 6u);
    EXPECT_EQ(session->log[3], "_signing_validate_file: signing validation result 5 (0 is success) for " + path +
                                   " package [Internal error occured while verifying " + path + "]");
    EXPECT_EQ(session->log[4].rfind("_signing_validate_file: reason for " + path + ": damaged (", 0), 0u)
        << session->log[4];
    EXPECT_EQ(session->log[5], Result(1, "unsigned.rpm", " is not signed."));  // no reason line after 0 to 4

    for (const auto& components :
         {std::vector<std::pair<std::string, std::string>>{}, {{"missing.rpm", "rpm"}, {"signed-sha256.rpm", "deb"}}}) {
        ScopedSession empty;
        empty["signature"] = kKey;
        if (components.empty()) {
            empty->AddProduct();
        } else {
            AddPackages(empty, components);
        }
        EXPECT_EQ(signing_validate_package_list(empty.get()), 0);
        const std::string counts =
            components.empty() ? "1 product(s) with 0 component(s)" : "1 product(s) with 2 component(s)";
        ASSERT_GE(empty->log.size(), 2u);
        EXPECT_EQ(empty->log[empty->log.size() - 2],
                  "signing_validate_package_list: no RPM package was verified: the "
                  "session shows " +
                      counts + ", none of them an available RPM package");
        EXPECT_EQ(empty->log.back(), "signing_validate_package_list: finished");
    }
}

// The failures of the probe and the download as logged (the host's echo would hide a missing line
// break): a probe that cannot start (no descriptor left for its pipe), a probe and a download ended by
// a signal (fake tools on PATH; a shell that ran the tool in its own place is this process, spared).
TEST(DownloadCommand, FailuresOfTheProbeAndTheDownloadAsLogged) {
    TempFolder temp, tools;
    ScopedSession session;
    struct rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    const int lowest = open("/dev/null", O_RDONLY);  // every descriptor below it is taken
    const struct rlimit low = {static_cast<rlim_t>(close(lowest) == 0 ? lowest : 0), saved.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    KeyAcquisition acquisition(_signing_download_limits());
    std::string out = temp / "PUBLIC_KEY.PUB";
    const std::string command = _signing_get_command("http://h/k", out, acquisition);
    setrlimit(RLIMIT_NOFILE, &saved);
    const std::string path = getenv("PATH"), spare = "[ $PPID = " + std::to_string(getpid()) + " ] || ";
    setenv("PATH", tools.Path().c_str(), 1);
    chmod(tools.Write("which", "#!/bin/sh\n" + spare + "kill $PPID; kill $$\n").c_str(), 0700);
    const std::string probed = _signing_get_command("http://h/k", out, acquisition);
    chmod(tools.Write("which", "#!/bin/sh\n[ $1 = curl ]\n").c_str(), 0700);
    chmod(tools.Write("curl", "#!/bin/sh\n" + spare + "kill -HUP $PPID; kill -HUP $$\n").c_str(), 0700);
    session["signing_url"] = "http://h/k";
    session["TEMP_FOLDER"] = temp.Path();
    EXPECT_EQ(command + probed + _signing_get_public_key(session.get(), acquisition), "");
    setenv("PATH", path.c_str(), 1);
    const std::string hup = "_signing_call_webservice: signing web service call failed by signal 1 - Hangup.\n";
    ASSERT_GE(session->log.size(), 2u);
    EXPECT_EQ(Lines(session->log.begin(), session->log.begin() + 2),
              (Lines{"_signing_get_command: unable to validate command to existance",
                     "_signing_get_command: signing command check failed by signal 15 - Terminated.\n"}));
    EXPECT_EQ(std::count(session->log.begin(), session->log.end(), hup), 3);
}

// A character the shell would read, in the address or in the path, is refused before any tool runs
// (the other download rules are cases in tests/integration/cases/check.txt); the log names it, a
// control character escaped so that the line stays one line.
TEST(DownloadCommand, UnsafeCharactersNeverReachTheShell) {
    TempFolder temp;
    KeyAcquisition acquisition(_signing_download_limits());
    std::string out = temp / "PUBLIC_KEY.PUB";
    const std::string mark = temp / "mark",
                      unsafe = "_signing_get_command: refused to build a command from unsafe characters in [";
    const std::map<char, std::string> logged = {{'\t', "\\t"},     {'\n', "\\n"},     {'\r', "\\r"},
                                                {'\x1b', "\\x1b"}, {'\x7f', "\\x7f"}, {'\0', "\\x00"}};
    for (char c : std::string(" \t\n\r\x1b\x7f;&|<>()$`\\\"'*!{}[]^\0", 26)) {
        ScopedSession session;
        const std::string url = "http://x/k" + std::string(1, c) + "touch " + mark, path = out + c;
        std::string written = out, cut = path;
        EXPECT_EQ(_signing_get_command(url, written, acquisition), "") << c;
        EXPECT_EQ(_signing_get_command("http://x/k", cut, acquisition), "") << c;
        const std::string shown = logged.count(c) != 0 ? logged.at(c) : std::string(1, c);
        EXPECT_EQ(session->log, (Lines{unsafe + "http://x/k" + shown + "touch " + mark + "] or [" + out + "]",
                                       unsafe + "http://x/k] or [" + out + shown + "]"}));
    }
    EXPECT_FALSE(std::filesystem::exists(mark));
    ScopedSession session;
    EXPECT_EQ(_signing_get_command("https://h-._~:/?#@%+,=AZaz09", out, acquisition),
              "export LD_LIBRARY_PATH=\"\"; wget --timeout=3 --tries=1 --quiet https://h-._~:/?#@%+,=AZaz09 -O " + out +
                  " 2>/dev/null");
    EXPECT_TRUE(session->log.empty());
}

// One run of a download command ends within its time and writes no more than its bytes; the
// shell and everything it started end with it.
TEST(DownloadCommand, ARunIsBoundedInTimeAndBytes) {
    TempFolder temp;
    EXPECT_EQ(_signing_download_limits().seconds, 30u);
    EXPECT_EQ(_signing_download_limits().bytes, 1024u * 1024u);
    bool stopped = true;
    int status = _signing_run_command("exit 3", 5000, 1024, "", &stopped);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3 && !stopped);
    // No pathname expansion: "?" stays a "?", whatever files another user made.
    temp.Write("a", "");
    EXPECT_EQ(_signing_run_command("test -e " + temp / "?", 5000, 1024, ""), 1 << 8);
    // The tool's HOME is the download folder (wget keeps its HSTS list there); the rest is inherited.
    EXPECT_EQ(_signing_run_command("echo $HOME $PATH > " + temp / "home", 5000, 1024, temp.Path()), 0);
    EXPECT_EQ(readContentOfTextFile(temp / "home"), Lines{temp.Path() + " " + getenv("PATH")});
    const auto started = std::chrono::steady_clock::now();
    status = _signing_run_command("(sleep 2; touch " + temp / "late" + ") & sleep 10", 1000, 1024, "", &stopped);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(2));
    EXPECT_TRUE(stopped && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_FALSE(std::filesystem::exists(temp / "late"));  // the background child went with the group
    status = _signing_run_command("head -c 3000000 /dev/zero > " + temp / "big", 10000, 65536, "", &stopped);
    EXPECT_TRUE(status != 0 && !stopped);
    EXPECT_EQ(std::filesystem::file_size(temp / "big"), 65536u);
}

// A key is a small regular file holding no "http://": anything else is refused, and the host's
// reader gives no lines for a file that is not a small regular file either.
TEST(PrerequisiteCheck, KeysAndTextFilesThatAreNotSmallRegularFiles) {
    TempFolder temp;
    ASSERT_EQ(mkfifo((temp / "fifo").c_str(), 0600), 0);
    const std::string limit = temp.Write("limit.asc", std::string(1024 * 1024 - 2, 'k') + "\nk");
    for (const std::string& path : {temp / "fifo", std::string("/dev/zero"), temp.Path(),
                                    temp.Write("huge", std::string(1024 * 1024 + 1, 'k'))}) {
        ScopedSession session;
        EXPECT_EQ(_signing_is_valid_key(path), 1) << path;
        EXPECT_EQ(session->log,
                  Lines{"_signing_is_valid_key: public key is not a regular file of at most 1048576 bytes"});
        EXPECT_TRUE(readContentOfTextFile(path).empty()) << path;
    }
    EXPECT_EQ(_signing_is_valid_key(limit) + _signing_is_valid_key(temp.Write("s.asc", "HTTP://x https://y\n")), 0);
    EXPECT_EQ(readContentOfTextFile(limit).size(), 2u);
    EXPECT_EQ(readContentOfTextFile(temp.Write("lines", "a\r\n\nb")), (Lines{"a\r", "", "b"}));
    EXPECT_EQ(readContentOfTextFile(temp.Write("ended", "a\nb\n")), (Lines{"a", "b"}));
}

// A command is built whole or not at all: one of 4095 bytes is returned as it is, one of 4096 is
// refused with its length, and no tool runs for it.
TEST(DownloadCommand, ACommandThatWouldNotFitIsRefusedNeverCut) {
    TempFolder temp;
    KeyAcquisition acquisition(_signing_download_limits());
    const std::string out = temp / "PUBLIC_KEY.PUB", frame =
                                                         "export LD_LIBRARY_PATH=\"\"; wget --timeout=3 "
                                                         "--tries=1 --quiet  -O " +
                                                         out + " 2>/dev/null";
    for (size_t length : {4095u, 4096u, 70000u}) {
        ScopedSession session;
        const std::string url = "http://h/" + std::string(length - frame.size() - 9, 'a');
        std::string written = out;
        const std::string command = _signing_get_command(url, written, acquisition);
        if (length < 4096) {
            EXPECT_EQ(command, "export LD_LIBRARY_PATH=\"\"; wget --timeout=3 --tries=1 --quiet " + url + " -O " + out +
                                   " 2>/dev/null");
            EXPECT_TRUE(session->log.empty());
        } else {
            EXPECT_EQ(command, "");
            EXPECT_EQ(session->log, Lines{"_signing_get_command: refused to build a command of " +
                                          std::to_string(length) + " bytes: a command holds at most 4095"});
        }
    }
}

// Every download attempt of both lookups shares one deadline: a service that trickles a byte every
// half second costs the limit once (here 2 seconds), then the local key is used, or warning 4
// without one.
TEST(KeyAcquisition, ATricklingServiceCostsTheLimitOnceForTheWholeCheck) {
    TempFolder temp, served;
    LoopbackServer service(served.Path(), temp / "requests.log");
    ASSERT_GT(service.port, 0);
    for (const std::string& local : {kKey, std::string()}) {
        ScopedSession session;
        session["TEMP_FOLDER"] = temp.Path();
        session["signing_url"] = service.Address() + "/trickle";
        session["SIGNING_LOCAL_PUBLIC_KEY"] = local;
        KeyAcquisition acquisition({2, 1024 * 1024});
        const auto started = std::chrono::steady_clock::now();
        EXPECT_EQ(SelectSigningKey(session.get(), acquisition), local);
        const auto spent = std::chrono::steady_clock::now() - started;
        EXPECT_GE(spent, std::chrono::seconds(2));
        EXPECT_LT(spent, std::chrono::milliseconds(2900));
        const Lines& log = session->log;
        auto count = [&log](const std::string& line) { return std::count(log.begin(), log.end(), line); };
        EXPECT_EQ(count("_signing_call_webservice: web service call was stopped: the key download may take 2 seconds "
                        "in all"),
                  1);
        EXPECT_EQ(count("_signing_call_webservice: signing web service call failed by signal 9 - Killed.\n"), 1);
        EXPECT_EQ(count("_signing_call_webservice: no attempt is left: the key download may take 2 seconds in all"),
                  local.empty() ? 2 : 1);
        EXPECT_EQ(log.back(), local.empty() ? "_signing_set_optional_prerequisite_status: ;0"
                                            : "signing_validate_package_list: packages are checked with the local "
                                              "key [" +
                                                  kKey + "]: the key download failed");
    }
}

// A value in a log line: text (UTF-8 beyond ASCII) as it is; C0 and C1 controls, DEL, the line and
// paragraph separators and bytes that are not UTF-8 escaped.
TEST(PrerequisiteCheck, LogTextEscapesWhatCouldBreakALine) {
    for (const auto& row : std::vector<std::pair<std::string, std::string>>{
             {"/a b\\c~", "/a b\\c~"},
             {"\n\r\t", "\\n\\r\\t"},
             {std::string("\0\x01\x1b[2K\x1f\x7f", 8), "\\x00\\x01\\x1b[2K\\x1f\\x7f"},
             {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x94\x91 \xc2\xa0",
              "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x94\x91 \xc2\xa0"},
             {"\xc2\x80\xc2\x85\xc2\x9b\xc2\x9f", "\\xc2\\x80\\xc2\\x85\\xc2\\x9b\\xc2\\x9f"},
             {"\xe2\x80\xa8\xe2\x80\xa9\xe2\x80\xaa", "\\xe2\\x80\\xa8\\xe2\\x80\\xa9\xe2\x80\xaa"},
             {"\x9b\x85\xff\xc0\xaf\xed\xa0\x80\xf4\x90\x80\x80",
              "\\x9b\\x85\\xff\\xc0\\xaf\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80"},
             {"\xe2\x82", "\\xe2\\x82"}}) {
        EXPECT_EQ(LogText(row.first), row.second) << row.second;
    }
}

// Values from the session reach the log with their control characters escaped: each line stays one.
TEST(PrerequisiteCheck, SessionValuesCannotAddLogLines) {
    ScopedSession session;
    const std::string fake = "\nsigning_validate_package_list: finished\x1b[2K";
    session["signature"] = kKey + fake;
    session["SIGNING_LOCAL_PUBLIC_KEY"] = kKey;
    session["SIGNIFICANCE"] = fake;
    AddPackages(session, {{"missing.rpm" + fake, "rpm"}, {"signed-sha256.rpm", "rpm"}});
    EXPECT_EQ(signing_validate_package_list(session.get()), 0);
    const std::string shown = "\\nsigning_validate_package_list: finished\\x1b[2K";
    EXPECT_EQ(session->log,
              (Lines{"signing_validate_package_list: started",
                     "signing_get_public_key: public key specified by user " + kKey + shown,
                     "signing_get_public_key: public key specified by user " + kKey,
                     "signing_validate_package_list: packages are checked with the local key [" + kKey +
                         "]: the key specified by user is not usable",
                     "signing_validate_package_list: component 'missing.rpm" + shown +
                         "' is not verified because it is not available",
                     Result(0, "signed-sha256.rpm", " is signed."), "signing_validate_package_list: finished"}));
}

// The session's "signing_policy": "current" takes a header-only package (its payload digest is
// signed), classic (unset, empty, "classic", or any other value, which is logged) refuses it.
TEST(PrerequisiteCheck, TheSessionChoosesThePolicy) {
    for (const auto& row : std::vector<std::pair<std::string, int>>{
             {"", 1}, {"classic", 1}, {"current", 0}, {"Current", 1}, {"current\n", 1}}) {
        ScopedSession session;
        session["signature"] = kKey;
        session["signing_policy"] = row.first;
        AddPackages(session, {{"header-only.rpm", "rpm"}});
        EXPECT_EQ(signing_validate_package_list(session.get()), row.second) << row.first;
        const std::string unknown = "signing_validate_package_list: unknown signing_policy [" + LogText(row.first) +
                                    "]: the classic policy is used";
        EXPECT_EQ(std::count(session->log.begin(), session->log.end(), unknown),
                  row.first == "Current" || row.first == "current\n" ? 1 : 0)
            << row.first;
        EXPECT_EQ(session->log[1] == "signing_validate_package_list: packages are verified under the current policy",
                  row.first == "current")
            << row.first;
    }
}

// A downloaded key is screened with the key reader of the policy the packages are checked under: an
// Ed25519 key (which the classic reader cannot read) passes under the current policy only.
TEST(KeyAcquisition, TheScreenReadsKeysAsThePolicyDoes) {
    TempFolder temp, tools;
    const std::string key = std::string(SIGNING_TEST_DATA) + "/oracle/gpg-ed25519.asc";
    const std::string path = getenv("PATH");
    chmod(tools.Write("which", "#!/bin/sh\n[ $1 = curl ]\n").c_str(), 0700);
    chmod(tools.Write("curl", "#!/bin/sh\nfor a; do [ \"$p\" = -o ] && cp " + key + " \"$a\"; p=$a; done\n").c_str(),
          0700);
    setenv("PATH", (tools.Path() + ":" + path).c_str(), 1);
    for (const SigningPolicy policy : {SigningPolicy::Classic, SigningPolicy::Current}) {
        ScopedSession session;
        session["signing_url"] = "http://h/k";
        session["TEMP_FOLDER"] = temp.Path();
        KeyAcquisition acquisition(_signing_download_limits());
        acquisition.policy = policy;
        const std::string got = _signing_get_public_key(session.get(), acquisition);
        EXPECT_EQ(got.empty(), policy == SigningPolicy::Classic)
            << PolicyOf(policy).name << ": " << acquisition.failure;
    }
    setenv("PATH", path.c_str(), 1);
}

// Key pinning: the fingerprints gpg and sq printed for the oracle keys (keys.txt: the primary key's,
// then its subkeys') are those the module computes, version 4 and 6; a key file is accepted only
// when every primary key in it is pinned, and a pinned subkey does not stand for its primary key.
TEST(KeyPinning, FingerprintsOfTheToolsAndTheListRule) {
    std::ifstream listing(kData + "/oracle/keys.txt");
    int keys = 0;
    for (std::string name, tool, primary, rest; listing >> name >> tool >> primary && std::getline(listing, rest);) {
        const std::string path = kData + "/oracle/" + name + ".asc";
        SCOPED_TRACE(path);
        EXPECT_EQ(PrimaryKeyFingerprints(PgpKey::ReadFile(path)), std::vector<std::string>{primary});
        EXPECT_EQ(KeyPins::Parse(primary).Refusal(path), "");
        const std::string subkey = rest.empty() ? "" : rest.substr(1, rest.find(' ', 1) - 1);
        if (!subkey.empty()) {
            EXPECT_EQ(KeyPins::Parse(subkey).Refusal(path),
                      "the key with fingerprint " + primary + " is not one of the keys accepted");
        }
        ++keys;
    }
    EXPECT_EQ(keys, 16);

    TempFolder temp;
    const std::string rsa = kData + "/oracle/gpg-rsa2048.asc", ed = kData + "/oracle/gpg-ed25519.asc";
    auto read = [](const std::string& path) {
        std::ifstream in(path);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    };
    const std::string both = temp.Write("both.asc", read(rsa) + read(ed));
    const std::string rsaPin = "8B9F1BB0663E30087A4DD0605D8530866A0D3813";
    const std::string edPin = "7B00511EF6F2050A4E4C96D57FCEC804FE477893";
    const struct {
        std::string list, path, refusal;
    } rows[] = {
        {rsaPin, both, "the key with fingerprint " + edPin + " is not one of the keys accepted"},
        {" " + edPin + " ;\n" + rsaPin + ",", both, ""},
        {rsaPin + "0", rsa,
         "the list of accepted keys is malformed: [" + rsaPin +
             "0] is not a fingerprint of 40 or 64 hexadecimal digits"},
        {rsaPin.substr(0, 39) + "G", rsa,
         "the list of accepted keys is malformed: [" + rsaPin.substr(0, 39) +
             "G] is not a fingerprint of 40 or 64 hexadecimal digits"},
        {rsaPin, temp.Write("text.asc", "not a key\n"), "its keys cannot be read: "},
        {rsaPin, temp / "missing.asc", "its keys cannot be read: "},
    };
    for (const auto& row : rows) {
        const std::string refusal = KeyPins::Parse(row.list).Refusal(row.path);
        EXPECT_EQ(refusal.substr(0, row.refusal.empty() ? std::string::npos : row.refusal.size()), row.refusal)
            << row.list;
    }
    EXPECT_TRUE(KeyPins::Parse(" ;,\n").Empty());
    EXPECT_FALSE(KeyPins::Parse("x").Empty());
}
