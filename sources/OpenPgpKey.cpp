#include "OpenPgpKey.h"

#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>

#include <cstring>

#include "Base.h"
#include "Exceptions.h"
#include "OpenPgpAlgorithms.h"
#include "OpenPgpPackets.h"
#include "OpenSslHandles.h"

namespace {

// Bounds on what a key may claim, so that no key costs more than a moment to check a signature
// with: RSA moduli up to 16384 bits (OpenSSL's own limit) with an odd public exponent of at most
// 64 bits; DSA primes p up to 4096 bits with q of 160, 224 or 256 bits (FIPS 186's sizes).
const unsigned int kMaxRsaBits = 16384;
const unsigned int kMaxRsaExponentOctets = 8;
const unsigned int kMaxDsaBits = 4096;

// The curves of ECDSA keys (RFC 9580, 9.2): the OID as OpenPGP stores it, OpenSSL's name, the size.
struct Curve {
    const char* name;
    unsigned char oid[9];
    size_t oidLength;
    unsigned int bits;
};
const Curve kCurves[] = {
    {"prime256v1", {0x2A, 0x86, 0x48, 0xCE, 0x3D, 0x03, 0x01, 0x07}, 8, 256},
    {"secp384r1", {0x2B, 0x81, 0x04, 0x00, 0x22}, 5, 384},
    {"secp521r1", {0x2B, 0x81, 0x04, 0x00, 0x23}, 5, 521},
};
// The curves of version 4 EdDSA keys (algorithm 22): Ed25519 (1.3.6.1.4.1.11591.15.1) and
// Ed448 (1.3.101.113).
const unsigned char kEd25519Oid[] = {0x2B, 0x06, 0x01, 0x04, 0x01, 0xDA, 0x47, 0x0F, 0x01};
const unsigned char kEd448Oid[] = {0x2B, 0x65, 0x71};

bool Is(const ByteCursor& oid, const unsigned char* expected, size_t length) {
    return oid.Size() == length && std::memcmp(oid.Here(), expected, length) == 0;
}

// The bits of an unsigned big-endian number (its leading zero bits not counted).
unsigned int BitsOf(const ByteCursor& number) {
    size_t first = 0;
    while (first < number.Size() && number.Here()[first] == 0) ++first;
    if (first == number.Size()) return 0;
    unsigned int bits = static_cast<unsigned int>((number.Size() - first) * 8);
    for (unsigned char top = number.Here()[first]; (top & 0x80) == 0; top = static_cast<unsigned char>(top << 1))
        --bits;
    return bits;
}

std::shared_ptr<EVP_PKEY> FromData(const char* type, OSSL_PARAM_BLD* builder) {
    const ParamHandle parameters(OSSL_PARAM_BLD_to_param(builder));
    const EvpPkeyCtxHandle context(EVP_PKEY_CTX_new_from_name(nullptr, type, nullptr));
    EVP_PKEY* key = nullptr;
    if (!parameters || !context || EVP_PKEY_fromdata_init(context.get()) != 1 ||
        EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, parameters.get()) != 1) {
        return nullptr;
    }
    return std::shared_ptr<EVP_PKEY>(key, EvpPkeyFree());
}

std::shared_ptr<EVP_PKEY> RawKey(int type, const unsigned char* octets, size_t length) {
    EVP_PKEY* raw = EVP_PKEY_new_raw_public_key(type, nullptr, octets, length);
    return raw == nullptr ? nullptr : std::shared_ptr<EVP_PKEY>(raw, EvpPkeyFree());
}

bool ReadRsa(ByteCursor& material, OpenPgpPublicKey& key, std::string& refusal) {
    const ByteCursor modulus = ReadMpi(material), exponent = ReadMpi(material);
    key.bits = BitsOf(modulus);
    const unsigned int exponentBits = BitsOf(exponent);
    key.exponentBits = exponentBits;
    if (key.bits > kMaxRsaBits) {
        refusal = "RSA keys over " + std::to_string(kMaxRsaBits) + " bits are not supported";
        return false;
    }
    if (exponentBits < 2 || exponentBits > kMaxRsaExponentOctets * 8 ||
        (exponent.Here()[exponent.Size() - 1] & 1) == 0) {
        refusal = "its RSA public exponent is not usable";
        return false;
    }
    key.key = RsaPublicKey(modulus, exponent);
    return true;
}

