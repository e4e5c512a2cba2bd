#include "OpenPgpKeyring.h"

#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <cstring>
#include <functional>

#include "Base.h"
#include "ByteCursor.h"
#include "Exceptions.h"
#include "OpenPgpPackets.h"
#include "OpenPgpTrailer.h"
#include "OpenSslHandles.h"
#include "PgpKey.h"

namespace {

const char kBegin[] = "-----BEGIN PGP PUBLIC KEY BLOCK-----";
const char kEnd[] = "-----END PGP PUBLIC KEY BLOCK-----";

// Signature types (RFC 4880, 5.2.1).
const unsigned int kSubkeyBinding = 0x18;

// Ed25519's curve OID, 1.3.6.1.4.1.11591.15.1, as OpenPGP stores it (without tag and length).
const unsigned char kEd25519Oid[] = {0x2B, 0x06, 0x01, 0x04, 0x01, 0xDA, 0x47, 0x0F, 0x01};

// value left-padded with zeros to length octets (an MPI drops leading zero octets); a longer value
// is refused.
bool PadTo(const ByteCursor& value, size_t length, std::vector<unsigned char>& out) {
    if (value.Size() > length) return false;
    out.assign(length - static_cast<size_t>(value.Size()), 0);
    out.insert(out.end(), value.Here(), value.Here() + value.Size());
    return true;
}

// A public-key packet's body as a key (version 4 only: RSA, or EdDSA on Ed25519); why not in
// refusal when it cannot verify.
bool ReadPublicKey(const ByteCursor& packet, bool subkey, OpenPgpPublicKey& key, std::string& refusal) {
    ByteCursor body = packet;
    const uint8_t version = body.ReadUInt8("Public-key packet");
    key.keyId = V4KeyId(packet);
    key.subkey = subkey;
    if (version != 4) {
        refusal = "a version " + std::to_string(version) + " key is not supported";
        key.keyId.clear();
        return false;
    }
    body.Skip(4, "Public-key packet");  // creation time
    key.algorithm = body.ReadUInt8("Public-key packet");
    if (key.algorithm >= 1 && key.algorithm <= 3) {
        const ByteCursor modulus = ReadMpi(body), exponent = ReadMpi(body);
        key.bits = static_cast<unsigned int>(modulus.Size() * 8);
        // Less the leading zero bits of the first octet (all eight of a zero octet).
        for (unsigned char top = modulus.Size() > 0 ? modulus.Here()[0] : 0x80, bit = 0; bit < 8 && (top & 0x80) == 0;
             ++bit, top = static_cast<unsigned char>(top << 1)) {
            --key.bits;
        }
        key.key = RsaPublicKey(modulus, exponent);
    } else if (key.algorithm == 22) {
        const uint8_t oidLength = body.ReadUInt8("EdDSA key");
        const ByteCursor oid = body.Take(oidLength, "EdDSA key");
        const ByteCursor point = ReadMpi(body);
        if (oid.Size() != sizeof kEd25519Oid || std::memcmp(oid.Here(), kEd25519Oid, sizeof kEd25519Oid) != 0) {
            refusal = "an EdDSA key on a curve other than Ed25519 is not supported";
            return false;
        }
        if (point.Size() != 33 || point.Here()[0] != 0x40) {
            refusal = "the Ed25519 point is not in its native form";
            return false;
        }
        key.bits = 256;
        EVP_PKEY* raw = EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, point.Here() + 1, 32);
        if (raw != nullptr) key.key = std::shared_ptr<EVP_PKEY>(raw, EvpPkeyFree());
    } else {
        refusal = OpenPgpAlgorithmName(key.algorithm) + " keys are not supported";
        return false;
    }
    if (!key.key) {
        refusal = "OpenSSL does not take the key";
        return false;
    }
    return true;
}

