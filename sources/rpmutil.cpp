#include "rpmutil.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>

#include "Exceptions.h"
#include "FileHelper.h"
#include "PgpKey.h"
#include "ProcessingResult.h"
#include "RpmPackage.h"
#include "RpmReport.h"
#include "host.h"

const char* FILE_PATTERN = "^[a-zA-Z0-9()+._ \\/\\-\\[\\]\\\\]*$";

namespace {

// The text returned when even the message cannot be allocated; static, never freed.
char kInternalError[] = "Internal error.";

}  // namespace

RpmVerifyResult rpm_result_response(int processingResult, const std::string& file) {
    switch (processingResult) {
        case ResultNotSigned: return response(RPM_STATUS_NOT_SIGNED, file + " is not signed.");
        case ResultSigned: return response(RPM_STATUS_SIGNED, file + " is signed.");
        case ResultInvalidSignature: return response(RPM_STATUS_INVALID_SIGNATURE, file + " has invalid signature.");
        case ResultInvalidHash: return response(RPM_STATUS_INVALID_HASH, file + " has invalid hash.");
        case ResultInvalidStructure: return response(RPM_STATUS_INVALID_STRUCTURE, file + " has invalid structure.");
        case ResultInternalError: return response(RPM_STATUS_ERROR, "Internal error occured while verifying " + file);
        default: return response(RPM_STATUS_ERROR, "Unknown error");
    }
}

namespace {

// Verifies file with key; with recordChecks every check is made and kept in report (the verdict
// stays the first failure's), without it the verification stops at the first failure. Everything
// the verification uses is made here and dropped on return: the key is read at most once, from
// the first signature check on, and nothing is shared with other calls.
RpmVerifyResult Verify(const std::string& file, const std::string& key, RpmReport& report, bool recordChecks) {
    std::unique_ptr<FileHelper, FileHelperRelease> package;
    try {
        report.stage = RpmStage::Unreadable;
        package.reset(new FileHelper(file));
    } catch (const std::exception& e) {
        return response(RPM_STATUS_ERROR, e.what());
    }
    if (!PackageReader::IsRpm(*package)) {
        report.stage = RpmStage::NotRpm;
        return response(RPM_STATUS_ERROR, file + " is not an RPM file.");
    }
    report.stage = RpmStage::Failed;
    KeyFromFile keyFile(key);
    int result = ResultInternalError;
    try {
        result = VerifyPackage(*package, keyFile, report.detail, recordChecks ? &report.checks : nullptr);
    } catch (const std::exception& e) {
        return response(RPM_STATUS_ERROR, "Could not verify " + file + " with key " + key + " - " + e.what());
    }
    package.reset();
    if (result != ResultInternalError) report.stage = RpmStage::Checked;
    report.result = result;
    return rpm_result_response(result, file);
}

}  // namespace

RpmVerifyResult response(RPM_STATUS status, const std::string& text) {
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy == nullptr) {
        return RpmVerifyResult{RPM_STATUS_ERROR, kInternalError};
    }
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return RpmVerifyResult{status, copy};
}

namespace {

RpmVerifyResult VerifyEntry(const char* file, const char* key, RpmReport& report, bool recordChecks) {
    report = RpmReport();
    // Nothing may leave towards the host: every failure becomes status 5 with its reason.
    try {
        if (file == nullptr || key == nullptr) {
            return response(RPM_STATUS_ERROR, file == nullptr ? "rpm_verify: no package file was given"
                                                              : "rpm_verify: no key file was given");
        }
        try {
            return Verify(file, key, report, recordChecks);
        } catch (const std::exception& e) {
            return response(RPM_STATUS_ERROR, std::string("Could not recognise ") + file + " - " + e.what());
        } catch (...) {
            return response(RPM_STATUS_ERROR, std::string("Internal error occured while verifying ") + file);
        }
    } catch (...) {
        return RpmVerifyResult{RPM_STATUS_ERROR, kInternalError};
    }
}

}  // namespace