bool ReadDsa(ByteCursor& material, OpenPgpPublicKey& key, std::string& refusal) {
    const ByteCursor p = ReadMpi(material), q = ReadMpi(material), g = ReadMpi(material), y = ReadMpi(material);
    key.bits = BitsOf(p);
    const unsigned int qBits = BitsOf(q);
    if (key.bits > kMaxDsaBits || (qBits != 160 && qBits != 224 && qBits != 256)) {
        refusal = "its DSA parameters are not usable";
        return false;
    }
    const ParamBldHandle builder(OSSL_PARAM_BLD_new());
    bool pushed = builder != nullptr;
    const std::pair<const char*, const ByteCursor*> numbers[] = {{OSSL_PKEY_PARAM_FFC_P, &p},
                                                                 {OSSL_PKEY_PARAM_FFC_Q, &q},
                                                                 {OSSL_PKEY_PARAM_FFC_G, &g},
                                                                 {OSSL_PKEY_PARAM_PUB_KEY, &y}};
    std::vector<BignumHandle> values;
    for (const auto& number : numbers) {
        if (!pushed) break;
        values.emplace_back(BN_bin2bn(number.second->Here(), static_cast<int>(number.second->Size()), nullptr));
        pushed = values.back() && OSSL_PARAM_BLD_push_BN(builder.get(), number.first, values.back().get()) == 1;
    }
    if (pushed) key.key = FromData("DSA", builder.get());
    return true;
}

bool ReadEcdsa(ByteCursor& material, OpenPgpPublicKey& key, std::string& refusal) {
    const ByteCursor oid = material.Take(material.ReadUInt8("ECDSA key"), "ECDSA key");
    const ByteCursor point = ReadMpi(material);
    for (const Curve& curve : kCurves) {
        if (!Is(oid, curve.oid, curve.oidLength)) continue;
        key.bits = curve.bits;
        if (point.Size() != 1 + 2 * ((curve.bits + 7) / 8) || point.Here()[0] != 0x04) {
            refusal = "the ECDSA point is not in its uncompressed form";
            return false;
        }
        const ParamBldHandle builder(OSSL_PARAM_BLD_new());
        if (builder && OSSL_PARAM_BLD_push_utf8_string(builder.get(), OSSL_PKEY_PARAM_GROUP_NAME, curve.name, 0) == 1 &&
            OSSL_PARAM_BLD_push_octet_string(builder.get(), OSSL_PKEY_PARAM_PUB_KEY, point.Here(),
                                             static_cast<size_t>(point.Size())) == 1) {
            key.key = FromData("EC", builder.get());
        }
        return true;
    }
    refusal = "an ECDSA key on a curve other than NIST P-256, P-384 and P-521 is not supported";
    return false;
}

bool ReadLegacyEdDsa(ByteCursor& material, OpenPgpPublicKey& key, std::string& refusal) {
    const ByteCursor oid = material.Take(material.ReadUInt8("EdDSA key"), "EdDSA key");
    const ByteCursor point = ReadMpi(material);
    const bool ed25519 = Is(oid, kEd25519Oid, sizeof kEd25519Oid);
    if (!ed25519 && !Is(oid, kEd448Oid, sizeof kEd448Oid)) {
        refusal = "an EdDSA key on a curve other than Ed25519 and Ed448 is not supported";
        return false;
    }
    const size_t size = ed25519 ? 32 : 57;
    if (point.Size() != size + 1 || point.Here()[0] != 0x40) {
        refusal = std::string(ed25519 ? "the Ed25519" : "the Ed448") + " point is not in its native form";
        return false;
    }
    key.bits = ed25519 ? 256 : 448;
    key.key = RawKey(ed25519 ? EVP_PKEY_ED25519 : EVP_PKEY_ED448, point.Here() + 1, size);
    return true;
}