// The signature's hash of data (already in context) and its trailer: true with hash filled.
bool FinishHash(const OpenPgpSignature& signature, const EVP_MD_CTX* data, std::vector<unsigned char>& hash) {
    const EvpMdCtxHandle copy(EVP_MD_CTX_new());
    unsigned int length = 0;
    hash.resize(EVP_MAX_MD_SIZE);
    if (!copy || EVP_MD_CTX_copy_ex(copy.get(), data) != 1 ||
        EVP_DigestUpdate(copy.get(), signature.trailer.data(), signature.trailer.size()) != 1 ||
        EVP_DigestFinal_ex(copy.get(), hash.data(), &length) != 1) {
        return false;
    }
    hash.resize(length);
    return true;
}

// Whether the value of signature verifies hash with key; why not in reason.
bool CheckValue(const OpenPgpSignature& signature, const OpenPgpPublicKey& key, const std::vector<unsigned char>& hash,
                std::string& reason) {
    const bool rsa = key.algorithm >= 1 && key.algorithm <= 3;
    const bool signatureRsa = signature.publicKeyAlgorithm >= 1 && signature.publicKeyAlgorithm <= 3;
    if (rsa != signatureRsa || (!rsa && signature.publicKeyAlgorithm != key.algorithm)) {
        reason = "a " + OpenPgpAlgorithmName(signature.publicKeyAlgorithm) + " signature cannot be made by a " +
                 OpenPgpAlgorithmName(key.algorithm) + " key";
        return false;
    }
    if (rsa) {
        const size_t size = static_cast<size_t>(EVP_PKEY_get_size(key.key.get()));
        std::vector<unsigned char> value;
        const EvpPkeyCtxHandle context(EVP_PKEY_CTX_new(key.key.get(), nullptr));
        const bool good = PadTo(ByteCursor(signature.value.data(), signature.value.size(), "RSA value"), size, value) &&
                          context && EVP_PKEY_verify_init(context.get()) == 1 &&
                          EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) == 1 &&
                          EVP_PKEY_CTX_set_signature_md(context.get(), OpenPgpDigest(signature.hashAlgorithm)) == 1 &&
                          EVP_PKEY_verify(context.get(), value.data(), value.size(), hash.data(), hash.size()) == 1;
        if (!good) reason = "the RSA signature does not verify";
        return good;
    }
    const EvpMdCtxHandle context(EVP_MD_CTX_new());
    const bool good =
        context && EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.key.get()) == 1 &&
        EVP_DigestVerify(context.get(), signature.value.data(), signature.value.size(), hash.data(), hash.size()) == 1;
    if (!good) reason = "the EdDSA signature does not verify";
    return good;
}

// The binding signature of subkey (a subkey packet's body) by primary (its primary key, whose
// packet body is primaryBody): whether it verifies.
bool BindingVerifies(const OpenPgpSignature& binding, const OpenPgpPublicKey& primary, const ByteCursor& primaryBody,
                     const ByteCursor& subkeyBody, std::string& reason) {
    if (binding.type != kSubkeyBinding) {
        reason = "no binding signature";
        return false;
    }
    if (!binding.flaw.empty()) {
        reason = binding.flaw;
        return false;
    }
    if (!binding.issuer.empty() && binding.issuer != primary.keyId) {
        reason = "its binding signature is by another key";
        return false;
    }
    const EVP_MD* md = OpenPgpDigest(binding.hashAlgorithm);
    const EvpMdCtxHandle context(EVP_MD_CTX_new());
    if (md == nullptr || !context || EVP_DigestInit_ex(context.get(), md, nullptr) != 1) {
        reason = "its binding signature's hash is not supported";
        return false;
    }
    for (const ByteCursor* body : {&primaryBody, &subkeyBody}) {
        const unsigned char frame[3] = {0x99, static_cast<unsigned char>(body->Size() >> 8),
                                        static_cast<unsigned char>(body->Size() & 0xFF)};
        EVP_DigestUpdate(context.get(), frame, sizeof frame);
        EVP_DigestUpdate(context.get(), body->Here(), static_cast<size_t>(body->Size()));
    }
    std::vector<unsigned char> hash;
    if (!FinishHash(binding, context.get(), hash) || hash.size() < 2 ||
        std::memcmp(hash.data(), binding.left16, 2) != 0) {
        reason = "its binding signature does not verify";
        return false;
    }
    if (!CheckValue(binding, primary, hash, reason)) {
        reason = "its binding signature does not verify";
        return false;
    }
    return true;
}