RpmVerifyResult rpm_verify_report(const char* file, const char* key, RpmReport& report) {
    return VerifyEntry(file, key, report, true);
}

RpmVerifyResult rpm_verify_detailed(const char* file, const char* key, std::string& detail) {
    RpmReport report;
    const RpmVerifyResult result = VerifyEntry(file, key, report, false);
    detail = std::move(report.detail);
    return result;
}

RpmVerifyResult rpm_verify(const char* file, const char* key) {
    std::string detail;
    return rpm_verify_detailed(file, key, detail);
}

RpmKey rpm_key_of(const char* data, size_t length) {
    const std::unique_ptr<PgpKey> key = PgpKey::Parse(data, static_cast<unsigned int>(length));
    if (key->KeyId() == nullptr) {
        throw DataFormatException("The PGP certificate holds no signature packet that names its key");
    }
    return RpmKey{Base::DumpBufferToString(key->KeyId(), 8, true), key->Bits()};
}

std::vector<char> rpm_read_key_file(const std::string& path) {
    return PgpKey::ReadFile(path);
}

RpmKey rpm_read_key(const std::string& path) {
    const std::vector<char> bytes = rpm_read_key_file(path);
    return rpm_key_of(bytes.data(), bytes.size());
}

// ---------------------------------------------------------------------------------------------
// The prerequisite check

namespace {

// Texts appended to the session's prerequisite lists.
const char kSignificance[] = "SIGNIFICANCE";
const char kShortDesc[] = "SHORT_DESC";
const char kFullDesc[] = "FULL_DESC";
const char* const kWarningShortKeys[] = {";SIGNING_prereq_war_signing_check_validate_short_desc",
                                         ";SIGNING_prereq_war_signing_check_download_short_desc",
                                         ";SIGNING_prereq_war_signing_check_file_short_desc"};
const char* const kWarningFullKeys[] = {";SIGNING_prereq_war_signing_check_validate_full_desc",
                                        ";SIGNING_prereq_war_signing_check_download_full_desc",
                                        ";SIGNING_prereq_war_signing_check_file_full_desc"};

// The download: the tools, their command templates (time-out, tries, address, output file) and the
// protocol options logged with each attempt.
const int kTimeoutSeconds = 3;
const int kTries = 1;
const int kAttempts = 3;
const size_t kCommandBufferSize = 4096;
const char* const kProbes[] = {"which wget 2>/dev/null", "which curl 2>/dev/null"};
const char* const kTemplates[] = {
    "export LD_LIBRARY_PATH=\"\"; wget --timeout=%d --tries=%d --quiet %s -O %s 2>/dev/null",
    "export LD_LIBRARY_PATH=\"\"; curl --max-time %d --retry %d --location --silent %s -o %s 2>/dev/null"};
const char* const kWgetProtocols[] = {"--secure-protocol=SSLv3", "--secure-protocol=SSLv2", "--secure-protocol=TLSv1"};
const char* const kCurlProtocols[] = {"--sslv3", "--sslv2", "--tlsv1"};

// Characters that cannot change the meaning of a shell command line.
bool IsSafeForShell(const std::string& text) {
    for (unsigned char c : text) {
        // strchr would find a NUL byte (the set's own terminator): it is not safe.
        if (!std::isalnum(c) && (c == '\0' || std::strchr("-._~:/?#@%+,=", c) == nullptr)) {
            return false;
        }
    }
    return true;
}

bool StartsWith(const std::string& text, const char* prefix) {
    return text.compare(0, std::strlen(prefix), prefix) == 0;
}

// A folder that nobody but its owner can change: owned by root or by the running user, and not
// writable by group or others unless sticky (then others cannot rename or remove what is not
// theirs).
bool IsSteadyFolder(const struct stat& status) {
    const bool trustedOwner = status.st_uid == 0 || status.st_uid == geteuid();
    const bool othersMayWrite = (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
    return S_ISDIR(status.st_mode) && trustedOwner && (!othersMayWrite || (status.st_mode & S_ISVTX) != 0);
}

// The download folder must belong to the running user and be writable by nobody else, so that no
// one can plant a link or swap the key there; each folder above it must be steady, so that no one
// can swap the folder itself. A link above it counts when it belongs to root or the user and leads
// to a steady folder.
bool IsPrivateFolder(const std::string& folder) {
    struct stat status;
    if (folder.empty() || lstat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) ||
        status.st_uid != geteuid() || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return false;
    }
    for (size_t slash = folder.find_last_of('/'); slash != std::string::npos;
         slash = slash == 0 ? std::string::npos : folder.find_last_of('/', slash - 1)) {
        const std::string above = slash == 0 ? "/" : folder.substr(0, slash);
        if (lstat(above.c_str(), &status) != 0) return false;
        if (S_ISLNK(status.st_mode)) {
            if (status.st_uid != 0 && status.st_uid != geteuid()) return false;
            if (stat(above.c_str(), &status) != 0) return false;
        }
        if (!IsSteadyFolder(status)) return false;
    }
    return true;
}

// The folder part of a path ("/" for a file at the root).
std::string FolderOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? "" : slash == 0 ? "/" : path.substr(0, slash);
}

