// The plug-in module as a host sees it: loaded with dlopen, reached only through its exported names.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "HostSession.h"

namespace {

struct RpmVerifyResult {
    int32_t status;
    char* message;
};
typedef RpmVerifyResult (*RpmVerify)(const char*, const char*);
typedef int (*Check)(session_t*);

const std::string kData = SIGNING_TEST_DATA;

}  // namespace

TEST(PluginModule, ExportedNamesWorkThroughDlopen) {
    void* module = dlopen(SIGNING_MODULE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(module, nullptr) << dlerror();
    auto verify = reinterpret_cast<RpmVerify>(dlsym(module, "rpm_verify"));
    auto pattern = static_cast<const char* const*>(dlsym(module, "FILE_PATTERN"));
    auto check = reinterpret_cast<Check>(dlsym(module, "signing_validate_package_list"));
    ASSERT_NE(verify, nullptr);
    ASSERT_NE(check, nullptr);
    ASSERT_NE(pattern, nullptr);
    EXPECT_STREQ(*pattern, "^[a-zA-Z0-9()+._ \\/\\-\\[\\]\\\\]*$");
    // Nothing but the exported names is reachable.
    EXPECT_EQ(dlsym(module, "response"), nullptr);
    EXPECT_EQ(dlsym(module, "_Z8responseRK10RPM_STATUSRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"), nullptr);

    const std::string key = kData + "/keys/publisher-2048.asc";
    const std::string good = kData + "/rpm/signed-sha1.rpm", other = kData + "/rpm/other-key.rpm";
    RpmVerifyResult result = verify(good.c_str(), key.c_str());
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(std::string(result.message), good + " is signed.");
    free(result.message);
    result = verify(other.c_str(), key.c_str());
    EXPECT_EQ(result.status, 2);
    free(result.message);
    result = verify(nullptr, nullptr);
    EXPECT_EQ(result.status, 5);
    free(result.message);

    // The check, with this program as its host.
    session_t session;
    session.variables["signature"] = key;
    host::HostProduct& product = session.AddProduct();
    product.AddComponent("good", kData + "/rpm", "signed-sha512.rpm", "rpm");
    product.AddComponent("bad", kData + "/rpm", "tampered-header.rpm", "rpm");
    host::SetLogEcho(false);
    host::SetLogRecord(&session.log);
    EXPECT_EQ(check(&session), 1);
    host::SetLogRecord(nullptr);
    EXPECT_EQ(session.variables["operation_progress"], "100");
    EXPECT_EQ(session.variables["SIGNIFICANCE"], ";1");
    EXPECT_EQ(session.log.back(), "signing_validate_package_list: finished");
    EXPECT_EQ(dlclose(module), 0);
}