// The bytes between the BEGIN line of an armored block and its END line, decoded; the checksum
// line ("=" and four characters) is checked when present (CRC-24, RFC 4880, 6.1).
std::vector<unsigned char> DecodeArmor(const std::string& block) {
    std::vector<std::string> lines;
    for (size_t at = 0; at < block.size();) {
        const size_t next = std::min(block.find('\n', at), block.size());
        lines.push_back(block.substr(at, next - at));
        if (!lines.back().empty() && lines.back().back() == '\r') lines.back().pop_back();
        at = next + 1;
    }
    // After the BEGIN line: armor headers ("Version: ...", "Comment: ..."), an empty line, the body.
    size_t first = 1;
    while (first < lines.size() && !lines[first].empty() && lines[first].find(':') != std::string::npos) ++first;
    if (first < lines.size() && lines[first].empty()) ++first;
    std::string body, checksum;
    for (size_t line = first; line < lines.size() && lines[line].rfind("-----", 0) != 0; ++line) {
        if (!lines[line].empty() && lines[line][0] == '=') {
            checksum = lines[line].substr(1);
        } else {
            body += lines[line];
        }
    }
    std::vector<unsigned char> decoded = DecodeBase64(body, "The armor's Base64 text is damaged");
    if (!checksum.empty()) {
        unsigned char crc[4] = {};
        if (checksum.size() != 4 ||
            EVP_DecodeBlock(crc, reinterpret_cast<const unsigned char*>(checksum.data()), 4) != 3) {
            throw DataFormatException("The armor's checksum is damaged");
        }
        uint32_t value = 0xB704CE;
        for (unsigned char octet : decoded) {
            value ^= static_cast<uint32_t>(octet) << 16;
            for (int bit = 0; bit < 8; ++bit) {
                value <<= 1;
                if ((value & 0x1000000) != 0) value ^= 0x1864CFB;
            }
        }
        if ((value & 0xFFFFFF) != ((uint32_t(crc[0]) << 16) | (uint32_t(crc[1]) << 8) | crc[2])) {
            throw DataFormatException("The armor's checksum does not match its text");
        }
    }
    return decoded;
}

}  // namespace

const EVP_MD* OpenPgpDigest(unsigned int hashId) {
    const OpenPgpHashRow* row = FindOpenPgpHash(hashId);
    return row != nullptr && row->signs ? row->md() : nullptr;
}

OpenPgpSignature OpenPgpSignature::Parse(const unsigned char* data, uint64_t size) {
    ByteCursor cursor(data, size, "OpenPGP signature");
    const OpenPgpPacket packet = NextPacket(cursor);
    if (packet.tag != kSignaturePacket) {
        throw DataFormatException("OpenPGP packet of tag " + std::to_string(packet.tag) + " is no signature");
    }
    return ParseBody(packet.body.Here(), packet.body.Size());
}

