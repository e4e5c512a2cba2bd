#include "KeyDiagnosis.h"

#include <memory>
#include <vector>

#include "Base.h"
#include "Base64.h"
#include "ByteCursor.h"
#include "Exceptions.h"
#include "OpenPgpKeyring.h"
#include "OpenPgpPackets.h"
#include "RpmReport.h"

namespace {

// What a walk over the key block's packets found. The walk only describes the block for a hint;
// whether the key is usable is the verifier's own answer.
struct KeyBlock {
    bool secret = false;
    bool newFormat = false;
    bool signingSubkey = false;
    int primaryAlgorithm = -1;
    bool hasSignature = false;
    bool notKey = false;        // the first packet is not a key
    bool rpmPackage = false;    // the file begins with an RPM package's lead
    bool damagedArmor = false;  // an armor whose Base64 body does not decode
    size_t armorBlocks = 0;     // public key armor blocks in the file
    size_t primaryKeys = 0;     // primary key packets in the (first) block
    std::string issuer;         // of the first signature packet that names one
    std::string keyId;          // of a version 4 primary key: the low 8 octets of its fingerprint
    std::string lastKeyId;      // of the last version 4 primary key of the block
};

const char kArmorBegin[] = "-----BEGIN PGP PUBLIC KEY BLOCK-----";

size_t CountArmorBlocks(const std::string& data) {
    size_t count = 0;
    for (size_t at = data.find(kArmorBegin); at != std::string::npos; at = data.find(kArmorBegin, at + 1)) ++count;
    return count;
}

// A version 4 key's ID, or "" for a packet of another version or one too long to have one.
std::string KeyIdOf(const ByteCursor& packet) {
    if (packet.Size() == 0 || packet.Here()[0] != 4 || packet.Size() > 0xFFFF) return "";
    return V4KeyId(packet);
}

// Any key algorithm's name, as key diagnosis tells what a block holds.
std::string AlgorithmName(int id) {
    const OpenPgpKeyAlgorithmRow* row = FindOpenPgpKeyAlgorithm(static_cast<unsigned int>(id));
    return row != nullptr ? row->name : "algorithm " + std::to_string(id);
}

// The bytes of the key block: the data itself, or the Base64 body of its armor (of whatever kind);
// nothing (and damaged set) when the armor's body does not decode.
std::vector<unsigned char> BlockBytes(const std::string& data, bool& damaged) {
    if (!data.empty() && (static_cast<unsigned char>(data[0]) & 0x80) != 0) return {data.begin(), data.end()};
    const size_t begin = data.find("-----BEGIN PGP ");
    size_t body = begin == std::string::npos ? begin : data.find("\n\n", begin);
    if (body == std::string::npos) body = begin == std::string::npos ? begin : data.find("\r\n\r\n", begin);
    if (body == std::string::npos) return {};
    std::string text;
    for (size_t at = data.find_first_not_of("\r\n", body); at < data.size();) {
        const size_t end = std::min(data.find('\n', at), data.size());
        const std::string line = data.substr(at, end - at);
        if (line.empty() || line[0] == '=' || line[0] == '-') break;
        text += line.back() == '\r' ? line.substr(0, line.size() - 1) : line;
        at = end + 1;
    }
    try {
        unsigned int length = 0;
        std::unique_ptr<char[]> decoded(Base64::Decode(text.data(), static_cast<unsigned int>(text.size()), length));
        if (decoded) return {decoded.get(), decoded.get() + length};
    } catch (const std::exception&) {
    }
    damaged = true;
    return {};
}

// The hashed and unhashed subpackets of a version 4 signature body: key flags (27) and the issuer
// (16). An area that claims more than the body holds is read as far as it goes.
void ReadSubpackets(ByteCursor body, KeyBlock& block) {
    body.Skip(1);  // version
    const unsigned int type = body.ReadUInt8();
    body.Skip(2);  // algorithms
    for (int area = 0; area < 2 && body.Has(2); ++area) {
        const uint16_t claimed = body.ReadUInt16();
        ByteCursor subpackets = body.Take(std::min<uint64_t>(claimed, body.Remaining()));
        while (subpackets.Remaining() > 0) {
            const uint64_t length = ReadSubpacketLength(subpackets);
            if (length == 0 || !subpackets.Has(length)) break;
            ByteCursor subpacket = subpackets.Take(length);
            const unsigned int kind = subpacket.ReadUInt8() & 0x7F;
            if (kind == 27 && subpacket.Remaining() > 0 && type == 0x18 && (subpacket.ReadUInt8() & 0x02) != 0) {
                block.signingSubkey = true;
            }
            if (kind == 16 && subpacket.Remaining() == 8 && block.issuer.empty()) {
                block.issuer = Base::DumpBufferToString(subpacket.Here(), 8, true);
            }
        }
    }
}

// Walks the packets for what they are. A block cut short is described by what came before the cut.
KeyBlock Describe(const std::string& text) {
    KeyBlock block;
    // An RPM package begins with its lead, whose magic is ED AB EE DB.
    block.rpmPackage = text.compare(0, 4, "\xED\xAB\xEE\xDB") == 0;
    block.armorBlocks = CountArmorBlocks(text);
    const std::vector<unsigned char> bytes = BlockBytes(text, block.damagedArmor);
    block.notKey = bytes.empty() || (bytes[0] & 0x80) == 0;
    ByteCursor data(bytes.data(), bytes.size(), "key block");
    try {
        for (bool first = true; data.Remaining() > 0; first = false) {
            // A first octet that opens no packet ends the walk, as a header cut short does.
            const OpenPgpPacketHeader header = ReadPacketHeader(data);
            const unsigned int tag = header.tag;
            block.newFormat = block.newFormat || header.newFormat;
            const uint64_t length = header.length;
            if (header.partial || !data.Has(length)) break;
            if (first && tag != 5 && tag != 6) {
                block.notKey = true;
                break;
            }
            ByteCursor body = data.Take(length);
            if (tag == 5 || tag == 7) block.secret = true;
            if (tag == 6 && body.Size() > 0) {
                // Version 4: version, creation time, algorithm; version 3 keeps two octets of
                // validity before the algorithm.
                const unsigned char* packet = body.Here();
                const uint64_t at = packet[0] == 4 ? 5 : 7;
                block.primaryAlgorithm = body.Size() > at ? packet[at] : -1;
                ++block.primaryKeys;
                block.lastKeyId = KeyIdOf(body);
                if (block.keyId.empty()) block.keyId = block.lastKeyId;
            }
            if (tag == 2) {
                block.hasSignature = true;
                if (body.Size() > 0 && body.Peek(1)[0] == 4) ReadSubpackets(body, block);
            }
        }
    } catch (const std::exception&) {
    }
    return block;
}

// What to give instead of a key block the verifier cannot read, and what the block is.
void Explain(const KeyBlock& block, KeyDiagnosis& diagnosis) {
    const std::string id = !block.keyId.empty() ? block.keyId : !block.issuer.empty() ? block.issuer : "KEYID";
    std::string kind;
    if (block.rpmPackage) {
        // The verifier's own text would only describe the package's bytes as a key.
        diagnosis.text = "the file is an RPM package, not an OpenPGP public key";
        diagnosis.hint = "give the publisher's public key as gpg --export --armor KEYID writes it";
        return;
    }
    if (block.armorBlocks > 1) {
        // The classic reader takes the first armor's body up to the end of the file: the second
        // armor's lines break its Base64 text.
        diagnosis.text = "the file holds " + std::to_string(block.armorBlocks) +
                         " armor blocks: the installer cannot use it, it reads one block per key file";
        diagnosis.hint =
            "give each key in a file of its own, one --key for each (gpg --export --armor KEYID > KEYID.asc), "
            "or verify with --policy=current, which reads every block";
        return;
    }
    if (block.damagedArmor) {
        kind = "the armor's Base64 text is damaged";
        diagnosis.hint = "export the key again, whole: gpg --export --armor KEYID";
    } else if (block.notKey) {
        kind = "the file holds no OpenPGP public key";
        diagnosis.hint = "give the publisher's public key as gpg --export --armor KEYID writes it";
    } else if (block.secret) {
        kind = "the file holds a secret key";
        diagnosis.hint = "give the public key: gpg --export --armor " + id;
    } else if (block.newFormat) {
        kind = "the key block uses the new OpenPGP packet format";
        diagnosis.hint =
            "export the key with GnuPG, which writes the format the verifier reads: gpg --export --armor " + id;
    } else if (block.primaryAlgorithm > 3) {
        kind = "the primary key is " + AlgorithmName(block.primaryAlgorithm) + ", not RSA";
        diagnosis.hint =
            "the installer's classic check verifies RSA signatures only: verify with --policy=current, which "
            "checks " +
            AlgorithmName(block.primaryAlgorithm) +
            " signatures, or sign the packages with an RSA key and give that key";
    } else if (block.signingSubkey) {
        kind = "the key block holds a signing subkey";
        diagnosis.hint =
            "verify with --policy=current, which checks signatures by bound subkeys, or sign with the "
            "primary key (rpmsign --addsign --rpmv3 --define '_gpg_name " +
            id + "!' --define '__gpg /usr/bin/gpg') and give the primary key alone: gpg --export --armor '" + id + "!'";
    } else if (block.primaryAlgorithm >= 0 && !block.hasSignature) {
        kind = "the key block has no signature packet that names its key";
        diagnosis.hint = "export the key with its self-signature: gpg --export --armor " + id;
    }
    if (!kind.empty()) diagnosis.text = kind + " (" + diagnosis.text + ")";
}

// One line, whatever the text holds.
std::string OneLine(std::string text) {
    for (char& c : text) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = ' ';
    }
    return text;
}