// A regular file of the running user of at most limit bytes (links are not followed).
bool IsOwnRegularFile(const std::string& path, unsigned long long limit) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid() &&
           static_cast<unsigned long long>(status.st_size) <= limit;
}

// Whether the tool may be run on url and outputFile; logs why not. Another scheme, or an address
// that would reach the tool as an option ("--config=...", "-K ..."), is refused, and so is a path
// that is not absolute ("~" and "#" mean something to the shell) or whose folder others can change.
bool IsSafeDownload(const std::string& url, const std::string& outputFile) {
    if (!StartsWith(url, "http://") && !StartsWith(url, "https://")) {
        print_log(
            "_signing_get_command: refused to download from [%s]: the address must begin with http:// or https://",
            url.c_str());
        return false;
    }
    if (!StartsWith(outputFile, "/")) {
        print_log("_signing_get_command: refused to write to [%s]: the path must be absolute", outputFile.c_str());
        return false;
    }
    if (!IsPrivateFolder(FolderOf(outputFile))) {
        print_log(
            "_signing_get_command: refused to write to [%s]: its folder must belong to this user and be "
            "writable by nobody else",
            outputFile.c_str());
        return false;
    }
    return true;
}

long long MonotonicMilliseconds() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// The first non-empty update identifier that a "phonehome" entry leads to: each product's own
// environment first, then those of its components.
std::string FindUpdateId(session_t* session) {
    auto lookup = [](Environment* environment) -> std::string {
        if (environment == nullptr) return "";
        Environment* phonehome = castStringToEnvPointer(env_get_string_internal(environment, "phonehome"));
        return phonehome == nullptr ? "" : env_get_string_internal(phonehome, "VelUpdateId");
    };
    const TSD* data = session_get_tsd(session);
    if (data == nullptr) return "";
    for (Product* product : data->products()) {
        std::string id = lookup(product->environment());
        if (!id.empty()) return id;
        for (Component* component : product->components()) {
            id = lookup(component->environment());
            if (!id.empty()) return id;
        }
    }
    return "";
}

