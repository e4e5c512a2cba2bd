#include "VerifyReason.h"

#include <sys/stat.h>

#include <algorithm>
#include <exception>
#include <vector>

#include "OpenPgpKeyring.h"
#include "PgpKey.h"
#include "ProcessingResult.h"
#include "rpmutil.h"

namespace {

// The digest step's words when the crypto library will not make or start a digest: its
// configuration does not allow the algorithm (a FIPS configuration allows no MD5, and none at all
// when its provider is missing).
bool DigestRefused(const std::string& detail) {
    const auto holds = [&detail](const char* first, const char* then) {
        const size_t at = detail.find(first);
        return at != std::string::npos && detail.find(then, at) != std::string::npos;
    };
    return holds("Cannot initialize ", " digest context") || holds("Cannot create ", " digest type");
}

// Indexed by code: the names are rpm-verify's JSON reasons.
const char* const kReasonNames[] = {
    "signed",        "not-signed",      "not-trusted",       "header-only",    "eddsa-signature",  "wrong-key",
    "bad-signature", "digest-mismatch", "invalid-structure", "not-rpm",        "unreadable-file",  "too-large",
    "damaged",       "unreadable-key",  "unsupported-key",   "digest-refused", "invalid-argument",
};

// The classic reader takes packages under 2 GiB only: a larger one fails before its checks.
bool TooLargeForClassic(const std::string& file) {
    struct stat status;
    return stat(file.c_str(), &status) == 0 && static_cast<unsigned long long>(status.st_size) >= 0x80000000ull;
}

// A folder opens like a file and reads as one that is no RPM package: it is a file that cannot be read.
bool IsDirectory(const std::string& file) {
    struct stat status;
    return stat(file.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Whether the key file gives a key the policy can use (it can be read, and parsed under the policy's rule).
SIGNING_REASON KeyFault(KeyFileBytes& key, SigningPolicy policy) {
    std::vector<char> bytes;
    try {
        bytes = key.Bytes();
    } catch (const std::exception&) {
        return SIGNING_REASON_UNREADABLE_KEY;
    }
    try {
        if (policy == SigningPolicy::Current) {
            OpenPgpKeyring::Parse(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
        } else {
            rpm_key_of(bytes.data(), bytes.size());
        }
    } catch (const std::exception&) {
        return SIGNING_REASON_UNSUPPORTED_KEY;
    }
    return SIGNING_REASON_DAMAGED;
}

// The key ID that classic matches signatures against, or "" when the key cannot be read.
std::string ClassicKeyId(KeyFileBytes& key) {
    try {
        const std::vector<char>& bytes = key.Bytes();
        return rpm_key_of(bytes.data(), bytes.size()).keyId;
    } catch (const std::exception&) {
        return "";
    }
}

// A signature of the package that the current policy reads with EdDSA, among its checks under
// that policy (made here when the caller did not make them).
bool HasEdDsaSignature(const std::string& file, KeyFileBytes& key, const RpmReport* madeUnderCurrent) {
    RpmReport current;
    if (madeUnderCurrent == nullptr) {
        std::vector<char> bytes;
        try {
            bytes = key.Bytes();
        } catch (const std::exception&) {
            return false;
        }
        rpm_free_message(
            rpm_verify_report(file.c_str(), KeyBytes{key.Name(), bytes}, current, SigningPolicy::Current).message);
        madeUnderCurrent = &current;
    }
    return std::any_of(madeUnderCurrent->checks.begin(), madeUnderCurrent->checks.end(), [](const RpmCheck& check) {
        const bool signature = check.kind == RpmCheck::HeaderSignature || check.kind == RpmCheck::PackageSignature;
        return signature && check.state != RpmCheck::NotFound && check.label.find(" EdDSA/") != std::string::npos;
    });
}

}  // namespace

const char* ReasonName(SIGNING_REASON reason) {
    const size_t count = sizeof kReasonNames / sizeof kReasonNames[0];
    return reason >= 0 && static_cast<size_t>(reason) < count ? kReasonNames[reason] : "unknown";
}

SIGNING_REASON ReasonOf(const std::string& file, const RpmReport& report, KeyFileBytes& key, SigningPolicy policy,
                        const RpmReport* current) {
    switch (report.stage) {
        case RpmStage::NotStarted: return SIGNING_REASON_INVALID_ARGUMENT;
        case RpmStage::Unreadable: return SIGNING_REASON_UNREADABLE_FILE;
        case RpmStage::NotRpm: return IsDirectory(file) ? SIGNING_REASON_UNREADABLE_FILE : SIGNING_REASON_NOT_RPM;
        case RpmStage::Checked: break;
        case RpmStage::Failed:
            if (DigestRefused(report.detail)) return SIGNING_REASON_DIGEST_REFUSED;
            if (policy == SigningPolicy::Classic && TooLargeForClassic(file)) return SIGNING_REASON_TOO_LARGE;
            return KeyFault(key, policy);
    }
    const bool notTrusted = std::any_of(report.checks.begin(), report.checks.end(),
                                        [](const RpmCheck& check) { return check.state == RpmCheck::NotTrusted; });
    switch (report.result) {
        case ResultSigned: return SIGNING_REASON_SIGNED;
        case ResultNotSigned:
            if (notTrusted) return SIGNING_REASON_NOT_TRUSTED;
            if (policy == SigningPolicy::Classic && HasEdDsaSignature(file, key, current))
                return SIGNING_REASON_EDDSA_SIGNATURE;
            return SIGNING_REASON_NOT_SIGNED;
        case ResultHeaderOnlySigned: return SIGNING_REASON_HEADER_ONLY;
        case ResultInvalidHash: return SIGNING_REASON_DIGEST_MISMATCH;
        case ResultInvalidStructure: return SIGNING_REASON_INVALID_STRUCTURE;
        case ResultInvalidSignature: {
            // Another key's signature when no failed signature names the key given (under the current
            // policy: when none failed but for want of its key).
            const std::string keyId = policy == SigningPolicy::Classic ? ClassicKeyId(key) : "";
            for (const RpmCheck& check : report.checks) {
                if (check.state == RpmCheck::Bad && (policy == SigningPolicy::Current || check.keyId == keyId)) {
                    return SIGNING_REASON_BAD_SIGNATURE;
                }
            }
            return SIGNING_REASON_WRONG_KEY;
        }
        default: return SIGNING_REASON_DAMAGED;
    }
}
