#pragma once
// The publisher's key as rpm-verify sees it before the first package: read the way verification
// reads it, and, when it cannot be used, what kind of key block it is and what to give instead.
#include <string>
#include <vector>

#include "rpmutil.h"

struct KeyDiagnosis {
    // One key that signatures are checked with.
    struct Key {
        std::string keyId;  // 16 upper-case hexadecimal digits
        std::string algorithm;
        unsigned long long bits;
    };
    bool usable = false;
    std::vector<Key> keys;  // usable: the keys of the file (classic: its one key)
    std::string keyId;      // usable: the key ID signatures are matched against (16 hexadecimal digits)
    unsigned long long bits = 0;
    std::string reason;  // not usable: "unreadable-key" or "unsupported-key"
    std::string text;    // not usable: why, the verifier's own text included
    std::string hint;    // not usable: what to give instead, when that can be told
    // Classic, usable: what the installer does with a file of several keys (empty for one key).
    std::string note;
};

// The key in the file at path; a file that cannot be read is "unreadable-key". Never throws. Under
// the current policy every key of the file is read (text then lists them, for a usable file).
KeyDiagnosis DiagnoseKey(const std::string& path, SigningPolicy policy = SigningPolicy::Classic);
// The same for the bytes of a key file.
KeyDiagnosis DiagnoseKeyBytes(const std::vector<char>& bytes, SigningPolicy policy = SigningPolicy::Classic);
// The key block in data (armored or binary). Never throws: whatever the block holds, a block the
// verifier cannot use gets one line of text and the reason "unsupported-key".
KeyDiagnosis DiagnoseKeyData(const std::string& data);