// Runs the download command up to three times; true when one run ended with status 0. Each run
// starts without a key file: one left by an earlier run (or planted) is removed first, so the
// tool never writes through a link.
bool CallWebService(const std::string& command, const std::string& outputFile) {
    const SigningDownloadLimits limits = _signing_download_limits();
    const char* protocol = "";
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (command.find("wget") != std::string::npos) {
            protocol = kWgetProtocols[attempt];
        } else if (command.find("curl") != std::string::npos) {
            protocol = kCurlProtocols[attempt];
        }
        // The protocol option is only logged: every attempt runs the same plain command.
        const std::string secureCommand = command + " " + protocol;
        print_log("signing_get_public_key: secure command   [%s]", secureCommand.c_str());
        print_log("signing_get_public_key: secure protocols [%s]", protocol);

        void* scratch = std::calloc(80, 1);
        if (scratch == nullptr) {
            print_log("_signing_call_webservice: unable to allocate memory");
            continue;
        }
        if (unlink(outputFile.c_str()) != 0 && errno != ENOENT) {
            print_log("_signing_call_webservice: unable to remove the earlier file [%s]: %s", outputFile.c_str(),
                      SystemErrorText(errno).c_str());
            std::free(scratch);
            continue;
        }
        bool stopped = false;
        const int status = _signing_run_command(command, limits, &stopped);
        std::free(scratch);
        if (status == -1) {
            print_log("_signing_call_webservice: unable to execute command");
            continue;
        }
        if (stopped) {
            print_log("_signing_call_webservice: web service call ran past %u seconds and was stopped", limits.seconds);
        }
        if (status != -1 && WIFSIGNALED(status)) {
            print_log("_signing_call_webservice: signing web service call failed by signal %d - %s.\n",
                      WTERMSIG(status), strsignal(WTERMSIG(status)));
        } else if (status != 0) {
            print_log("_signing_call_webservice: web service call failed with status %d", status);
        } else {
            return true;
        }
    }
    return false;
}

}  // namespace

SigningDownloadLimits _signing_download_limits() {
    return SigningDownloadLimits{30, 1024ull * 1024};
}