// The key material of algorithm: whether the key may verify (key.key set when OpenSSL takes it).
bool ReadMaterial(ByteCursor& material, OpenPgpPublicKey& key, std::string& refusal) {
    switch (key.algorithm) {
        case 1:
        case 2:
        case 3: return ReadRsa(material, key, refusal);
        case 17: return ReadDsa(material, key, refusal);
        case 19: return ReadEcdsa(material, key, refusal);
        case 22: return ReadLegacyEdDsa(material, key, refusal);
        case 27:
        case 28: {
            const size_t size = key.algorithm == 27 ? 32 : 57;
            key.bits = key.algorithm == 27 ? 256 : 448;
            key.key =
                RawKey(key.algorithm == 27 ? EVP_PKEY_ED25519 : EVP_PKEY_ED448, material.Peek(size, "EdDSA key"), size);
            return true;
        }
        case 16:
        case 18:
        case 25:
        case 26: refusal = OpenPgpAlgorithmName(key.algorithm) + " keys only encrypt"; return false;
        default: refusal = OpenPgpAlgorithmName(key.algorithm) + " keys are not supported"; return false;
    }
}

}  // namespace

bool ReadOpenPgpKey(const ByteCursor& packet, bool subkey, OpenPgpPublicKey& key, std::string& refusal) {
    ByteCursor body = packet;
    key.version = body.ReadUInt8("Public-key packet");
    key.subkey = subkey;
    if (key.version != 4 && key.version != 6) {
        refusal = "a version " + std::to_string(key.version) + " key is not supported";
        return false;
    }
    const std::vector<unsigned char> fingerprint = KeyFingerprint(packet);
    key.fingerprint = Base::DumpBufferToString(fingerprint.data(), fingerprint.size(), true);
    key.keyId = key.version == 4 ? key.fingerprint.substr(24) : key.fingerprint.substr(0, 16);
    key.created = body.ReadUInt32("Public-key packet");
    key.algorithm = body.ReadUInt8("Public-key packet");
    ByteCursor material =
        key.version == 6 ? body.Take(body.ReadUInt32("Public-key packet"), "Public-key packet") : body;
    if (!ReadMaterial(material, key, refusal)) return false;
    if (!key.key) {
        refusal = "OpenSSL does not take the key";
        return false;
    }
    return true;
}

void HashKeyPacket(EVP_MD_CTX* context, const ByteCursor& body) {
    const uint64_t n = body.Size();
    const bool v6 = n > 0 && body.Here()[0] == 6;
    const unsigned char v4Frame[3] = {0x99, static_cast<unsigned char>(n >> 8), static_cast<unsigned char>(n)};
    const unsigned char v6Frame[5] = {0x9B, static_cast<unsigned char>(n >> 24), static_cast<unsigned char>(n >> 16),
                                      static_cast<unsigned char>(n >> 8), static_cast<unsigned char>(n)};
    EVP_DigestUpdate(context, v6 ? v6Frame : v4Frame, v6 ? sizeof v6Frame : sizeof v4Frame);
    EVP_DigestUpdate(context, body.Here(), static_cast<size_t>(n));
}

std::shared_ptr<EVP_PKEY> RsaPublicKey(const ByteCursor& modulus, const ByteCursor& exponent) {
    const BignumHandle n(BN_bin2bn(modulus.Here(), static_cast<int>(modulus.Size()), nullptr));
    const BignumHandle e(BN_bin2bn(exponent.Here(), static_cast<int>(exponent.Size()), nullptr));
    const ParamBldHandle builder(OSSL_PARAM_BLD_new());
    if (!n || !e || !builder || OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_N, n.get()) != 1 ||
        OSSL_PARAM_BLD_push_BN(builder.get(), OSSL_PKEY_PARAM_RSA_E, e.get()) != 1) {
        return nullptr;
    }
    return FromData("RSA", builder.get());
}
