#include "KeyPinning.h"

#include <algorithm>
#include <cctype>
#include <exception>

#include "Base.h"
#include "OpenPgpKeyring.h"
#include "OpenPgpPackets.h"
#include "PgpKey.h"

KeyPins KeyPins::Parse(const std::string& text) {
    KeyPins pins;
    std::string entry;
    const auto finish = [&pins, &entry] {
        if (!entry.empty() && pins.fault.empty()) {
            const bool hex = std::all_of(entry.begin(), entry.end(), [](char c) { return std::isxdigit(c) != 0; });
            if (!hex || (entry.size() != 40 && entry.size() != 64)) {
                pins.fault = "[" + entry + "] is not a fingerprint of 40 or 64 hexadecimal digits";
            } else {
                pins.fingerprints.push_back(entry);
            }
        }
        entry.clear();
    };
    for (const char c : text) {
        if (c == ',' || c == ';' || c == '\n' || c == '\r') {
            finish();
        } else if (c != ' ' && c != '\t') {
            entry += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        }
    }
    finish();
    return pins;
}

std::vector<std::string> PrimaryKeyFingerprints(const std::vector<char>& bytes) {
    std::vector<std::string> fingerprints;
    const auto blocks = OpenPgpKeyring::SplitKeys(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    for (const std::vector<unsigned char>& block : blocks) {
        ByteCursor cursor(block.data(), block.size(), "key block");
        while (cursor.Remaining() > 0) {
            const OpenPgpPacket packet = NextPacket(cursor);
            if (packet.tag != kPublicKeyPacket && packet.tag != kSecretKeyPacket) continue;
            const std::vector<unsigned char> fingerprint = KeyFingerprint(packet.body);
            fingerprints.push_back(
                Base::DumpBufferToString(fingerprint.data(), static_cast<unsigned int>(fingerprint.size()), true));
        }
    }
    return fingerprints;
}

std::string KeyPins::Refusal(const std::string& path) const {
    if (!fault.empty()) return "the list of accepted keys is malformed: " + fault;
    std::vector<std::string> held;
    try {
        held = PrimaryKeyFingerprints(PgpKey::ReadFile(path));
    } catch (const std::exception& e) {
        return std::string("its keys cannot be read: ") + e.what();
    }
    if (held.empty()) return "it holds no key";
    for (const std::string& fingerprint : held) {
        if (std::find(fingerprints.begin(), fingerprints.end(), fingerprint) == fingerprints.end()) {
            return "the key with fingerprint " + fingerprint + " is not one of the keys accepted";
        }
    }
    return "";
}
