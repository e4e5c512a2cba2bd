#pragma once
// The module's exported entry points (declared in the public header the hosts include) and the
// internal steps behind them, for the module's own code, tools and tests.
#include <string>

#include "signing/signing.h"

// How packages are judged. Classic: the verdicts rpm_verify has always given (the exports keep it).
// Current: a package is signed exactly when rpm 4.18's rpmkeys --checksig would say "digests
// signatures OK" with that key file (CurrentVerification.h).
enum class SigningPolicy { Classic, Current };
// The policy a name gives ("classic" or "current"); false for any other name.
bool ParseSigningPolicy(const std::string& name, SigningPolicy& policy);

// rpm_verify, also handing back the signer's own reason (empty when the signer was not reached or
// gave none), under policy. For the module's tools; not exported.
RpmVerifyResult rpm_verify_detailed(const char* file, const char* key, std::string& detail,
                                    SigningPolicy policy = SigningPolicy::Classic);

// The steps of the prerequisite check (not exported).

// How long the key acquisition of one check may take in all, and how many bytes each download
// attempt may write.
struct SigningDownloadLimits {
    unsigned int seconds;
    unsigned long long bytes;
};
// The limits of every check: 30 seconds and 1 MiB.
SigningDownloadLimits _signing_download_limits();

// One key acquisition of a check: the deadline that every download attempt of both key lookups
// shares, the folders of its own that it made inside shared sticky temp folders (removed, with what
// they hold, when the acquisition ends), and why the last lookup gave no key.
class KeyAcquisition {
public:
    explicit KeyAcquisition(const SigningDownloadLimits& limits);
    ~KeyAcquisition();
    KeyAcquisition(const KeyAcquisition&) = delete;
    KeyAcquisition& operator=(const KeyAcquisition&) = delete;

    const SigningDownloadLimits& Limits() const { return limits_; }
    // Milliseconds left before the deadline; 0 once it has passed.
    long long RemainingMilliseconds() const;
    // Where the download of outputFile (FOLDER/NAME) writes: NAME in the real path of FOLDER when
    // that is a folder of the running user that nobody else can write to; NAME in a private folder
    // (mode 0700) made inside FOLDER when FOLDER is a shared sticky folder such as /tmp. Every folder
    // above the real path must be steady (root's or the user's, not writable by others unless sticky).
    // Empty when neither holds; the reason is logged.
    std::string DownloadPath(const std::string& outputFile);

    // Why the last key lookup gave no key ("" when it gave one), for the check's log.
    std::string failure;

private:
    SigningDownloadLimits limits_;
    long long deadline_;
    std::string sharedFolder_, ownFolder_;
};

// The key path: the session's "signature" value, else a key downloaded from the key service within
// the acquisition's deadline; empty when none could be obtained.
std::string _signing_get_public_key(session_t* session, KeyAcquisition& acquisition);
// The wget (preferred) or curl command that downloads url into outputFile; empty when neither tool
// is installed, when url or outputFile holds a character outside [A-Za-z0-9-._~:/?#@%+,=], when url
// does not begin with "http://" or "https://", when outputFile is not absolute, when its folder is
// neither private nor shared and sticky (KeyAcquisition::DownloadPath), or when the command would not
// fit in 4095 bytes. On success outputFile becomes the path the command writes.
std::string _signing_get_command(const std::string& url, std::string& outputFile, KeyAcquisition& acquisition);
// 0 when the key file is a regular file of at most SigningDownloadLimits().bytes bytes and no line
// of it holds "http://", 1 otherwise.
int _signing_is_valid_key(const std::string& path);
// The key the check verifies with (logged with why it was chosen), or empty after a warning entry.
std::string SelectSigningKey(session_t* session, KeyAcquisition& acquisition);

// Runs command with /bin/sh -f -c (no pathname expansion) in a process group of its own, its file
// size limited to bytes, HOME set to home (unless empty), and kills the group when it runs past
// milliseconds (then *stopped is true). Returns the wait status (as pclose would), or -1 when the
// command could not be run or waited for.
int _signing_run_command(const std::string& command, long long milliseconds, unsigned long long bytes,
                         const std::string& home, bool* stopped = nullptr);
// A session value as it goes into a log line: control characters are written escaped ("\n",
// "\x1b"), so one line stays one line.
std::string LogText(const std::string& value);
// Adds a warning entry about the key to the session's prerequisite lists: code 4 selects the
// "download" message keys, every other code the "validate" keys.
void _signing_set_optional_prerequisite_status(session_t* session, int code);

// status with a malloc-ed copy of text.
RpmVerifyResult response(RPM_STATUS status, const std::string& text);
// The status and message of a signer's result for file (0 not signed, 1 signed, 2 invalid signature,
// 3 invalid hash, 4 invalid structure, 5 internal error; any other result is "Unknown error").
RpmVerifyResult rpm_result_response(int processingResult, const std::string& file);