int _signing_run_command(const std::string& command, const SigningDownloadLimits& limits, bool* stopped) {
    if (stopped != nullptr) *stopped = false;
    // Everything the child needs is prepared before fork: between fork and exec it only makes
    // calls that are safe there.
    const int devNull = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (devNull < 0) return -1;
    // -f: no pathname expansion. The "?" of the address ("?id=") or of a path would otherwise be
    // a pattern that files made by another user could match.
    const char* const arguments[] = {"sh", "-f", "-c", command.c_str(), nullptr};
    const rlim_t bytes = static_cast<rlim_t>(limits.bytes);
    const struct rlimit fileSize = {bytes, bytes};
    const pid_t child = fork();
    if (child == 0) {
        setpgid(0, 0);
        setrlimit(RLIMIT_FSIZE, &fileSize);  // a write past the limit ends the tool (SIGXFSZ)
        struct sigaction defaults = {};
        defaults.sa_handler = SIG_DFL;
        sigaction(SIGXFSZ, &defaults, nullptr);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        dup2(devNull, STDIN_FILENO);
        dup2(devNull, STDOUT_FILENO);
        execv("/bin/sh", const_cast<char* const*>(arguments));
        _exit(127);
    }
    close(devNull);
    if (child < 0) return -1;
    setpgid(child, child);  // also here, so that the group exists whichever side runs first

    const long long deadline = MonotonicMilliseconds() + 1000LL * limits.seconds;
    int status = 0;
    for (;;) {
        const pid_t done = waitpid(child, &status, WNOHANG);
        if (done == child) return status;
        if (done < 0 && errno != EINTR) return -1;
        if (MonotonicMilliseconds() >= deadline) break;
        const struct timespec pause = {0, 10L * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
    // Past the deadline: the shell and everything it started go.
    kill(-child, SIGKILL);
    if (stopped != nullptr) *stopped = true;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return status;
}

void _signing_set_optional_prerequisite_status(session_t* session, int code) {
    const std::string significance = env_get_string(session, kSignificance) + ";0";
    print_log("_signing_set_optional_prerequisite_status: %s", significance.c_str());
    env_set_string(session, kSignificance, significance.c_str());
    // Only the "validate" and "download" keys are ever selected; the "file" keys stay unused.
    const int index = code == 4 ? 1 : 0;
    env_set_string(session, kShortDesc, (env_get_string(session, kShortDesc) + kWarningShortKeys[index]).c_str());
    env_set_string(session, kFullDesc, (env_get_string(session, kFullDesc) + kWarningFullKeys[index]).c_str());
}

std::string _signing_get_command(const std::string& url, const std::string& outputFile) {
    if (!IsSafeForShell(url) || !IsSafeForShell(outputFile)) {
        print_log("_signing_get_command: refused to build a command from unsafe characters in [%s] or [%s]",
                  url.c_str(), outputFile.c_str());
        return "";
    }

    for (size_t tool = 0; tool < 2; ++tool) {
        // The probes are fixed texts: no input reaches this command line.
        FILE* probe = popen(kProbes[tool], "r");  // NOLINT(cert-env33-c)
        if (probe == nullptr) {
            print_log("_signing_get_command: unable to validate command to existance");
            return "";
        }
        char chunk[64];
        bool readSomething = false;
        for (;;) {
            const ssize_t count = read(fileno(probe), chunk, sizeof chunk);
            if (count > 0) {
                readSomething = true;
                continue;
            }
            if (count < 0 && readSomething) {
                print_log("_signing_get_command: unable to read command output");
                pclose(probe);
                return "";
            }
            break;
        }
        const int status = pclose(probe);
        if (status != -1 && WIFSIGNALED(status)) {
            print_log("_signing_get_command: signing command check failed by signal %d - %s.\n", WTERMSIG(status),
                      strsignal(WTERMSIG(status)));
            return "";
        }
        if (status == 0) {
            if (!IsSafeDownload(url, outputFile)) {
                return "";
            }
            std::unique_ptr<char[]> command = std::make_unique<char[]>(kCommandBufferSize);
            static_cast<void>(std::snprintf(command.get(), kCommandBufferSize, kTemplates[tool], kTimeoutSeconds,
                                            kTries, url.c_str(), outputFile.c_str()));
            return command.get();
        }
    }
    return "";
}

std::string _signing_get_public_key(session_t* session) {
    const std::string defaultUrl = env_get_string(session, "SIGNING_DEFAULT_URL");
    const std::string configuredUrl = env_get_string(session, "signing_url");
    std::string signature = env_get_string(session, "signature");
    const std::string tempFolder = env_get_string(session, "TEMP_FOLDER");
    if (!signature.empty()) {
        print_log("signing_get_public_key: public key specified by user %s", signature.c_str());
        return signature;
    }
    print_log("signing_get_public_key: public key will be downloaded from Tarvo");
    const std::string address = (configuredUrl.empty() ? defaultUrl : configuredUrl) + "?id=" + FindUpdateId(session);
    print_log("signing_get_public_key: request value [%s]", address.c_str());
    std::string outputFile = tempFolder + "/PUBLIC_KEY.PUB";
    const std::string command = _signing_get_command(address, outputFile);
    if (command.empty()) {
        return "";
    }
    print_log("signing_get_public_key: command value [%s]", command.c_str());
    if (!CallWebService(command, outputFile)) {
        return "";
    }
    if (!IsOwnRegularFile(outputFile, _signing_download_limits().bytes)) {
        print_log(
            "signing_get_public_key: refused the downloaded key [%s]: not a regular file of this user of at "
            "most %llu bytes",
            outputFile.c_str(), _signing_download_limits().bytes);
        return "";
    }
    print_log("signing_get_public_key: public key obtained successfully [%s]", outputFile.c_str());
    return outputFile;
}

int _signing_is_valid_key(const std::string& path) {
    if (file_exists(path, false) == 0) {
        return 1;
    }
    // A key is a small regular file: a pipe, a device or a huge file would hang or exhaust the
    // reading of its lines.
    struct stat status;
    const unsigned long long limit = _signing_download_limits().bytes;
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode) ||
        static_cast<unsigned long long>(status.st_size) > limit) {
        print_log("_signing_is_valid_key: public key is not a regular file of at most %llu bytes", limit);
        return 1;
    }
    // A service that answers with an address or an error page instead of a key leaves such a file.
    for (const std::string& line : readContentOfTextFile(path)) {
        if (line.find("http://") != std::string::npos) {
            print_log("_signing_is_valid_key: public key contains incorrect value");
            return 1;
        }
    }
    return 0;
}

