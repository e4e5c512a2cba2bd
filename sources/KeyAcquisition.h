#pragma once
// The key a prerequisite check verifies with: the one the session names, or one downloaded from the
// key service into the session's temp folder within a deadline, screened before it is used.
#include <string>

#include "KeyPinning.h"
#include "SigningPolicy.h"
#include "signing/signing.h"

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
    // The policy whose key reader screens a downloaded key (the packages are verified under it).
    SigningPolicy policy = SigningPolicy::Classic;
    // The session's "SIGNING_REQUIRE_HTTPS": no download from an http:// address, and no redirect
    // to one (wget then follows no redirect, curl https ones only).
    bool httpsOnly = false;
    // The session's "SIGNING_KEY_FINGERPRINTS": when set, a key file is used only when every primary
    // key it holds is pinned there.
    KeyPins pins;

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
