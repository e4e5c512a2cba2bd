// Package bytes through rpm_verify, checked against the fixture publisher key.
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzz::MemoryFile package;
    static const std::string key = fuzz::Fixture("keys/publisher-2048.asc");
    package.Write(data, size);
    fuzz::Check(package.Path(), key);
    return 0;
}
