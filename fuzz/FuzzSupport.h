#pragma once
// Shared pieces of the fuzz targets: the fixture paths and an in-memory file with a stable path.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "CertificateManager.h"
#include "rpmutil.h"

namespace fuzz {

inline std::string Fixture(const std::string& relative) {
    return std::string(SIGNING_TEST_DATA) + "/" + relative;
}

// A memory-backed file whose contents each input replaces; its path stays the same.
class MemoryFile {
public:
    MemoryFile() : descriptor_(memfd_create("fuzz-input", 0)) {}
    std::string Path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }
    void Write(const uint8_t* data, size_t size) {
        if (ftruncate(descriptor_, 0) != 0) std::abort();
        if (size > 0 && pwrite(descriptor_, data, size, 0) != static_cast<ssize_t>(size)) std::abort();
    }

private:
    int descriptor_;
};

// The certificate manager keeps the last certificate it made for the life of the module; each input
// starts without it, as after an unload of the module, so that inputs do not depend on each other.
inline void ReleaseCertificates() {
    CertificateManager::Destroy();
}

// rpm_verify must answer every input with a status in range and a message it hands over.
inline void Check(const std::string& file, const std::string& key) {
    RpmVerifyResult result = rpm_verify(file.c_str(), key.c_str());
    if (result.status < RPM_STATUS_SIGNED || result.status > RPM_STATUS_ERROR || result.message == nullptr)
        std::abort();
    if (std::string(result.message) != "Internal error.") std::free(result.message);
    ReleaseCertificates();
}

}  // namespace fuzz
