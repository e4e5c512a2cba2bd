#include "KeyPinning.h"

#include <algorithm>
#include <cctype>
#include <exception>
#include <memory>

#include "Base.h"
#include "ByteCursor.h"
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

namespace {

// The fingerprint of the key the classic reader takes from the file: it reads the bytes as one block
// (binary when the first octet says so, else one armor from the first BEGIN line to the last END
// line) and takes its last public-key packet. The reader may see another key than the blocks above
// do: a binary block whose user ID holds the armored text of another key, for one. "" when the
// classic reader takes no key from the file (its verifications then fail anyway).
std::string ClassicKeyFingerprint(const std::vector<char>& bytes) {
    std::unique_ptr<PgpKey> key;
    try {
        key = PgpKey::Parse(bytes.data(), static_cast<unsigned int>(bytes.size()));
    } catch (const std::exception&) {
        return "";
    }
    const std::vector<unsigned char>& body = key->Message().GetPublicKey()->GetBody();
    const std::vector<unsigned char> fingerprint = KeyFingerprint(ByteCursor(body.data(), body.size(), "key packet"));
    return Base::DumpBufferToString(fingerprint.data(), static_cast<unsigned int>(fingerprint.size()), true);
}

}  // namespace

std::string KeyPins::Refusal(const std::string& path) const {
    std::vector<char> bytes;
    try {
        bytes = PgpKey::ReadFile(path);
    } catch (const std::exception& e) {
        return std::string("its keys cannot be read: ") + e.what();
    }
    return Refusal(bytes);
}

std::string KeyPins::Refusal(const std::vector<char>& bytes) const {
    if (!fault.empty()) return "the list of accepted keys is malformed: " + fault;
    std::vector<std::string> held;
    try {
        held = PrimaryKeyFingerprints(bytes);
        const std::string classic = ClassicKeyFingerprint(bytes);
        if (!held.empty() && !classic.empty()) held.push_back(classic);
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
