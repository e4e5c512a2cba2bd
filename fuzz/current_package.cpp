// Package bytes through the current policy, checked against a key file of two keys (RSA 2048 and
// 3072): every input gets a status in range and a message.
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzz::MemoryFile package;
    static const std::string key = fuzz::Fixture("current/two-keys-two-blocks.asc");
    package.Write(data, size);
    std::string detail;
    RpmVerifyResult result = rpm_verify_detailed(package.Path().c_str(), key.c_str(), detail, SigningPolicy::Current);
    if (result.status < RPM_STATUS_SIGNED || result.status > RPM_STATUS_ERROR || result.message == nullptr)
        std::abort();
    if (std::string(result.message) != "Internal error.") std::free(result.message);
    return 0;
}
