#include "rpmutil.h"

#include <dirent.h>
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
#include <vector>

#include "CurrentVerification.h"
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
RpmVerifyResult Verify(const std::string& file, const std::string& key, RpmReport& report, bool recordChecks,
                       SigningPolicy policy) {
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
        std::vector<RpmCheck>* checks = recordChecks ? &report.checks : nullptr;
        result = policy == SigningPolicy::Current ? VerifyPackageCurrent(file, key, report.detail, checks)
                                                  : VerifyPackage(*package, keyFile, report.detail, checks);
    } catch (const std::exception& e) {
        return response(RPM_STATUS_ERROR, "Could not verify " + file + " with key " + key + " - " + e.what());
    }
    package.reset();
    if (result != ResultInternalError) report.stage = RpmStage::Checked;
    report.result = result;
    return rpm_result_response(result, file);
}

}  // namespace

bool ParseSigningPolicy(const std::string& name, SigningPolicy& policy) {
    if (name == "classic") {
        policy = SigningPolicy::Classic;
    } else if (name == "current") {
        policy = SigningPolicy::Current;
    } else {
        return false;
    }
    return true;
}

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

RpmVerifyResult VerifyEntry(const char* file, const char* key, RpmReport& report, bool recordChecks,
                            SigningPolicy policy) {
    report = RpmReport();
    // Nothing may leave towards the host: every failure becomes status 5 with its reason.
    try {
        if (file == nullptr || key == nullptr) {
            return response(RPM_STATUS_ERROR, file == nullptr ? "rpm_verify: no package file was given"
                                                              : "rpm_verify: no key file was given");
        }
        try {
            return Verify(file, key, report, recordChecks, policy);
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

RpmVerifyResult rpm_verify_report(const char* file, const char* key, RpmReport& report, SigningPolicy policy) {
    return VerifyEntry(file, key, report, true, policy);
}

RpmVerifyResult rpm_verify_detailed(const char* file, const char* key, std::string& detail, SigningPolicy policy) {
    RpmReport report;
    const RpmVerifyResult result = VerifyEntry(file, key, report, false, policy);
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
// protocol options logged with each attempt. A command holds at most kCommandBufferSize - 1 bytes.
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
// The private folder made inside a shared sticky temp folder; mkdtemp fills in the X's.
const char kOwnFolderPattern[] = "/signing-XXXXXX";

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

// A folder of the running user that nobody else may write to.
bool IsPrivateFolder(const struct stat& status) {
    return S_ISDIR(status.st_mode) && status.st_uid == geteuid() && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

// A steady folder that others may write to: its sticky bit keeps them from what is not theirs.
bool IsSharedStickyFolder(const struct stat& status) {
    return IsSteadyFolder(status) && (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

// The real path of folder (no link, no "." or ".." in it), empty when it cannot be resolved.
std::string RealPath(const std::string& folder) {
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(folder.c_str(), nullptr), &std::free);
    return real == nullptr ? "" : real.get();
}

// Whether every folder above the real path realFolder is steady: then nobody else can rename any of
// them away and put another in its place.
bool AreFoldersAboveSteady(const std::string& realFolder) {
    for (size_t slash = realFolder.find_last_of('/'); slash != std::string::npos;
         slash = slash == 0 ? std::string::npos : realFolder.find_last_of('/', slash - 1)) {
        const std::string above = slash == 0 ? "/" : realFolder.substr(0, slash);
        struct stat status;
        if (lstat(above.c_str(), &status) != 0 || !IsSteadyFolder(status)) return false;
    }
    return true;
}

// The folder part of a path ("/" for a file at the root).
std::string FolderOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? "" : slash == 0 ? "/" : path.substr(0, slash);
}

std::string JoinPath(const std::string& folder, const std::string& name) {
    return folder == "/" ? "/" + name : folder + "/" + name;
}

// Removes folder and the files in it (a download leaves files only; nothing below is followed).
bool RemoveOwnFolder(const std::string& folder) {
    struct CloseListing {
        void operator()(DIR* listing) const { closedir(listing); }
    };
    const std::unique_ptr<DIR, CloseListing> listing(opendir(folder.c_str()));
    if (listing != nullptr) {
        const int descriptor = dirfd(listing.get());
        while (const struct dirent* entry = readdir(listing.get())) {
            if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
            if (unlinkat(descriptor, entry->d_name, 0) != 0 && errno == EISDIR) {
                unlinkat(descriptor, entry->d_name, AT_REMOVEDIR);
            }
        }
    }
    return rmdir(folder.c_str()) == 0;
}

// A regular file of the running user of at most limit bytes (links are not followed).
bool IsOwnRegularFile(const std::string& path, unsigned long long limit) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid() &&
           static_cast<unsigned long long>(status.st_size) <= limit;
}

// Whether the downloaded file at path holds an OpenPGP public key (armored or binary) that the
// module's own reader takes; otherwise reason says why not.
bool ReadsAsPublicKey(const std::string& path, std::string& reason) {
    try {
        const std::vector<char> bytes = PgpKey::ReadFile(path);
        PgpKey::Parse(bytes.data(), static_cast<unsigned int>(bytes.size()));
        return true;
    } catch (const std::exception& e) {
        reason = e.what();
    }
    return false;
}

// Whether some line of the file at path holds "http://": the key screen refuses such a file.
bool HoldsAddress(const std::string& path) {
    for (const std::string& line : readContentOfTextFile(path)) {
        if (line.find("http://") != std::string::npos) return true;
    }
    return false;
}

// Whether the tool may be run on url and outputFile; logs why not. Another scheme, or an address
// that would reach the tool as an option ("--config=...", "-K ..."), is refused, and so is a path
// that is not absolute ("~" and "#" mean something to the shell).
bool IsSafeDownload(const std::string& url, const std::string& outputFile) {
    if (!StartsWith(url, "http://") && !StartsWith(url, "https://")) {
        print_log(
            "_signing_get_command: refused to download from [%s]: the address must begin with http:// or https://",
            LogText(url).c_str());
        return false;
    }
    if (!StartsWith(outputFile, "/")) {
        print_log("_signing_get_command: refused to write to [%s]: the path must be absolute",
                  LogText(outputFile).c_str());
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

// Runs the download command up to three times within the acquisition's deadline; true when one run
// ended with status 0. Each run starts without a key file: one left by an earlier run (or planted)
// is removed first, so the tool never writes through a link.
bool CallWebService(const std::string& command, const std::string& outputFile, const KeyAcquisition& acquisition) {
    const SigningDownloadLimits& limits = acquisition.Limits();
    const char* protocol = "";
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        if (command.find("wget") != std::string::npos) {
            protocol = kWgetProtocols[attempt];
        } else if (command.find("curl") != std::string::npos) {
            protocol = kCurlProtocols[attempt];
        }
        const long long remaining = acquisition.RemainingMilliseconds();
        if (remaining <= 0) {
            print_log("_signing_call_webservice: no attempt is left: the key download may take %u seconds in all",
                      limits.seconds);
            return false;
        }
        // The protocol option is only logged: every attempt runs the same plain command.
        const std::string secureCommand = LogText(command + " " + protocol);
        print_log("signing_get_public_key: secure command   [%s]", secureCommand.c_str());
        print_log("signing_get_public_key: secure protocols [%s]", protocol);

        void* scratch = std::calloc(80, 1);
        if (scratch == nullptr) {
            print_log("_signing_call_webservice: unable to allocate memory");
            continue;
        }
        if (unlink(outputFile.c_str()) != 0 && errno != ENOENT) {
            print_log("_signing_call_webservice: unable to remove the earlier file [%s]: %s",
                      LogText(outputFile).c_str(), SystemErrorText(errno).c_str());
            std::free(scratch);
            continue;
        }
        bool stopped = false;
        const int status = _signing_run_command(command, remaining, limits.bytes, FolderOf(outputFile), &stopped);
        std::free(scratch);
        if (status == -1) {
            print_log("_signing_call_webservice: unable to execute command");
            continue;
        }
        if (stopped) {
            print_log(
                "_signing_call_webservice: web service call was stopped: the key download may take %u seconds "
                "in all",
                limits.seconds);
        }
        if (WIFSIGNALED(status)) {
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

namespace {

// The length of the UTF-8 sequence that starts text[at] (1 to 4), or 0 when the bytes there are not
// one (a stray continuation byte, an overlong form, a surrogate, a cut sequence).
size_t Utf8SequenceLength(const std::string& text, size_t at, unsigned long& codePoint) {
    const auto byte = [&text](size_t index) { return static_cast<unsigned char>(text[index]); };
    const unsigned char lead = byte(at);
    size_t length = 0;
    unsigned long lowest = 0;
    if (lead >= 0xc2 && lead <= 0xdf) {
        length = 2, lowest = 0x80, codePoint = lead & 0x1fu;
    } else if (lead >= 0xe0 && lead <= 0xef) {
        length = 3, lowest = 0x800, codePoint = lead & 0x0fu;
    } else if (lead >= 0xf0 && lead <= 0xf4) {
        length = 4, lowest = 0x10000, codePoint = lead & 0x07u;
    } else {
        return 0;
    }
    if (text.size() - at < length) return 0;
    for (size_t next = 1; next < length; ++next) {
        if ((byte(at + next) & 0xc0u) != 0x80) return 0;
        codePoint = (codePoint << 6) | (byte(at + next) & 0x3fu);
    }
    const bool surrogate = codePoint >= 0xd800 && codePoint <= 0xdfff;
    return codePoint < lowest || codePoint > 0x10ffff || surrogate ? 0 : length;
}

}  // namespace

std::string LogText(const std::string& value) {
    static const char kHex[] = "0123456789abcdef";
    std::string text;
    text.reserve(value.size());
    auto escape = [&text](unsigned char octet) {
        switch (octet) {
            case '\n': text += "\\n"; break;
            case '\r': text += "\\r"; break;
            case '\t': text += "\\t"; break;
            default: text += {'\\', 'x', kHex[octet >> 4], kHex[octet & 0x0f]};
        }
    };
    for (size_t at = 0; at < value.size();) {
        const auto octet = static_cast<unsigned char>(value[at]);
        if (octet < 0x80) {
            // C0 controls and DEL escaped, the rest of ASCII as it is.
            if (octet < 0x20 || octet == 0x7f) {
                escape(octet);
            } else {
                text += value[at];
            }
            ++at;
            continue;
        }
        // Beyond ASCII: UTF-8 text as it is, except the C1 controls (U+0080..U+009F, NEL and CSI
        // among them) and the line and paragraph separators; every other byte escaped.
        unsigned long codePoint = 0;
        const size_t length = Utf8SequenceLength(value, at, codePoint);
        const bool control = (codePoint >= 0x80 && codePoint <= 0x9f) || codePoint == 0x2028 || codePoint == 0x2029;
        if (length == 0 || control) {
            for (size_t end = at + (length == 0 ? 1 : length); at < end; ++at) {
                escape(static_cast<unsigned char>(value[at]));
            }
        } else {
            text.append(value, at, length);
            at += length;
        }
    }
    return text;
}

KeyAcquisition::KeyAcquisition(const SigningDownloadLimits& limits)
    : limits_(limits), deadline_(MonotonicMilliseconds() + 1000LL * limits.seconds) {}

KeyAcquisition::~KeyAcquisition() {
    if (!ownFolder_.empty() && !RemoveOwnFolder(ownFolder_)) {
        print_log("signing_validate_package_list: unable to remove the private folder [%s]: %s",
                  LogText(ownFolder_).c_str(), SystemErrorText(errno).c_str());
    }
}

long long KeyAcquisition::RemainingMilliseconds() const {
    const long long remaining = deadline_ - MonotonicMilliseconds();
    return remaining > 0 ? remaining : 0;
}

std::string KeyAcquisition::DownloadPath(const std::string& outputFile) {
    const std::string folder = RealPath(FolderOf(outputFile)), name = outputFile.substr(outputFile.rfind('/') + 1);
    if (folder == "/") {
        // An empty TEMP_FOLDER leads here too: the root of the file system is no temp folder.
        print_log("_signing_get_command: refused to write to [%s]: the root folder is no temp folder",
                  LogText(outputFile).c_str());
        return "";
    }
    struct stat status;
    const bool known = !folder.empty() && lstat(folder.c_str(), &status) == 0 && AreFoldersAboveSteady(folder);
    if (known && IsPrivateFolder(status)) {
        return JoinPath(folder, name);
    }
    if (known && IsSharedStickyFolder(status)) {
        // One private folder per shared folder serves both key lookups of the check.
        if (sharedFolder_ != folder) {
            if (!ownFolder_.empty()) RemoveOwnFolder(ownFolder_);
            ownFolder_.clear();
            std::string pattern = folder + kOwnFolderPattern;
            if (mkdtemp(&pattern[0]) == nullptr) {
                print_log("_signing_get_command: unable to make a private folder in [%s]: %s", LogText(folder).c_str(),
                          SystemErrorText(errno).c_str());
                return "";
            }
            sharedFolder_ = folder, ownFolder_ = pattern;
        }
        return JoinPath(ownFolder_, name);
    }
    print_log(
        "_signing_get_command: refused to write to [%s]: its folder must belong to this user and be writable by "
        "nobody else",
        LogText(outputFile).c_str());
    return "";
}

int _signing_run_command(const std::string& command, long long milliseconds, unsigned long long bytes,
                         const std::string& home, bool* stopped) {
    if (stopped != nullptr) *stopped = false;
    // Everything the child needs is prepared before fork: between fork and exec it only makes
    // calls that are safe there.
    const int devNull = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (devNull < 0) return -1;
    // -f: no pathname expansion. The "?" of the address ("?id=") or of a path would otherwise be
    // a pattern that files made by another user could match.
    const char* const arguments[] = {"sh", "-f", "-c", command.c_str(), nullptr};
    // The environment of this process, with HOME set to home: the tools keep their files there
    // (wget's HSTS list) and read no configuration of the user's (~/.wgetrc, ~/.curlrc).
    std::vector<std::string> variables;
    for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
        if (home.empty() || std::strncmp(*variable, "HOME=", 5) != 0) variables.emplace_back(*variable);
    }
    if (!home.empty()) variables.push_back("HOME=" + home);
    std::vector<const char*> environment;
    environment.reserve(variables.size() + 1);
    for (const std::string& variable : variables) environment.push_back(variable.c_str());
    environment.push_back(nullptr);
    const struct rlimit fileSize = {static_cast<rlim_t>(bytes), static_cast<rlim_t>(bytes)};
    const long long deadline = MonotonicMilliseconds() + milliseconds;
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
        execve("/bin/sh", const_cast<char* const*>(arguments), const_cast<char* const*>(environment.data()));
        _exit(127);
    }
    close(devNull);
    if (child < 0) return -1;
    setpgid(child, child);  // also here, so that the group exists whichever side runs first

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
    print_log("_signing_set_optional_prerequisite_status: %s", LogText(significance).c_str());
    env_set_string(session, kSignificance, significance.c_str());
    // Only the "validate" and "download" keys are ever selected; the "file" keys stay unused.
    const int index = code == 4 ? 1 : 0;
    env_set_string(session, kShortDesc, (env_get_string(session, kShortDesc) + kWarningShortKeys[index]).c_str());
    env_set_string(session, kFullDesc, (env_get_string(session, kFullDesc) + kWarningFullKeys[index]).c_str());
}

std::string _signing_get_command(const std::string& url, std::string& outputFile, KeyAcquisition& acquisition) {
    if (!IsSafeForShell(url) || !IsSafeForShell(outputFile)) {
        print_log("_signing_get_command: refused to build a command from unsafe characters in [%s] or [%s]",
                  LogText(url).c_str(), LogText(outputFile).c_str());
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
            // The path checked is the path written: the real one, or one in a private folder.
            const std::string written = acquisition.DownloadPath(outputFile);
            if (written.empty()) {
                return "";
            }
            if (!IsSafeForShell(written)) {
                print_log("_signing_get_command: refused to build a command from unsafe characters in [%s] or [%s]",
                          LogText(url).c_str(), LogText(written).c_str());
                return "";
            }
            const int length =
                std::snprintf(nullptr, 0, kTemplates[tool], kTimeoutSeconds, kTries, url.c_str(), written.c_str());
            if (length < 0 || static_cast<size_t>(length) >= kCommandBufferSize) {
                print_log("_signing_get_command: refused to build a command of %d bytes: a command holds at most %d",
                          length, static_cast<int>(kCommandBufferSize - 1));
                return "";
            }
            std::string command(static_cast<size_t>(length) + 1, '\0');
            static_cast<void>(std::snprintf(&command[0], command.size(), kTemplates[tool], kTimeoutSeconds, kTries,
                                            url.c_str(), written.c_str()));
            command.resize(static_cast<size_t>(length));
            outputFile = written;
            return command;
        }
    }
    return "";
}

std::string _signing_get_public_key(session_t* session, KeyAcquisition& acquisition) {
    const std::string defaultUrl = env_get_string(session, "SIGNING_DEFAULT_URL");
    const std::string configuredUrl = env_get_string(session, "signing_url");
    std::string signature = env_get_string(session, "signature");
    const std::string tempFolder = env_get_string(session, "TEMP_FOLDER");
    acquisition.failure.clear();
    if (!signature.empty()) {
        print_log("signing_get_public_key: public key specified by user %s", LogText(signature).c_str());
        return signature;
    }
    print_log("signing_get_public_key: public key will be downloaded from Tarvo");
    const std::string address = (configuredUrl.empty() ? defaultUrl : configuredUrl) + "?id=" + FindUpdateId(session);
    print_log("signing_get_public_key: request value [%s]", LogText(address).c_str());
    std::string outputFile = tempFolder + "/PUBLIC_KEY.PUB";
    const std::string command = _signing_get_command(address, outputFile, acquisition);
    if (command.empty()) {
        acquisition.failure = "no download command could be made";
        return "";
    }
    print_log("signing_get_public_key: command value [%s]", LogText(command).c_str());
    if (!CallWebService(command, outputFile, acquisition)) {
        acquisition.failure = "the key download failed";
        return "";
    }
    const unsigned long long limit = acquisition.Limits().bytes;
    if (!IsOwnRegularFile(outputFile, limit)) {
        print_log(
            "signing_get_public_key: refused the downloaded key [%s]: not a regular file of this user of at "
            "most %llu bytes",
            LogText(outputFile).c_str(), limit);
        acquisition.failure = "the downloaded file was refused";
        return "";
    }
    // An answer that is not a key (curl keeps an HTTP error page) fails like a download that failed.
    // A file that names an address goes on to the key screen, which has always refused it by name.
    std::string reason;
    if (!HoldsAddress(outputFile) && !ReadsAsPublicKey(outputFile, reason)) {
        print_log("signing_get_public_key: refused the downloaded key [%s]: it is not an OpenPGP public key (%s)",
                  LogText(outputFile).c_str(), LogText(reason).c_str());
        acquisition.failure = "the downloaded file is not an OpenPGP public key";
        return "";
    }
    print_log("signing_get_public_key: public key obtained successfully [%s]", LogText(outputFile).c_str());
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

std::string SelectSigningKey(session_t* session, KeyAcquisition& acquisition) {
    bool downloaded = env_get_string(session, "signature").empty();
    std::string key = _signing_get_public_key(session, acquisition);
    std::string why;  // why the first key was not used
    if (key.empty() || _signing_is_valid_key(key) == 1) {
        why = key.empty()  ? acquisition.failure
              : downloaded ? "the downloaded key is not valid"
                           : "the key specified by user is not usable";
        const std::string local = expand_operand(session, env_get_string(session, "SIGNING_LOCAL_PUBLIC_KEY"), true);
        env_set_string(session, "signature", local.c_str());
        key = _signing_get_public_key(session, acquisition);
        if (key.empty()) {
            print_log("signing_validate_package_list: unable to obtain public key location");
            _signing_set_optional_prerequisite_status(session, 4);
            return "";
        }
        downloaded = local.empty();  // without a local key the second lookup downloads
    }
    if (_signing_is_valid_key(key) == 1) {
        print_log("signing_validate_package_list: public key is not valid");
        _signing_set_optional_prerequisite_status(session, 3);
        return "";
    }
    const std::string path = LogText(key);
    if (downloaded && !why.empty()) {
        print_log(
            "signing_validate_package_list: packages are checked with the downloaded key [%s], no local key "
            "being set: %s",
            path.c_str(), why.c_str());
    } else if (downloaded) {
        print_log("signing_validate_package_list: packages are checked with the downloaded key [%s]", path.c_str());
    } else if (!why.empty()) {
        print_log("signing_validate_package_list: packages are checked with the local key [%s]: %s", path.c_str(),
                  why.c_str());
    } else {
        print_log("signing_validate_package_list: packages are checked with the key specified by user [%s]",
                  path.c_str());
    }
    return key;
}

namespace {

// The policy the session asks for in "signing_policy": "current", or the classic one (unset, empty or
// "classic"). Any other value is logged and the classic policy used: it takes no package the
// current one refuses for its signatures.
SigningPolicy SessionPolicy(session_t* session) {
    const std::string name = env_get_string(session, "signing_policy");
    SigningPolicy policy = SigningPolicy::Classic;
    if (!name.empty() && !ParseSigningPolicy(name, policy)) {
        print_log("signing_validate_package_list: unknown signing_policy [%s]: the classic policy is used",
                  LogText(name).c_str());
    } else if (policy == SigningPolicy::Current) {
        print_log("signing_validate_package_list: packages are verified under the current policy");
    }
    return policy;
}

// Verifies the package of every available RPM component; true when all of them passed.
bool VerifyComponents(session_t* session, const std::string& key, SigningPolicy policy) {
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
                          LogText(component->id()).c_str());
                continue;
            }
            std::string detail;
            RpmVerifyResult result = rpm_verify_detailed(path.c_str(), key.c_str(), detail, policy);
            print_log("_signing_validate_file: signing validation result %d (0 is success) for %s package [%s]",
                      static_cast<int>(result.status), LogText(path).c_str(), LogText(result.message).c_str());
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
        const SigningPolicy policy = SessionPolicy(session);
        // The acquisition, and the private folder it may have made for the key, ends with the check.
        KeyAcquisition acquisition(_signing_download_limits());
        const std::string key = SelectSigningKey(session, acquisition);
        if (key.empty()) {
            return 1;
        }
        if (VerifyComponents(session, key, policy)) {
            print_log("signing_validate_package_list: finished");
            return 0;
        }
        const std::string significance = env_get_string(session, kSignificance) + ";1";
        print_log("signing_validate_package_list: %s", LogText(significance).c_str());
        env_set_string(session, kSignificance, significance.c_str());
        env_set_string(session, kShortDesc,
                       (env_get_string(session, kShortDesc) + ";SIGNING_prereq_err_signing_check_short_desc").c_str());
        env_set_string(session, kFullDesc,
                       (env_get_string(session, kFullDesc) + ";SIGNING_prereq_err_signing_check_full_desc").c_str());
        print_log("signing_validate_package_list: finished");
        return 1;
    } catch (const std::exception& e) {
        print_log("signing_validate_package_list: check failed: %s", LogText(e.what()).c_str());
    } catch (...) {
        print_log("signing_validate_package_list: check failed");
    }
    return 1;
}
