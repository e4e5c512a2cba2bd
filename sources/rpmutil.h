#pragma once
// The module's exported entry points and what their callers need to call them.
#include <cstdint>
#include <string>

#define SIGNING_EXPORT __attribute__((visibility("default")))

extern "C" {

// The outcome of rpm_verify. Note that 0 and 1 are the other way round from ProcessingResult.
enum RPM_STATUS : int32_t {
    RPM_STATUS_SIGNED = 0,
    RPM_STATUS_NOT_SIGNED = 1,
    RPM_STATUS_INVALID_SIGNATURE = 2,
    RPM_STATUS_INVALID_HASH = 3,
    RPM_STATUS_INVALID_STRUCTURE = 4,
    RPM_STATUS_ERROR = 5,
};

// message is malloc-ed and released by the caller with free(), except for the static text
// "Internal error." that is returned when that allocation fails.
struct RpmVerifyResult {
    RPM_STATUS status;
    char* message;
};

struct session_t;

// The prerequisite check the host installer runs: obtains and screens the publisher's key, verifies
// the RPM package of every component of the session and reports the outcome through the session.
// Returns 0 when every available RPM package is signed and valid, 1 otherwise. Never throws.
SIGNING_EXPORT int signing_validate_package_list(session_t* session);

// Verifies the signatures and digests of the package file against the OpenPGP public key in key.
SIGNING_EXPORT RpmVerifyResult rpm_verify(const char* file, const char* key);

// The characters a file path may consist of, as a regular expression; published for the host.
SIGNING_EXPORT extern const char* FILE_PATTERN;

}  // extern "C"

// rpm_verify, also handing back the signer's own reason (empty when the signer was not reached or
// gave none). For the module's tools; not exported.
RpmVerifyResult rpm_verify_detailed(const char* file, const char* key, std::string& detail);

// The steps of the prerequisite check (not exported).
// The key path: the session's "signature" value, else a key downloaded from the key service into
// TEMP_FOLDER; empty when none could be obtained.
std::string _signing_get_public_key(session_t* session);
// The wget (preferred) or curl command that downloads url into outputFile; empty when neither tool
// is installed, when url or outputFile holds a character outside [A-Za-z0-9-._~:/?#@%+,=], when url
// does not begin with "http://" or "https://", when outputFile is not absolute, or when the folder
// of outputFile is not one that only the running user can write to.
std::string _signing_get_command(const std::string& url, const std::string& outputFile);
// 0 when the key file is a regular file of at most SigningDownloadLimits().bytes bytes and no line
// of it holds "http://", 1 otherwise.
int _signing_is_valid_key(const std::string& path);

// How long one download attempt may run and how many bytes it may write.
struct SigningDownloadLimits {
    unsigned int seconds;
    unsigned long long bytes;
};
// The limits of every download: 30 seconds and 1 MiB.
SigningDownloadLimits _signing_download_limits();
// Runs command with /bin/sh -f -c (no pathname expansion) in a process group of its own, its file size limited to
// limits.bytes, and kills the group when it runs past limits.seconds (then *stopped is true).
// Returns the wait status (as pclose would), or -1 when the command could not be run or waited for.
int _signing_run_command(const std::string& command, const SigningDownloadLimits& limits,
                         bool* stopped = nullptr);
// Adds a warning entry about the key to the session's prerequisite lists: code 4 selects the
// "download" message keys, every other code the "validate" keys.
void _signing_set_optional_prerequisite_status(session_t* session, int code);

// status with a malloc-ed copy of text.
RpmVerifyResult response(RPM_STATUS status, const std::string& text);
