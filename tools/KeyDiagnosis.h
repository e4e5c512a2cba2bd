#pragma once
// The publisher's key as rpm-verify sees it before the first package: read the way verification
// reads it, and, when it cannot be used, what kind of key block it is and what to give instead.
#include <string>

struct KeyDiagnosis {
    bool usable = false;
    std::string keyId;  // usable: the key ID signatures are matched against (16 hexadecimal digits)
    unsigned long long bits = 0;
    std::string reason;  // not usable: "unreadable-key" or "unsupported-key"
    std::string text;    // not usable: why, the verifier's own text included
    std::string hint;    // not usable: what to give instead, when that can be told
};

KeyDiagnosis DiagnoseKey(const std::string& path);
