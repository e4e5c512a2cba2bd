#pragma once
// The module's exported entry points (declared in the public header the hosts include) and the
// internal steps behind them, for the module's own code, tools and tests.
#include <string>

#include "signing/signing.h"

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
int _signing_run_command(const std::string& command, const SigningDownloadLimits& limits, bool* stopped = nullptr);
// Adds a warning entry about the key to the session's prerequisite lists: code 4 selects the
// "download" message keys, every other code the "validate" keys.
void _signing_set_optional_prerequisite_status(session_t* session, int code);

// status with a malloc-ed copy of text.
RpmVerifyResult response(RPM_STATUS status, const std::string& text);
// The status and message of a signer's result for file (0 not signed, 1 signed, 2 invalid signature,
// 3 invalid hash, 4 invalid structure, 5 internal error; any other result is "Unknown error").
RpmVerifyResult rpm_result_response(int processingResult, const std::string& file);
