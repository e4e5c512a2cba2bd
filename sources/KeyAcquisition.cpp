#include "KeyAcquisition.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <vector>

#include "FileHelper.h"
#include "LogText.h"
#include "OpenPgpKeyring.h"
#include "PgpKey.h"
#include "RunCommand.h"
#include "host.h"
#include "rpmutil.h"

namespace {

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
// With SIGNING_REQUIRE_HTTPS: wget has no option that keeps its redirects on https, so it follows
// none; curl follows those to https only.
const char* const kHttpsOnlyOptions[] = {"--max-redirect=0", "--proto =https --proto-redir =https"};
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

// Whether the downloaded file at path holds an OpenPGP public key (armored or binary) that the key
// reader of policy takes; otherwise reason says why not.
bool ReadsAsPublicKey(const std::string& path, SigningPolicy policy, std::string& reason) {
    try {
        if (policy == SigningPolicy::Current) {
            OpenPgpKeyring::ReadFile(path);
            return true;
        }
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

namespace {

// Runs the probe of a download tool (a fixed text: no input reaches it) and reads its output; the
// probe's wait status, or -2 when it could not be run or read (logged).
int ProbeStatus(const char* probe) {
    FILE* stream = popen(probe, "r");  // NOLINT(cert-env33-c)
    if (stream == nullptr) {
        print_log("_signing_get_command: unable to validate command to existance");
        return -2;
    }
    char chunk[64];
    bool readSomething = false;
    for (;;) {
        const ssize_t count = read(fileno(stream), chunk, sizeof chunk);
        if (count > 0) {
            readSomething = true;
            continue;
        }
        if (count < 0 && readSomething) {
            print_log("_signing_get_command: unable to read command output");
            pclose(stream);
            return -2;
        }
        break;
    }
    return pclose(stream);
}

// The command of the download tool whose template is given, writing to outputFile's checked path
// (outputFile then names it); "" when the download is refused.
std::string DownloadCommand(size_t tool, const std::string& address, std::string& outputFile,
                            KeyAcquisition& acquisition) {
    if (!IsSafeDownload(address, outputFile)) {
        return "";
    }
    if (acquisition.httpsOnly && !StartsWith(address, "https://")) {
        print_log(
            "_signing_get_command: refused to download from [%s]: the session accepts https:// addresses only "
            "(SIGNING_REQUIRE_HTTPS)",
            LogText(address).c_str());
        return "";
    }
    // The tool's options that keep a redirect from leaving https go before the address.
    const std::string url = acquisition.httpsOnly ? kHttpsOnlyOptions[tool] + (" " + address) : address;
    const char* const commandTemplate = kTemplates[tool];
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
        std::snprintf(nullptr, 0, commandTemplate, kTimeoutSeconds, kTries, url.c_str(), written.c_str());
    if (length < 0 || static_cast<size_t>(length) >= kCommandBufferSize) {
        print_log("_signing_get_command: refused to build a command of %d bytes: a command holds at most %d", length,
                  static_cast<int>(kCommandBufferSize - 1));
        return "";
    }
    std::string command(static_cast<size_t>(length) + 1, '\0');
    static_cast<void>(std::snprintf(&command[0], command.size(), commandTemplate, kTimeoutSeconds, kTries, url.c_str(),
                                    written.c_str()));
    command.resize(static_cast<size_t>(length));
    outputFile = written;
    return command;
}

}  // namespace

std::string _signing_get_command(const std::string& url, std::string& outputFile, KeyAcquisition& acquisition) {
    if (!IsSafeForShell(url) || !IsSafeForShell(outputFile)) {
        print_log("_signing_get_command: refused to build a command from unsafe characters in [%s] or [%s]",
                  LogText(url).c_str(), LogText(outputFile).c_str());
        return "";
    }
    for (size_t tool = 0; tool < 2; ++tool) {
        const int status = ProbeStatus(kProbes[tool]);
        if (status == -2) {
            return "";
        }
        if (status != -1 && WIFSIGNALED(status)) {
            print_log("_signing_get_command: signing command check failed by signal %d - %s.\n", WTERMSIG(status),
                      strsignal(WTERMSIG(status)));
            return "";
        }
        if (status == 0) {
            return DownloadCommand(tool, url, outputFile, acquisition);
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
    if (!HoldsAddress(outputFile) && !ReadsAsPublicKey(outputFile, acquisition.policy, reason)) {
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

namespace {

// The key screen, and then the session's list of accepted keys: a key outside it is logged and
// treated as a key that is not valid.
bool Unusable(const std::string& key, const KeyAcquisition& acquisition) {
    if (_signing_is_valid_key(key) == 1) return true;
    if (acquisition.pins.Empty()) return false;
    const std::string refusal = acquisition.pins.Refusal(key);
    if (refusal.empty()) return false;
    print_log("signing_validate_package_list: refused the key [%s] (SIGNING_KEY_FINGERPRINTS): %s",
              LogText(key).c_str(), LogText(refusal).c_str());
    return true;
}

}  // namespace

std::string SelectSigningKey(session_t* session, KeyAcquisition& acquisition) {
    bool downloaded = env_get_string(session, "signature").empty();
    std::string key = _signing_get_public_key(session, acquisition);
    std::string why;  // why the first key was not used
    if (key.empty() || Unusable(key, acquisition)) {
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
    if (Unusable(key, acquisition)) {
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