namespace {

// Version 3: the hashed length (5), type, creation time, issuer, algorithms.
void ReadV3Fields(ByteCursor& body, OpenPgpSignature& signature) {
    if (body.ReadUInt8() != 5) throw DataFormatException("Version 3 signature packet: the hashed length must be 5");
    signature.trailer.assign(body.Here(), body.Here() + 5);
    signature.type = body.ReadUInt8();
    body.Skip(4);
    signature.issuer = Base::DumpBufferToString(body.Peek(8), 8, true);
    body.Skip(8);
    signature.publicKeyAlgorithm = body.ReadUInt8();
    signature.hashAlgorithm = body.ReadUInt8();
}

// The subpackets of one area: the issuer (16, or the fingerprint's low octets from 33, kept in
// fingerprintIssuer), and critical subpackets the reader does not act on, which make the signature
// invalid (RFC 4880, 5.2.3.1) when they are hashed: those are the signer's.
void ReadSubpackets(const ByteCursor& area, bool hashed, OpenPgpSignature& signature, std::string& fingerprintIssuer) {
    ForEachSubpacket(area, [&](uint8_t type, ByteCursor subpacket) {
        const unsigned int kind = type & 0x7Fu;
        if (kind == 16 && subpacket.Remaining() == 8) {
            signature.issuer = Base::DumpBufferToString(subpacket.Here(), 8, true);
        } else if (kind == 33 && subpacket.Remaining() == 21 && subpacket.Here()[0] == 4) {
            fingerprintIssuer = Base::DumpBufferToString(subpacket.Here() + 13, 8, true);
        }
        const bool understood = kind == 2 || kind == 3 || kind == 9 || kind == 11 || kind == 16 || kind == 21 ||
                                kind == 22 || kind == 23 || kind == 25 || kind == 27 || kind == 30 || kind == 32 ||
                                kind == 33;
        if ((type & 0x80) != 0 && !understood && hashed) {
            signature.flaw =
                "it holds a critical subpacket of type " + std::to_string(kind) + " that is not understood";
        }
        return true;
    });
}

// Version 4: type, algorithms, the hashed and unhashed areas; data is the body from its version.
void ReadV4Fields(const unsigned char* data, ByteCursor& body, OpenPgpSignature& signature) {
    signature.type = body.ReadUInt8();
    signature.publicKeyAlgorithm = body.ReadUInt8();
    signature.hashAlgorithm = body.ReadUInt8();
    const uint16_t hashedLength = body.ReadUInt16();
    ByteCursor hashed = body.Take(hashedLength, "Hashed subpacket area");
    const uint16_t unhashedLength = body.ReadUInt16("Unhashed subpacket area");
    ByteCursor unhashed = body.Take(unhashedLength, "Unhashed subpacket area");
    // The trailer: the fields up to the end of the hashed area, then 04 FF and their length.
    const uint32_t fieldsLength = 6u + hashedLength;
    signature.trailer.assign(data, data + fieldsLength);
    const auto tail = OpenPgpV4Trailer(fieldsLength);
    signature.trailer.insert(signature.trailer.end(), tail.begin(), tail.end());
    std::string fingerprintIssuer;
    ReadSubpackets(hashed, true, signature, fingerprintIssuer);
    ReadSubpackets(unhashed, false, signature, fingerprintIssuer);
    if (signature.issuer.empty()) signature.issuer = fingerprintIssuer;
}

// The left 16 bits of the hash and the value: RSA's one integer, EdDSA's R and S.
void ReadSignatureValue(ByteCursor& body, OpenPgpSignature& signature) {
    body.Read(signature.left16, 2, "Signature packet");
    if (signature.publicKeyAlgorithm >= 1 && signature.publicKeyAlgorithm <= 3) {
        const ByteCursor value = ReadMpi(body);
        signature.value.assign(value.Here(), value.Here() + value.Size());
    } else if (signature.publicKeyAlgorithm == 22) {
        const ByteCursor r = ReadMpi(body), s = ReadMpi(body);
        std::vector<unsigned char> half;
        if (!PadTo(r, 32, signature.value) || !PadTo(s, 32, half)) {
            signature.flaw = "its EdDSA values are longer than 32 octets";
        }
        signature.value.insert(signature.value.end(), half.begin(), half.end());
    } else {
        signature.flaw = OpenPgpAlgorithmName(signature.publicKeyAlgorithm) + " signatures are not supported";
    }
}

}  // namespace

OpenPgpSignature OpenPgpSignature::ParseBody(const unsigned char* data, uint64_t size) {
    OpenPgpSignature signature;
    ByteCursor body(data, size, "Signature packet");
    signature.version = body.ReadUInt8();
    if (signature.version == 3) {
        ReadV3Fields(body, signature);
    } else if (signature.version == 4) {
        ReadV4Fields(data, body, signature);
    } else {
        throw DataFormatException("Version " + std::to_string(signature.version) +
                                  " signature packets are not supported");
    }
    ReadSignatureValue(body, signature);
    return signature;
}

