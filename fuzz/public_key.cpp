// Key bytes through the certificate manager: a valid package checked against the key in the input.
#include "FuzzSupport.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static fuzz::MemoryFile key;
    static const std::string package = fuzz::Fixture("rpm/signed-sha256.rpm");
    key.Write(data, size);
    fuzz::Check(package, key.Path());
    return 0;
}
