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

// Verifies the signatures and digests of the package file against the OpenPGP public key in key.
SIGNING_EXPORT RpmVerifyResult rpm_verify(const char* file, const char* key);

// The characters a file path may consist of, as a regular expression; published for the host.
SIGNING_EXPORT extern const char* FILE_PATTERN;

}  // extern "C"

// rpm_verify, also handing back the signer's own reason (empty when the signer was not reached or
// gave none). For the module's tools; not exported.
RpmVerifyResult rpm_verify_detailed(const char* file, const char* key, std::string& detail);

// status with a malloc-ed copy of text.
RpmVerifyResult response(RPM_STATUS status, const std::string& text);
