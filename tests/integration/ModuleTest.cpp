// The plug-in module as a host sees it: loaded with dlopen, reached only through its exported names,
// its host functions resolved from this program, their types from the public header hosts include.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <fstream>

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
