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

// The key in the file at path; a file that cannot be read is "unreadable-key". Never throws.
KeyDiagnosis DiagnoseKey(const std::string& path);
// The key block in data (armored or binary). Never throws: whatever the block holds, a block the
// verifier cannot use gets one line of text and the reason "unsupported-key".
KeyDiagnosis DiagnoseKeyData(const std::string& data);