namespace {

// The key to check the packages with, or empty after a warning entry has been added.
std::string SelectKey(session_t* session) {
    std::string key = _signing_get_public_key(session);
    if (key.empty() || _signing_is_valid_key(key) == 1) {
        const std::string local = expand_operand(session, env_get_string(session, "SIGNING_LOCAL_PUBLIC_KEY"), true);
        env_set_string(session, "signature", local.c_str());
        key = _signing_get_public_key(session);
        if (key.empty()) {
            print_log("signing_validate_package_list: unable to obtain public key location");
            _signing_set_optional_prerequisite_status(session, 4);
            return "";
        }
    }
    if (_signing_is_valid_key(key) == 1) {
        print_log("signing_validate_package_list: public key is not valid");
        _signing_set_optional_prerequisite_status(session, 3);
        return "";
    }
    return key;
}

// Verifies the package of every available RPM component; true when all of them passed.
bool VerifyComponents(session_t* session, const std::string& key) {
    const TSD* data = session_get_tsd(session);
    if (data == nullptr) {
        // Without the session's product data nothing could be verified: that is no pass.
        print_log("signing_validate_package_list: the session holds no product data");
        return false;
    }
    const std::vector<Product*>& products = data->products();
    int total = 0;
    for (Product* product : products) total += static_cast<int>(product->components().size());
    if (total == 0) total = 1;

    int progress = 0;
    bool failed = false;
    for (Product* product : products) {
        for (Component* component : product->components()) {
            progress += 100;
            env_set_string(session, "operation_progress", inttostr(progress / total).c_str());
            const std::string path =
                expand_operand(session, component->packageFolder(), true) + "/" + component->packageFile();
            if (file_exists(path, false) == 0 || component->type() != "rpm") {
                print_log("signing_validate_package_list: component '%s' is not verified because it is not available",
                          component->id().c_str());
                continue;
            }
            RpmVerifyResult result = rpm_verify(path.c_str(), key.c_str());
            print_log("_signing_validate_file: signing validation result %d (0 is success) for %s package [%s]",
                      static_cast<int>(result.status), path.c_str(), result.message);
            if (result.message != kInternalError) {
                std::free(result.message);
            }
            failed = failed || result.status != RPM_STATUS_SIGNED;
        }
    }
    return !failed;
}

}  // namespace

int signing_validate_package_list(session_t* session) {
    // Nothing may leave towards the host: an unexpected failure ends the check as failed.
    try {
        if (session == nullptr) {
            print_log("signing_validate_package_list: no session was given");
            return 1;
        }
        print_log("signing_validate_package_list: started");
        env_set_string(session, "operation_progress", "0");
        const std::string key = SelectKey(session);
        if (key.empty()) {
            return 1;
        }
        if (VerifyComponents(session, key)) {
            print_log("signing_validate_package_list: finished");
            return 0;
        }
        const std::string significance = env_get_string(session, kSignificance) + ";1";
        print_log("signing_validate_package_list: %s", significance.c_str());
        env_set_string(session, kSignificance, significance.c_str());
        env_set_string(session, kShortDesc,
                       (env_get_string(session, kShortDesc) + ";SIGNING_prereq_err_signing_check_short_desc").c_str());
        env_set_string(session, kFullDesc,
                       (env_get_string(session, kFullDesc) + ";SIGNING_prereq_err_signing_check_full_desc").c_str());
        print_log("signing_validate_package_list: finished");
        return 1;
    } catch (const std::exception& e) {
        print_log("signing_validate_package_list: check failed: %s", e.what());
    } catch (...) {
        print_log("signing_validate_package_list: check failed");
    }
    return 1;
}