// What the classic reader does with a block of several keys: it keeps the last key packet it reads
// and names it with the issuer of the last signature packet. A key exported with its self-signature
// ends the block, so both are that key's; otherwise the ID names another key's material, and no
// signature can verify.
std::string SeveralKeysNote(const KeyBlock& block, const std::string& keyId) {
    if (block.primaryKeys < 2) return "";
    const std::string several = "holds " + std::to_string(block.primaryKeys) + " keys in one block: ";
    if (block.lastKeyId.empty() || block.lastKeyId == keyId) {
        return several + "the installer checks signatures with the key of its last signature packet, " + keyId;
    }
    return several + "the installer checks signatures with its last key, " + block.lastKeyId +
           ", under the key ID of its last signature packet, " + keyId + ": no package passes with it";
}

}  // namespace

KeyDiagnosis DiagnoseKeyData(const std::string& data) {
    KeyDiagnosis diagnosis;
    try {
        try {
            const OpenPgpPublicKey key = rpm_key_of(data.data(), data.size());
            diagnosis.usable = true;
            diagnosis.keyId = key.keyId;
            diagnosis.bits = key.bits;
            diagnosis.keys.push_back({key.keyId, "RSA", key.bits});
            diagnosis.note = SeveralKeysNote(Describe(data), key.keyId);
            return diagnosis;
        } catch (const std::exception& e) {
            diagnosis.reason = "unsupported-key";
            diagnosis.text = OneLine(e.what());
        }
        Explain(Describe(data), diagnosis);
    } catch (...) {
        diagnosis = KeyDiagnosis();
        diagnosis.reason = "unsupported-key";
        diagnosis.text = "the key block cannot be read";
    }
    return diagnosis;
}

