// rpm-verify's key diagnosis over arbitrary key files: it never throws, and what it says is one
// line: a usable key with its 16-digit key ID, or a reason and a text without control characters.
#include <cstdlib>
#include <string>

#include "KeyDiagnosis.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const KeyDiagnosis diagnosis = DiagnoseKeyData(std::string(reinterpret_cast<const char*>(data), size));
    if (diagnosis.usable) {
        if (diagnosis.keyId.size() != 16) std::abort();
        return 0;
    }
    if (diagnosis.reason != "unsupported-key" || diagnosis.text.empty()) std::abort();
    for (const std::string* text : {&diagnosis.text, &diagnosis.hint}) {
        for (char c : *text) {
            if (static_cast<unsigned char>(c) < 0x20) std::abort();
        }
    }
    return 0;
}
