#include "rpmutil.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <vector>

#include "CurrentVerification.h"
#include "Exceptions.h"
#include "OpenPgpKeyring.h"
#include "PackageFile.h"
#include "PgpKey.h"
#include "ProcessingResult.h"
#include "RpmPackage.h"
#include "RpmReport.h"
#include "VerifyReason.h"
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
RpmVerifyResult Verify(const std::string& file, KeyFileBytes& key, RpmReport& report, bool recordChecks,
                       SigningPolicy policy) {
    std::unique_ptr<PackageFile> package;
    try {
        report.stage = RpmStage::Unreadable;
        package = std::make_unique<PackageFile>(file);
    } catch (const std::exception& e) {
        return response(RPM_STATUS_ERROR, e.what());
    }
    if (!package->IsRpm(PolicyOf(policy).reader)) {
        report.stage = RpmStage::NotRpm;
        return response(RPM_STATUS_ERROR, file + " is not an RPM file.");
    }
    report.stage = RpmStage::Failed;
    int result = ResultInternalError;
    try {
        result = PolicyOf(policy).verify(*package, key, report.detail, recordChecks ? &report.checks : nullptr);
    } catch (const std::exception& e) {
        return response(RPM_STATUS_ERROR, "Could not verify " + file + " with key " + key.Name() + " - " + e.what());
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

// key is the key file's path, or null where keyBytes holds the key file as a value.
RpmVerifyResult VerifyEntry(const char* file, const char* key, const KeyBytes* keyBytes, RpmReport& report,
                            bool recordChecks, SigningPolicy policy) {
    report = RpmReport();
    // Nothing may leave towards the host: every failure becomes status 5 with its reason.
    try {
        if (file == nullptr || (key == nullptr && keyBytes == nullptr)) {
            return response(RPM_STATUS_ERROR, file == nullptr ? "rpm_verify: no package file was given"
                                                              : "rpm_verify: no key file was given");
        }
        try {
            KeyFileBytes keyFile =
                keyBytes != nullptr ? KeyFileBytes(keyBytes->name, keyBytes->bytes) : KeyFileBytes(key);
            return Verify(file, keyFile, report, recordChecks, policy);
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
    return VerifyEntry(file, key, nullptr, report, true, policy);
}

RpmVerifyResult rpm_verify_report(const char* file, const KeyBytes& key, RpmReport& report, SigningPolicy policy) {
    return VerifyEntry(file, nullptr, &key, report, true, policy);
}

RpmVerifyResult rpm_verify_detailed(const char* file, const char* key, std::string& detail, SigningPolicy policy) {
    RpmReport report;
    const RpmVerifyResult result = VerifyEntry(file, key, nullptr, report, false, policy);
    detail = std::move(report.detail);
    return result;
}

RpmVerifyResult rpm_verify(const char* file, const char* key) {
    std::string detail;
    return rpm_verify_detailed(file, key, detail);
}

void rpm_free_message(char* message) {
    if (message != kInternalError) std::free(message);
}

// ---------------------------------------------------------------------------------------------
// The verification interface with a policy, a key set and reason codes

namespace {

SigningVerifyResult Answer(const RpmVerifyResult& result, SIGNING_REASON reason) {
    return SigningVerifyResult{result.status, reason, result.message};
}

SigningVerifyResult Answer(RPM_STATUS status, SIGNING_REASON reason, const std::string& text) {
    return Answer(response(status, text), reason);
}

// The package judged with one key file, as rpm_verify judges it, and why.
SigningVerifyResult VerifyWithKeyFile(const char* file, const char* key, SigningPolicy policy) {
    RpmReport report;
    const RpmVerifyResult result = VerifyEntry(file, key, nullptr, report, true, policy);
    KeyFileBytes keyFile(key);
    return Answer(result, ReasonOf(file, report, keyFile, policy));
}

// Classic: each key file as the installer uses it; the first that signs the package, else the first's.
SigningVerifyResult VerifyClassic(const char* file, const char* const* keys, size_t count) {
    SigningVerifyResult first = VerifyWithKeyFile(file, keys[0], SigningPolicy::Classic);
    for (size_t i = 1; i < count && first.status != RPM_STATUS_SIGNED; ++i) {
        SigningVerifyResult next = VerifyWithKeyFile(file, keys[i], SigningPolicy::Classic);
        if (next.status != RPM_STATUS_SIGNED) {
            rpm_free_message(next.message);
            continue;
        }
        rpm_free_message(first.message);
        first = next;
    }
    return first;
}

// Current: one keyring of every key block of every file; a file that cannot be used fails the call.
SigningVerifyResult VerifyCurrent(const char* file, const char* const* keys, size_t count) {
    if (count == 1) return VerifyWithKeyFile(file, keys[0], SigningPolicy::Current);
    KeyBytes keyring{"the keys given", {}};
    for (size_t i = 0; i < count; ++i) {
        KeyFileBytes keyFile(keys[i]);
        std::vector<std::vector<unsigned char>> blocks;
        try {
            const std::vector<char>& bytes = keyFile.Bytes();
            blocks = OpenPgpKeyring::SplitKeys(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
            OpenPgpKeyring::Parse(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
        } catch (const std::exception& e) {
            RpmReport failed;
            failed.stage = RpmStage::Failed;
            return Answer(RPM_STATUS_ERROR, ReasonOf(file, failed, keyFile, SigningPolicy::Current),
                          std::string("Could not verify ") + file + " with key " + keys[i] + " - " + e.what());
        }
        for (const auto& block : blocks) keyring.bytes.insert(keyring.bytes.end(), block.begin(), block.end());
    }
    RpmReport report;
    const RpmVerifyResult result = VerifyEntry(file, nullptr, &keyring, report, true, SigningPolicy::Current);
    KeyFileBytes keyFile(keyring.name, keyring.bytes);
    return Answer(result, ReasonOf(file, report, keyFile, SigningPolicy::Current));
}

}  // namespace

SigningVerifyResult signing_verify(const char* file, const char* const* keys, size_t key_count, SIGNING_POLICY policy) {
    try {
        if (file == nullptr)
            return Answer(RPM_STATUS_ERROR, SIGNING_REASON_INVALID_ARGUMENT,
                          "signing_verify: no package file was given");
        if (keys == nullptr || key_count == 0 || std::find(keys, keys + key_count, nullptr) != keys + key_count) {
            return Answer(RPM_STATUS_ERROR, SIGNING_REASON_INVALID_ARGUMENT, "signing_verify: no key file was given");
        }
        switch (policy) {
            case SIGNING_POLICY_CLASSIC: return VerifyClassic(file, keys, key_count);
            case SIGNING_POLICY_CURRENT: return VerifyCurrent(file, keys, key_count);
            default:
                return Answer(RPM_STATUS_ERROR, SIGNING_REASON_INVALID_ARGUMENT,
                              "signing_verify: unknown policy " + std::to_string(policy));
        }
    } catch (...) {
        return SigningVerifyResult{RPM_STATUS_ERROR, SIGNING_REASON_DAMAGED, kInternalError};
    }
}

void signing_result_free(SigningVerifyResult* result) {
    if (result == nullptr) return;
    rpm_free_message(result->message);
    result->message = nullptr;
}

const char* signing_reason_name(SIGNING_REASON reason) {
    return ReasonName(reason);
}

const char* signing_version(void) {
    return SIGNING_MODULE_VERSION;
}

int32_t signing_api_version(void) {
    return SIGNING_API_VERSION;
}

OpenPgpPublicKey rpm_key_of(const char* data, size_t length) {
    const std::unique_ptr<PgpKey> key = PgpKey::Parse(data, static_cast<unsigned int>(length));
    if (key->Public().keyId.empty()) {
        throw DataFormatException("The PGP certificate holds no signature packet that names its key");
    }
    return key->Public();
}

std::vector<char> rpm_read_key_file(const std::string& path) {
    return PgpKey::ReadFile(path);
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

}  // namespace

void _signing_set_optional_prerequisite_status(session_t* session, int code) {
    const std::string significance = env_get_string(session, kSignificance) + ";0";
    print_log("_signing_set_optional_prerequisite_status: %s", LogText(significance).c_str());
    env_set_string(session, kSignificance, significance.c_str());
    // Only the "validate" and "download" keys are ever selected; the "file" keys stay unused.
    const int index = code == 4 ? 1 : 0;
    env_set_string(session, kShortDesc, (env_get_string(session, kShortDesc) + kWarningShortKeys[index]).c_str());
    env_set_string(session, kFullDesc, (env_get_string(session, kFullDesc) + kWarningFullKeys[index]).c_str());
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

// Status 5 says only that the verification could not finish: the line after it says why.
void LogErrorReason(const std::string& path, const std::string& key, const RpmReport& report, SigningPolicy policy) {
    KeyFileBytes keyFile(key);
    const SIGNING_REASON reason = ReasonOf(path, report, keyFile, policy);
    const std::string detail = report.detail.empty() ? "" : " (" + report.detail + ")";
    print_log("_signing_validate_file: reason for %s: %s%s", LogText(path).c_str(), ReasonName(reason),
              LogText(detail).c_str());
}

// A check that verified no package passes, as it always has; the log says so, and what the module
// was shown: a host whose C++ library differs from the module's (a host built with
// -D_GLIBCXX_DEBUG, for one) hands over product lists that the module reads as empty.
void LogNothingVerified(size_t products, int components) {
    print_log(
        "signing_validate_package_list: no RPM package was verified: the session shows %s product(s) "
        "with %s component(s), none of them an available RPM package",
        inttostr(static_cast<long long>(products)).c_str(), inttostr(components).c_str());
}

// A session variable that turns something on: "1", "yes", "true" or "on", in any case.
bool SessionSwitch(session_t* session, const char* name) {
    std::string value = env_get_string(session, name);
    std::transform(value.begin(), value.end(), value.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return value == "1" || value == "yes" || value == "true" || value == "on";
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
    int components = 0;
    for (Product* product : products) components += static_cast<int>(product->components().size());
    const int total = components == 0 ? 1 : components;

    int progress = 0;
    int verified = 0;
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
            RpmReport report;
            RpmVerifyResult result = VerifyEntry(path.c_str(), key.c_str(), nullptr, report, false, policy);
            print_log("_signing_validate_file: signing validation result %d (0 is success) for %s package [%s]",
                      static_cast<int>(result.status), LogText(path).c_str(), LogText(result.message).c_str());
            rpm_free_message(result.message);
            if (result.status == RPM_STATUS_ERROR) LogErrorReason(path, key, report, policy);
            failed = failed || result.status != RPM_STATUS_SIGNED;
            ++verified;
        }
    }
    if (verified == 0) LogNothingVerified(products.size(), components);
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
        acquisition.policy = policy;
        acquisition.httpsOnly = SessionSwitch(session, "SIGNING_REQUIRE_HTTPS");
        acquisition.pins = KeyPins::Parse(env_get_string(session, "SIGNING_KEY_FINGERPRINTS"));
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
