// The plug-in module as a host sees it: loaded with dlopen, reached only through its exported names,
// its host functions resolved from this program, their types from the public header hosts include.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <set>

#include "../support/HostSupport.h"
#include "signing/signing.h"

TEST(PluginModule, ExportedNamesWorkThroughDlopen) {
    void* module = dlopen(SIGNING_MODULE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(module, nullptr) << dlerror();
    auto verify = reinterpret_cast<decltype(&rpm_verify)>(dlsym(module, "rpm_verify"));
    auto check =
        reinterpret_cast<decltype(&signing_validate_package_list)>(dlsym(module, "signing_validate_package_list"));
    auto pattern = static_cast<decltype(&FILE_PATTERN)>(dlsym(module, "FILE_PATTERN"));
    ASSERT_TRUE(verify != nullptr && check != nullptr && pattern != nullptr);
    EXPECT_STREQ(*pattern, "^[a-zA-Z0-9()+._ \\/\\-\\[\\]\\\\]*$");
    // Nothing but the exported names is reachable (nm checks the whole list; these are spot checks).
    EXPECT_EQ(dlsym(module, "_Z24_signing_download_limitsv"), nullptr);
    EXPECT_EQ(dlsym(module, "_Z41_signing_set_optional_prerequisite_statusP9session_ti"), nullptr);
    const std::string data = SIGNING_TEST_DATA, key = data + "/keys/publisher-2048.asc";
    const std::string other = data + "/rpm/other-key.rpm";
    const std::pair<const char*, std::string> calls[] = {{other.c_str(), other + " has invalid signature."},
                                                         {nullptr, "rpm_verify: no package file was given"}};
    for (const auto& call : calls) {
        const RpmVerifyResult result = verify(call.first, call.first == nullptr ? nullptr : key.c_str());
        EXPECT_EQ(std::string(result.message), call.second);
        EXPECT_EQ(result.status, call.first == nullptr ? 5 : 2);
        free(result.message);
    }

    ScopedSession session;  // the check, with this program as its host
    session["signature"] = key;
    host::HostProduct& product = session->AddProduct();
    product.AddComponent("good", data + "/rpm", "signed-sha512.rpm", "rpm");
    product.AddComponent("bad", data + "/rpm", "tampered-header.rpm", "rpm");
    EXPECT_EQ(check(session.get()), 1);
    EXPECT_EQ(session.History("operation_progress"), (std::vector<std::string>{"0", "50", "100"}));
    EXPECT_EQ(session["SIGNIFICANCE"], ";1");
    EXPECT_EQ(session->log.size(), 7u);  // started, the key twice, two results, the entry, finished
    EXPECT_EQ(session->log.back(), "signing_validate_package_list: finished");
    EXPECT_EQ(dlclose(module), 0);
}

// A host that loads the module for each check and unloads it after: memory stays flat. (The module
// of the vendor bundle carries its own libstdc++, whose exception pool of about 70 KiB came back
// with every load until the module gave it back at unload.)
TEST(PluginModule, LoadingAndUnloadingLeavesNoMemoryBehind) {
    const std::string data = SIGNING_TEST_DATA, key = data + "/keys/publisher-2048.asc";
    const std::string good = data + "/rpm/signed-sha256.rpm", damaged = data + "/rpm/truncated-signature.rpm";
    auto cycles = [&](int n) {
        for (int i = 0; i < n; ++i) {
            void* module = dlopen(SIGNING_MODULE, RTLD_LAZY | RTLD_LOCAL);
            ASSERT_NE(module, nullptr) << dlerror();
            auto verify = reinterpret_cast<decltype(&rpm_verify)>(dlsym(module, "rpm_verify"));
            for (const std::string& file : {good, damaged}) {  // the second one throws inside the module
                RpmVerifyResult result = verify(file.c_str(), key.c_str());
                ASSERT_EQ(result.status, file == good ? RPM_STATUS_SIGNED : RPM_STATUS_ERROR);
                free(result.message);
            }
            ASSERT_EQ(dlclose(module), 0);
        }
    };
    auto residentKiB = [] {
        std::ifstream status("/proc/self/status");
        for (std::string line; std::getline(status, line);) {
            if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
        }
        return -1L;
    };
    cycles(200);  // warm-up: the loader's and the allocator's own tables
    const long before = residentKiB();
    cycles(300);
    const long grown = residentKiB() - before;
    std::printf("module: resident memory grew by %ld KiB over 300 loads and unloads\n", grown);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(grown, 1024);
#endif
}

// The interface with a policy, key set and reason codes, as a host reaches it through dlsym: one row
// per call, the fixtures' verdicts under both policies with the reason each gets.
TEST(PluginModule, VerifyWithPolicyKeySetAndReason) {
    void* module = dlopen(SIGNING_MODULE, RTLD_LAZY | RTLD_LOCAL);
    ASSERT_NE(module, nullptr) << dlerror();
    auto verify = reinterpret_cast<decltype(&signing_verify)>(dlsym(module, "signing_verify"));
    auto release = reinterpret_cast<decltype(&signing_result_free)>(dlsym(module, "signing_result_free"));
    auto name = reinterpret_cast<decltype(&signing_reason_name)>(dlsym(module, "signing_reason_name"));
    auto version = reinterpret_cast<decltype(&signing_version)>(dlsym(module, "signing_version"));
    auto api = reinterpret_cast<decltype(&signing_api_version)>(dlsym(module, "signing_api_version"));
    ASSERT_TRUE(verify != nullptr && release != nullptr && name != nullptr && version != nullptr && api != nullptr);
    EXPECT_EQ(api(), SIGNING_API_VERSION);
    EXPECT_STREQ(version(), SIGNING_PROJECT_VERSION);

    const std::string data = SIGNING_TEST_DATA, rpm = data + "/rpm/";
    const std::string publisher = data + "/keys/publisher-2048.asc", other = data + "/keys/other-2048.asc";
    const std::string missing = data + "/keys/missing.asc", ed25519 = data + "/keys/unusable-ed25519.asc";
    const std::string notKey = data + "/keys/keys.txt";
    struct Row {
        std::string package;
        std::vector<std::string> keys;
        SIGNING_POLICY policy;
        RPM_STATUS status;
        const char* reason;
        std::string message;  // after the package's path; whole when it does not begin with a space
    };
    const Row rows[] = {
        {"signed-sha256.rpm", {publisher}, SIGNING_POLICY_CLASSIC, RPM_STATUS_SIGNED, "signed", " is signed."},
        {"header-only.rpm", {publisher}, SIGNING_POLICY_CLASSIC, RPM_STATUS_ERROR, "header-only", "Unknown error"},
        {"header-only.rpm", {publisher}, SIGNING_POLICY_CURRENT, RPM_STATUS_SIGNED, "signed", " is signed."},
        {"signed-sha1.rpm",
         {publisher},
         SIGNING_POLICY_CURRENT,
         RPM_STATUS_NOT_SIGNED,
         "not-trusted",
         " is not signed."},
        {"unsigned.rpm", {publisher}, SIGNING_POLICY_CURRENT, RPM_STATUS_NOT_SIGNED, "not-signed", " is not signed."},
        {"other-key.rpm",
         {publisher},
         SIGNING_POLICY_CLASSIC,
         RPM_STATUS_INVALID_SIGNATURE,
         "wrong-key",
         " has invalid signature."},
        {"tampered-signature-bits.rpm",
         {publisher},
         SIGNING_POLICY_CLASSIC,
         RPM_STATUS_INVALID_SIGNATURE,
         "bad-signature",
         " has invalid signature."},
        {"tampered-signature-value.rpm",
         {publisher},
         SIGNING_POLICY_CURRENT,
         RPM_STATUS_INVALID_SIGNATURE,
         "bad-signature",
         " has invalid signature."},
        {"tampered-payload.rpm",
         {publisher},
         SIGNING_POLICY_CURRENT,
         RPM_STATUS_INVALID_HASH,
         "digest-mismatch",
         " has invalid hash."},
        {"truncated-signature.rpm", {publisher}, SIGNING_POLICY_CLASSIC, RPM_STATUS_ERROR, "damaged", ""},
        // A key set: classic takes the first key file that signs the package, else the first's outcome.
        {"other-key.rpm", {publisher, other}, SIGNING_POLICY_CLASSIC, RPM_STATUS_SIGNED, "signed", " is signed."},
        {"other-key.rpm", {publisher, other}, SIGNING_POLICY_CURRENT, RPM_STATUS_SIGNED, "signed", " is signed."},
        {"unsigned.rpm",
         {other, publisher},
         SIGNING_POLICY_CLASSIC,
         RPM_STATUS_NOT_SIGNED,
         "not-signed",
         " is not signed."},
        // Keys that cannot be used: classic finds out at the first signature, current before the package.
        {"signed-sha256.rpm", {missing}, SIGNING_POLICY_CLASSIC, RPM_STATUS_ERROR, "unreadable-key", ""},
        {"signed-sha256.rpm", {ed25519}, SIGNING_POLICY_CLASSIC, RPM_STATUS_ERROR, "unsupported-key", ""},
        {"signed-sha256.rpm", {publisher, missing}, SIGNING_POLICY_CURRENT, RPM_STATUS_ERROR, "unreadable-key", ""},
        {"signed-sha256.rpm", {notKey, publisher}, SIGNING_POLICY_CURRENT, RPM_STATUS_ERROR, "unsupported-key", ""},
        {"unsigned.rpm", {missing}, SIGNING_POLICY_CLASSIC, RPM_STATUS_NOT_SIGNED, "not-signed", " is not signed."},
        {"../keys/keys.txt", {publisher}, SIGNING_POLICY_CURRENT, RPM_STATUS_ERROR, "not-rpm", " is not an RPM file."},
        {"missing.rpm", {publisher}, SIGNING_POLICY_CLASSIC, RPM_STATUS_ERROR, "unreadable-file", ""},
        {"signed-sha256.rpm", {publisher}, 2, RPM_STATUS_ERROR, "invalid-argument", "signing_verify: unknown policy 2"},
    };
    for (const Row& row : rows) {
        const std::string file = rpm + row.package;
        std::vector<const char*> keys;
        for (const std::string& key : row.keys) keys.push_back(key.c_str());
        SigningVerifyResult result = verify(file.c_str(), keys.data(), keys.size(), row.policy);
        SCOPED_TRACE(row.package + " policy " + std::to_string(row.policy) + " key " + row.keys[0]);
        EXPECT_EQ(result.status, row.status);
        EXPECT_STREQ(name(result.reason), row.reason);
        ASSERT_NE(result.message, nullptr);
        if (!row.message.empty()) {
            EXPECT_EQ(result.message, row.message[0] == ' ' ? file + row.message : row.message);
        }
        release(&result);
        EXPECT_EQ(result.message, nullptr);
    }
    const char* key = publisher.c_str();
    const char* none[] = {nullptr};
    for (const SigningVerifyResult& result :
         {verify(nullptr, &key, 1, SIGNING_POLICY_CLASSIC), verify(key, nullptr, 1, SIGNING_POLICY_CLASSIC),
          verify(key, &key, 0, SIGNING_POLICY_CURRENT), verify(key, none, 1, SIGNING_POLICY_CURRENT)}) {
        EXPECT_EQ(result.reason, SIGNING_REASON_INVALID_ARGUMENT);
        free(result.message);
    }
    release(nullptr);
    EXPECT_STREQ(name(SIGNING_REASON_INVALID_ARGUMENT), "invalid-argument");
    EXPECT_STREQ(name(SIGNING_REASON_INVALID_ARGUMENT + 1), "unknown");
    EXPECT_STREQ(name(-1), "unknown");
    EXPECT_EQ(dlclose(module), 0);
}

// Every fixture package under both policies gets a reason the module names, and the reason belongs
// to the status it came with: a host may branch on either.
TEST(PluginModule, EveryFixtureGetsAReasonOfItsStatus) {
    void* module = dlopen(SIGNING_MODULE, RTLD_LAZY | RTLD_LOCAL);
    ASSERT_NE(module, nullptr) << dlerror();
    auto verify = reinterpret_cast<decltype(&signing_verify)>(dlsym(module, "signing_verify"));
    auto name = reinterpret_cast<decltype(&signing_reason_name)>(dlsym(module, "signing_reason_name"));
    ASSERT_TRUE(verify != nullptr && name != nullptr);
    const std::map<std::string, std::set<int>> statusOf = {
        {"signed", {0}},          {"not-signed", {1}},     {"not-trusted", {1}},     {"eddsa-signature", {1}},
        {"wrong-key", {2}},       {"bad-signature", {2}},  {"digest-mismatch", {3}}, {"invalid-structure", {4}},
        {"header-only", {5}},     {"not-rpm", {5}},        {"unreadable-file", {5}}, {"too-large", {5}},
        {"damaged", {5}},         {"unreadable-key", {5}}, {"unsupported-key", {5}}, {"digest-refused", {5}},
        {"invalid-argument", {5}}};
    const std::string data = SIGNING_TEST_DATA;
    const std::string keyFiles[] = {data + "/keys/publisher-2048.asc", data + "/current/rsa2048.asc",
                                    data + "/current/ed25519.asc"};
    const char* keys[] = {keyFiles[0].c_str(), keyFiles[1].c_str(), keyFiles[2].c_str()};
    std::map<std::string, int> seen;
    for (const char* folder : {"/rpm", "/current", "/oracle"}) {
        for (const auto& entry : std::filesystem::directory_iterator(data + folder)) {
            if (entry.path().extension() != ".rpm") continue;
            for (const SIGNING_POLICY policy : {SIGNING_POLICY_CLASSIC, SIGNING_POLICY_CURRENT}) {
                SigningVerifyResult result = verify(entry.path().c_str(), keys, 3, policy);
                const std::string reason = name(result.reason);
                ASSERT_EQ(statusOf.count(reason), 1u) << entry.path() << ": " << reason;
                EXPECT_EQ(statusOf.at(reason).count(result.status), 1u) << entry.path() << ": " << reason;
                ++seen[reason];
                free(result.message);
            }
        }
    }
    // The fixtures reach most reasons; those of files and keys that cannot be read have rows above.
    for (const char* reason : {"signed", "not-signed", "not-trusted", "header-only", "eddsa-signature", "wrong-key",
                               "bad-signature", "digest-mismatch", "damaged"}) {
        EXPECT_GT(seen[reason], 0) << reason;
    }
    EXPECT_EQ(dlclose(module), 0);
}