namespace {

// Every key of the file as the current policy reads them: "key ID 0123… (RSA 2048 bits), …".
KeyDiagnosis DiagnoseKeyring(const std::string& data) {
    KeyDiagnosis diagnosis;
    try {
        const OpenPgpKeyring keys =
            OpenPgpKeyring::Parse(reinterpret_cast<const unsigned char*>(data.data()), data.size());
        diagnosis.usable = true;
        for (const OpenPgpPublicKey& key : keys.Keys()) {
            if (!diagnosis.text.empty()) diagnosis.text += ", ";
            diagnosis.text += (key.subkey ? "subkey ID " : "key ID ") + key.keyId + " (" +
                              OpenPgpAlgorithmName(key.algorithm) + " " + std::to_string(key.bits) + " bits)";
            if (diagnosis.keyId.empty()) diagnosis.keyId = key.keyId, diagnosis.bits = key.bits;
            diagnosis.keys.push_back({key.keyId, OpenPgpAlgorithmName(key.algorithm), key.bits});
        }
    } catch (const std::exception& e) {
        diagnosis.reason = "unsupported-key";
        diagnosis.text = OneLine(e.what());
    }
    return diagnosis;
}

}  // namespace

KeyDiagnosis DiagnoseKey(const std::string& path, SigningPolicy policy) {
    std::string data;
    try {
        const std::vector<char> bytes = rpm_read_key_file(path);
        data.assign(bytes.begin(), bytes.end());
    } catch (const std::exception& e) {
        KeyDiagnosis diagnosis;
        diagnosis.reason = "unreadable-key";
        diagnosis.text = OneLine(e.what());
        return diagnosis;
    }
    return policy == SigningPolicy::Current ? DiagnoseKeyring(data) : DiagnoseKeyData(data);
}

KeyDiagnosis DiagnoseKeyBytes(const std::vector<char>& bytes, SigningPolicy policy) {
    const std::string data(bytes.begin(), bytes.end());
    return policy == SigningPolicy::Current ? DiagnoseKeyring(data) : DiagnoseKeyData(data);
}
