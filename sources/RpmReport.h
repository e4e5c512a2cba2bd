#pragma once
// What the verification of one package found, check by check, for the module's own tools: the
// verdict of rpm_verify comes with the checks that led to it, each made by the same code that
// decides the verdict. Nothing here is exported to a host.
#include <string>
#include <vector>

#include "OpenPgpKey.h"
#include "RpmCheck.h"
#include "SigningPolicy.h"
#include "signing/signing.h"

// How far the verification of a package got.
enum class RpmStage {
    NotStarted,  // no file or no key was given
    Unreadable,  // the package file could not be opened
    NotRpm,      // the file does not begin like an RPM package
    Failed,      // reading the package or the key failed: reason in detail
    Checked,     // the checks ran: result holds their ProcessingResult
};

struct RpmReport {
    RpmStage stage = RpmStage::NotStarted;
    int result = -1;     // the signer's ProcessingResult once the package was processed
    std::string detail;  // the signer's own reason, when it gave one
    std::vector<RpmCheck> checks;
};

// rpm_verify, reporting every check it made (report is reset first).
RpmVerifyResult rpm_verify_report(const char* file, const char* key, RpmReport& report,
                                  SigningPolicy policy = SigningPolicy::Classic);

// A key file as a value: its bytes, and the name messages give it (its path, or what stands for one).
struct KeyBytes {
    std::string name;
    std::vector<char> bytes;
};
// The same with the key file given as a value: nothing is read from a path for the key.
RpmVerifyResult rpm_verify_report(const char* file, const KeyBytes& key, RpmReport& report,
                                  SigningPolicy policy = SigningPolicy::Classic);

// The public key of a key block in memory as the classic verification reads it. The key ID is the issuer of the key
// block's last signature packet, the identity signatures are matched against. Throws the loader's exception when the
// key cannot be read; a block without a signature packet that names its key is a DataFormatException.
OpenPgpPublicKey rpm_key_of(const char* data, size_t length);
// The bytes of a key file as verification reads them.
std::vector<char> rpm_read_key_file(const std::string& path);