const OpenPgpPublicKey* OpenPgpKeyring::Find(const std::string& keyId) const {
    for (const OpenPgpPublicKey& key : keys_) {
        if (key.keyId == keyId) return &key;
    }
    return nullptr;
}

OpenPgpKeyring OpenPgpKeyring::ReadFile(const std::string& path) {
    const std::vector<char> bytes = PgpKey::ReadFile(path);
    return Parse(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

namespace {

// Hands block each binary key block of a key file's bytes in turn: the bytes as they are when they
// hold no armor, else every armored block, decoded.
void ForEachKeyBlock(const unsigned char* data, uint64_t size,
                     const std::function<void(const unsigned char* block, uint64_t size)>& block) {
    const std::string text(reinterpret_cast<const char*>(data), static_cast<size_t>(size));
    if (text.find(kBegin) == std::string::npos) block(data, size);
    for (size_t begin = text.find(kBegin); begin != std::string::npos; begin = text.find(kBegin, begin + 1)) {
        const size_t end = text.find(kEnd, begin);
        if (end == std::string::npos) throw DataFormatException("The armored key block has no END line");
        const std::vector<unsigned char> decoded = DecodeArmor(text.substr(begin, end - begin));
        block(decoded.data(), decoded.size());
    }
}

}  // namespace

OpenPgpKeyring OpenPgpKeyring::Parse(const unsigned char* data, uint64_t size) {
    OpenPgpKeyring keyring;
    ForEachKeyBlock(data, size,
                    [&keyring](const unsigned char* block, uint64_t length) { keyring.ParseBlock(block, length); });
    if (keyring.keys_.empty()) {
        throw DataFormatException(keyring.refused_.empty() ? "PGP public key is not found"
                                                           : "No key can verify: " + keyring.refused_.front());
    }
    return keyring;
}

std::vector<std::vector<unsigned char>> OpenPgpKeyring::SplitKeys(const unsigned char* data, uint64_t size) {
    std::vector<std::vector<unsigned char>> binaries;
    ForEachKeyBlock(data, size, [&binaries](const unsigned char* block, uint64_t length) {
        binaries.emplace_back(block, block + length);
    });
    std::vector<std::vector<unsigned char>> keys;
    for (const std::vector<unsigned char>& binary : binaries) {
        ByteCursor cursor(binary.data(), binary.size(), "OpenPGP key block");
        while (cursor.Remaining() > 0) {
            const unsigned char* start = cursor.Here();
            const OpenPgpPacket packet = NextPacket(cursor);
            if (packet.tag == kPublicKeyPacket || keys.empty()) keys.emplace_back();
            keys.back().insert(keys.back().end(), start, cursor.Here());
        }
    }
    return keys;
}

namespace {

// The walk over one key block: the primary key being read, its packet body, where its keys begin in
// the keyring, and the subkey waiting for its binding signature.
class BlockReader {
public:
    BlockReader(const unsigned char* data, std::vector<OpenPgpPublicKey>& keys, std::vector<std::string>& refused)
        : keys_(keys),
          refused_(refused),
          primaryBody_(data, 0, "Public-key packet"),
          pendingBody_(data, 0, "Public-subkey packet"),
          primaryKeys_(keys.size()) {}

    void Read(const OpenPgpPacket& packet) {
        if (packet.tag == kPublicKeyPacket) {
            Settle();
            Primary(packet.body);
        } else if (packet.tag == kPublicSubkeyPacket) {
            Settle();
            Subkey(packet.body);
        } else if (packet.tag == kSignaturePacket && pending_ != nullptr) {
            Binding(packet.body);
        }
        // User IDs, user attributes, trust packets and certifications (the owner's or others') are
        // read past: a key verifies by the key material alone.
    }

    // A subkey left without a binding signature that verifies: as rpm refuses to import such a key,
    // the whole key (its primary and every subkey) is dropped.
    void Settle() {
        if (pending_ == nullptr) return;
        refused_.push_back("subkey " + pending_->keyId + ": " +
                           (pendingReason_.empty() ? "it has no binding signature" : pendingReason_));
        refused_.push_back("key " + pending_->primaryId + ": one of its subkeys is not bound to it");
        keys_.resize(primaryKeys_);
        primary_.reset();
        pending_.reset();
    }

private:
    void Primary(const ByteCursor& body) {
        OpenPgpPublicKey key{};
        std::string refusal;
        primary_.reset();
        primaryBody_ = body;
        primaryKeys_ = keys_.size();
        if (ReadPublicKey(body, false, key, refusal)) {
            key.primaryId = key.keyId;
            keys_.push_back(key);
            primary_ = std::make_unique<OpenPgpPublicKey>(key);
        } else {
            refused_.push_back("key " + key.keyId + ": " + refusal);
        }
    }

    void Subkey(const ByteCursor& body) {
        if (primary_ == nullptr) return;  // a subkey of a key that cannot verify cannot be bound to it
        OpenPgpPublicKey key{};
        std::string refusal;
        if (!ReadPublicKey(body, true, key, refusal)) {
            refused_.push_back("subkey " + key.keyId + ": " + refusal);
            return;
        }
        key.primaryId = primary_->keyId;
        pending_ = std::make_unique<OpenPgpPublicKey>(key);
        pendingBody_ = body;
        pendingReason_.clear();
    }

    // Signatures after a subkey: the first binding signature that verifies binds it.
    void Binding(const ByteCursor& body) {
        try {
            const OpenPgpSignature binding = OpenPgpSignature::ParseBody(body.Here(), body.Size());
            std::string reason;
            if (BindingVerifies(binding, *primary_, primaryBody_, pendingBody_, reason)) {
                keys_.push_back(*pending_);
                pending_.reset();
            } else if (binding.type == kSubkeyBinding) {
                pendingReason_ = reason;
            }
        } catch (const DataFormatException& e) {
            pendingReason_ = std::string("its binding signature cannot be read: ") + e.what();
        }
    }

    std::vector<OpenPgpPublicKey>& keys_;
    std::vector<std::string>& refused_;
    std::unique_ptr<OpenPgpPublicKey> primary_;
    ByteCursor primaryBody_;
    std::unique_ptr<OpenPgpPublicKey> pending_;
    ByteCursor pendingBody_;
    std::string pendingReason_;
    size_t primaryKeys_;
};

}  // namespace

void OpenPgpKeyring::ParseBlock(const unsigned char* data, uint64_t size) {
    ByteCursor cursor(data, size, "OpenPGP key block");
    BlockReader reader(data, keys_, refused_);
    while (cursor.Remaining() > 0) reader.Read(NextPacket(cursor));
    reader.Settle();
}

SignatureVerdict VerifyOpenPgpSignature(const OpenPgpSignature& signature, const EVP_MD_CTX* signedData,
                                        const OpenPgpKeyring& keys, std::string& reason) {
    const OpenPgpPublicKey* key = signature.issuer.empty() ? nullptr : keys.Find(signature.issuer);
    if (key == nullptr) {
        reason = signature.issuer.empty() ? "the signature names no key"
                                          : "key ID " + signature.issuer + " is not in the key file";
        return SignatureVerdict::NoKey;
    }
    if (!signature.flaw.empty()) {
        reason = "The signature is not valid: " + signature.flaw;
        return SignatureVerdict::Bad;
    }
    if (signature.type > 0x01) {
        reason = "a signature of type " + std::to_string(signature.type) + " does not sign a document";
        return SignatureVerdict::Bad;
    }
    std::vector<unsigned char> hash;
    if (OpenPgpDigest(signature.hashAlgorithm) == nullptr || !FinishHash(signature, signedData, hash)) {
        reason = "the hash algorithm " + OpenPgpHashName(signature.hashAlgorithm) + " is not supported";
        return SignatureVerdict::Bad;
    }
    if (hash.size() < 2 || std::memcmp(hash.data(), signature.left16, 2) != 0) {
        reason = "Digest does not correspond to the signature";
        return SignatureVerdict::Bad;
    }
    return CheckValue(signature, *key, hash, reason) ? SignatureVerdict::Ok : SignatureVerdict::Bad;
}
