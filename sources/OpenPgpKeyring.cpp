#include "OpenPgpKeyring.h"

#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <functional>
#include <set>

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

// Signature types (RFC 9580, 5.2.1).
const unsigned int kCertificationFirst = 0x10, kCertificationLast = 0x13;
const unsigned int kSubkeyBinding = 0x18, kPrimaryKeyBinding = 0x19, kDirectKey = 0x1F;
const unsigned int kKeyRevocation = 0x20, kSubkeyRevocation = 0x28;
const unsigned int kUserIdPacket = 13, kUserAttributePacket = 17, kTrustPacket = 12;
// Key flags (RFC 9580, 5.2.3.29): the key may sign data.
const unsigned int kSignsData = 0x02;

// How many signatures of one key component (the primary key, a user ID, a subkey) are hashed and
// checked at most, and how many of one key in all: a key block full of bogus bindings costs no
// more than these.
const unsigned int kChecksPerComponent = 32;
const unsigned int kChecksPerKey = 256;
// And for a whole key file, whatever number of keys it holds, checks of at most this cost in all
// (CheckCost: about a quarter of a second of CPU; a 32-bit build does its big-number arithmetic in
// pairs of registers, three to four times slower, and gets a third of it).
const uint64_t kCostPerFile = sizeof(void*) >= 8 ? 250000 : 80000;

// About what one signature check with key costs, in microseconds of a current x86-64 core: RSA grows
// with the square of the modulus and with the exponent's length, DSA and ECDSA with their size.
uint64_t CheckCost(const OpenPgpPublicKey& key) {
    const uint64_t bits = std::max(1u, key.bits);
    if (key.algorithm >= 1 && key.algorithm <= 3) {
        return 5 + bits * bits * std::max(17u, key.exponentBits) / (2048ull * 2048 * 17 / 20);
    }
    if (key.algorithm == 17) return 50 + bits * bits / (2048ull * 2048 / 400);
    if (key.algorithm == 19) return 50 + bits * bits / (256ull * 256 / 100);
    return 60;
}

bool IsRsa(unsigned int algorithm) {
    return algorithm >= 1 && algorithm <= 3;
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

// An RSA value as long as the modulus: its leading zero octets dropped (some signers write one),
// then left-padded with zeros.
bool RsaValue(const std::vector<unsigned char>& value, size_t size, std::vector<unsigned char>& out) {
    size_t first = 0;
    while (first < value.size() && value[first] == 0) ++first;
    if (value.size() - first > size) return false;
    out.assign(size - (value.size() - first), 0);
    out.insert(out.end(), value.begin() + static_cast<long>(first), value.end());
    return true;
}

// Whether the value of signature verifies hash with key; why not in reason.
bool CheckValue(const OpenPgpSignature& signature, const OpenPgpPublicKey& key, const std::vector<unsigned char>& hash,
                std::string& reason) {
    const bool rsa = IsRsa(key.algorithm);
    if (rsa != IsRsa(signature.publicKeyAlgorithm) || (!rsa && signature.publicKeyAlgorithm != key.algorithm)) {
        reason = "a " + OpenPgpAlgorithmName(signature.publicKeyAlgorithm) + " signature cannot be made by a " +
                 OpenPgpAlgorithmName(key.algorithm) + " key";
        return false;
    }
    if (!key.key) {
        reason = "the key cannot verify";
        return false;
    }
    const bool edDsa = key.algorithm == 22 || key.algorithm == 27 || key.algorithm == 28;
    if (edDsa) {
        const EvpMdCtxHandle context(EVP_MD_CTX_new());
        const bool good =
            context && EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.key.get()) == 1 &&
            EVP_DigestVerify(context.get(), signature.value.data(), signature.value.size(), hash.data(), hash.size()) ==
                1;
        if (!good) reason = "the EdDSA signature does not verify";
        return good;
    }
    std::vector<unsigned char> value = signature.value;
    const EvpPkeyCtxHandle context(EVP_PKEY_CTX_new(key.key.get(), nullptr));
    bool good = context && EVP_PKEY_verify_init(context.get()) == 1;
    if (rsa) {
        good = good && RsaValue(signature.value, static_cast<size_t>(EVP_PKEY_get_size(key.key.get())), value) &&
               EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) == 1 &&
               EVP_PKEY_CTX_set_signature_md(context.get(), OpenPgpDigest(signature.hashAlgorithm)) == 1;
    }
    good = good && EVP_PKEY_verify(context.get(), value.data(), value.size(), hash.data(), hash.size()) == 1;
    if (!good) reason = "the " + OpenPgpAlgorithmName(key.algorithm) + " signature does not verify";
    return good;
}

// A digest context for signature: its hash, then its salt (version 6); null when the hash is not
// taken.
EvpMdCtxHandle StartHash(const OpenPgpSignature& signature) {
    const EVP_MD* md = OpenPgpDigest(signature.hashAlgorithm);
    EvpMdCtxHandle context(EVP_MD_CTX_new());
    if (md == nullptr || !context || EVP_DigestInit_ex(context.get(), md, nullptr) != 1 ||
        EVP_DigestUpdate(context.get(), signature.salt.data(), signature.salt.size()) != 1) {
        return nullptr;
    }
    return context;
}

// A user ID (B4) or user attribute (D1) as a certification hashes it: its tag octet, a four-octet
// length, the body.
void HashUserId(EVP_MD_CTX* context, unsigned int tag, const ByteCursor& body) {
    const uint64_t n = body.Size();
    const unsigned char frame[5] = {static_cast<unsigned char>(tag == kUserIdPacket ? 0xB4 : 0xD1),
                                    static_cast<unsigned char>(n >> 24), static_cast<unsigned char>(n >> 16),
                                    static_cast<unsigned char>(n >> 8), static_cast<unsigned char>(n)};
    EVP_DigestUpdate(context, frame, sizeof frame);
    EVP_DigestUpdate(context, body.Here(), static_cast<size_t>(n));
}

// The bytes between the BEGIN line of an armored block and its END line, decoded. The checksum line
// ("=" and four characters, CRC-24) is read past: rpm 6.1 imports a key whose checksum is missing or
// does not match, and the key's own signatures are what vouch for its bytes.
std::vector<unsigned char> DecodeArmor(const std::string& block) {
    // The text is read line by line in place (a block of empty lines costs no memory of its own).
    size_t at = 0, line = 0;
    const auto next = [&block, &at, &line](std::string& text) {
        if (at >= block.size()) return false;
        const size_t end = std::min(block.find('\n', at), block.size());
        text.assign(block, at, end - at);
        if (!text.empty() && text.back() == '\r') text.pop_back();
        at = end + 1;
        ++line;
        return true;
    };
    std::string text;
    next(text);  // the BEGIN line
    // After the BEGIN line: armor headers ("Version: ...", "Comment: ..."), an empty line, the body.
    // rpm 6.1 reads no block whose headers the empty line does not end, nor one with two checksums
    // (the checksum's own value it does not check).
    bool more = next(text);
    const size_t headersFrom = line;
    while (more && !text.empty() && text.find(':') != std::string::npos) more = next(text);
    if (line > headersFrom && (!more || !text.empty())) {
        throw DataFormatException("The armor's headers are not followed by an empty line");
    }
    if (more && text.empty()) more = next(text);
    std::string body;
    int checksums = 0;
    for (; more && text.rfind("-----", 0) != 0; more = next(text)) {
        if (text.empty() || text[0] != '=') {
            body += text;
        } else if (++checksums > 1) {
            throw DataFormatException("The armor holds two checksums");
        }
    }
    return DecodeBase64(body, "The armor's Base64 text is damaged");
}

}  // namespace

const EVP_MD* OpenPgpDigest(unsigned int hashId) {
    const OpenPgpHashRow* row = FindOpenPgpHash(hashId);
    return row != nullptr && row->signs ? row->md() : nullptr;
}

const OpenPgpPublicKey* OpenPgpKeyring::Find(const std::string& keyId) const {
    for (const OpenPgpPublicKey& key : keys_) {
        if (key.keyId == keyId) return &key;
    }
    return nullptr;
}

const OpenPgpPublicKey* OpenPgpKeyring::FindFingerprint(const std::string& fingerprint) const {
    for (const OpenPgpPublicKey& key : keys_) {
        if (key.fingerprint == fingerprint) return &key;
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
    // Each block runs from a BEGIN line to the next END line; the next block is looked for after it,
    // so that the text is read once however many BEGIN lines it holds.
    for (size_t begin = text.find(kBegin), end = 0; begin != std::string::npos; begin = text.find(kBegin, end)) {
        end = text.find(kEnd, begin);
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
    keyring.ApplyRevocations();
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

// One part of a key as its packets come: the key packet (or a user ID) and the signatures after it.
struct Component {
    unsigned int tag;
    ByteCursor body;
    std::vector<ByteCursor> signatures;
};

// The checks a key's own signatures go through: at most kChecksPerComponent for each component,
// kChecksPerKey for the whole key, and kCostPerFile for the key file.
class SelfSignatures {
public:
    SelfSignatures(const OpenPgpPublicKey& primary, const ByteCursor& primaryBody, uint64_t& fileCost)
        : primary_(primary), primaryBody_(primaryBody), fileCost_(fileCost) {}

    // The newest signature of a type in types over component by signer that verifies; false when
    // none does (why the last one failed in reason). subkey is the subkey's body for bindings.
    bool Newest(const Component& component, const std::vector<unsigned int>& types, const OpenPgpPublicKey& signer,
                OpenPgpSignature& newest, std::string& reason) {
        // The candidates of the types, those that name the signer (or no key) first: a signature
        // naming another key is still tried, as its issuer is not what makes it the owner's.
        std::vector<OpenPgpSignature> candidates;
        for (const ByteCursor& body : component.signatures) {
            try {
                OpenPgpSignature signature = OpenPgpSignature::ParseBody(body.Here(), body.Size());
                if (std::find(types.begin(), types.end(), signature.type) != types.end()) {
                    candidates.push_back(std::move(signature));
                }
            } catch (const DataFormatException& e) {
                reason = std::string("its signature cannot be read: ") + e.what();
            }
        }
        std::stable_partition(candidates.begin(), candidates.end(), [&signer](const OpenPgpSignature& signature) {
            return signature.issuer.empty() || signature.issuer == signer.keyId;
        });
        bool found = false;
        const uint64_t cost = CheckCost(signer);
        for (size_t at = 0; at < candidates.size() && at < kChecksPerComponent && checks_ < kChecksPerKey &&
                            fileCost_ + cost <= kCostPerFile;
             ++at) {
            ++checks_;
            fileCost_ += cost;
            if (Verifies(candidates[at], component, signer, reason) &&
                (!found || candidates[at].creationTime >= newest.creationTime)) {
                newest = candidates[at], found = true;
            }
        }
        return found;
    }

    // Whether signature (by signer) over the primary key and component verifies.
    bool Verifies(const OpenPgpSignature& signature, const Component& component, const OpenPgpPublicKey& signer,
                  std::string& reason) const {
        if (!signature.flaw.empty()) return reason = signature.flaw, false;
        if (!signature.hasCreationTime) return reason = "its signature has no creation time", false;
        EvpMdCtxHandle context = StartHash(signature);
        if (!context) return reason = "its signature's hash is not supported", false;
        HashKeyPacket(context.get(), primaryBody_);
        if (component.tag == kUserIdPacket || component.tag == kUserAttributePacket) {
            HashUserId(context.get(), component.tag, component.body);
        } else if (component.tag == kPublicSubkeyPacket) {
            HashKeyPacket(context.get(), component.body);
        }
        std::vector<unsigned char> hash;
        // Unlike a signature over a package, a key's own signature is held to its quick-check octets
        // too (rpm 6.1 imports no key whose binding's octets are wrong).
        if (!FinishHash(signature, context.get(), hash) || hash.size() < 2 ||
            std::memcmp(hash.data(), signature.left16, 2) != 0 || !CheckValue(signature, signer, hash, reason)) {
            return reason = "its signature does not verify", false;
        }
        return true;
    }

    const OpenPgpPublicKey& Primary() const { return primary_; }

private:
    const OpenPgpPublicKey& primary_;
    ByteCursor primaryBody_;
    unsigned int checks_ = 0;
    uint64_t& fileCost_;
};

// The expiry a self-signature or binding gives key: its key expiration time counts from the key's
// creation.
uint64_t ExpiryOf(const OpenPgpSignature& signature, const OpenPgpPublicKey& key) {
    return signature.keyExpiresAfter == 0 ? 0 : uint64_t(key.created) + signature.keyExpiresAfter;
}

// Marks key revoked by revocation: softly (from the revocation's time on) when it says the key was
// superseded (1) or retired (3).
void Revoke(OpenPgpPublicKey& key, const OpenPgpSignature& revocation) {
    key.revoked = true;
    key.softRevoked = revocation.revocationReason == 1 || revocation.revocationReason == 3;
    key.revokedAt = revocation.creationTime;
}

// Whether a signing subkey's binding embeds a back-signature (0x19) by the subkey that verifies.
bool BackSigned(const OpenPgpSignature& binding, const Component& subkey, const OpenPgpPublicKey& key,
                const SelfSignatures& checks) {
    if (binding.embedded.empty()) return false;
    try {
        const OpenPgpSignature back = OpenPgpSignature::ParseBody(binding.embedded.data(), binding.embedded.size());
        std::string reason;
        return back.type == kPrimaryKeyBinding && checks.Verifies(back, subkey, key, reason);
    } catch (const DataFormatException&) {
        return false;
    }
}

// The walk over one key block: the components of the primary key being read; at the next primary
// key, and at the end, the key and its subkeys are judged by their own signatures.
class BlockReader {
public:
    BlockReader(std::vector<OpenPgpPublicKey>& keys, std::vector<std::string>& refused, uint64_t& fileCost,
                std::vector<std::vector<unsigned char>>& orphans)
        : keys_(keys), refused_(refused), fileCost_(fileCost), orphans_(orphans) {}

    void Read(const OpenPgpPacket& packet) {
        if (packet.tag == kPublicKeyPacket) Settle();
        Screen(packet);
        if (components_.empty() && packet.tag != kPublicKeyPacket) {
            // Before any key: its fault alone, and a signature kept for revocations apart from their key.
            if (packet.tag == kSignaturePacket && orphans_.size() < kChecksPerComponent) {
                orphans_.emplace_back(packet.body.Here(), packet.body.Here() + packet.body.Size());
            }
            return;
        }
        if (packet.tag == kPublicKeyPacket || packet.tag == kPublicSubkeyPacket || packet.tag == kUserIdPacket ||
            packet.tag == kUserAttributePacket) {
            components_.push_back(Component{packet.tag, packet.body, {}});
        } else if (packet.tag == kSignaturePacket && !components_.empty()) {
            components_.back().signatures.push_back(packet.body);
        }
        // Trust packets and anything else are read past.
    }

    // The key read so far judged; a fault seen before any key stays for the key that follows.
    void Settle() {
        if (components_.empty()) return;
        if (fault_.empty()) {
            SettleKey();
        } else {
            refused_.push_back("key " + KeyIdOf(components_.front().body) + ": " + fault_);
        }
        components_.clear();
        seen_.clear();
        last_.clear();
        fault_.clear();
    }

private:
    void SettleKey() {
        OpenPgpPublicKey primary;
        std::string refusal;
        if (!ReadKey(components_.front(), false, primary, refusal) || !primary.key) {
            refused_.push_back("key " + primary.keyId + ": " + (refusal.empty() ? "it cannot verify" : refusal));
            return;
        }
        primary.primaryId = primary.keyId;
        primary.packet.assign(components_.front().body.Here(),
                              components_.front().body.Here() + components_.front().body.Size());
        SelfSignatures checks(primary, components_.front().body, fileCost_);
        if (!JudgePrimary(checks, primary)) return;
        // A key the file held before, in an earlier block, is replaced by this copy, as rpm replaces
        // a key it imports again.
        keys_.erase(std::remove_if(keys_.begin(), keys_.end(),
                                   [&primary](const OpenPgpPublicKey& key) { return key.primaryId == primary.keyId; }),
                    keys_.end());
        keys_.push_back(primary);
        for (const Component& component : components_) {
            if (component.tag == kPublicSubkeyPacket) JudgeSubkey(checks, component);
        }
    }

    // A key packet's body as a key; a body that cannot be read is refused like a key that cannot verify.
    static bool ReadKey(const Component& component, bool subkey, OpenPgpPublicKey& key, std::string& refusal) {
        try {
            return ReadOpenPgpKey(component.body, subkey, key, refusal);
        } catch (const DataFormatException& e) {
            refusal = std::string("it cannot be read: ") + e.what();
            return false;
        }
    }

    // The primary key's self-signatures (on itself, on its user IDs) and revocations.
    bool JudgePrimary(SelfSignatures& checks, OpenPgpPublicKey& primary) {
        OpenPgpSignature newest, candidate;
        bool found = false;
        std::string reason;
        for (const Component& component : components_) {
            if (component.tag == kPublicSubkeyPacket) continue;
            const bool direct = component.tag == kPublicKeyPacket;
            const std::vector<unsigned int> types =
                direct ? std::vector<unsigned int>{kDirectKey}
                       : std::vector<unsigned int>{kCertificationFirst, 0x11, 0x12, kCertificationLast};
            if (checks.Newest(component, types, primary, candidate, reason) &&
                (!found || candidate.creationTime >= newest.creationTime)) {
                newest = candidate, found = true;
            }
            if (direct &&
                checks.Newest(Revocations(component, kKeyRevocation), {kKeyRevocation}, primary, candidate, reason)) {
                Revoke(primary, candidate);
            }
        }
        if (!found) {
            refused_.push_back("key " + primary.keyId + ": it has no valid self-signature");
            return false;
        }
        primary.expires = ExpiryOf(newest, primary);
        primary.signs = !newest.hasKeyFlags || (newest.keyFlags & kSignsData) != 0;
        return true;
    }

    // A subkey with its newest valid binding; left out (with why) when none binds it.
    void JudgeSubkey(SelfSignatures& checks, const Component& component) {
        const OpenPgpPublicKey& primary = checks.Primary();
        OpenPgpPublicKey key;
        std::string refusal;
        const bool verifies = ReadKey(component, true, key, refusal);
        if (key.fingerprint.empty()) {
            refused_.push_back("subkey of " + primary.keyId + ": " + refusal);
            return;
        }
        OpenPgpSignature binding, revocation;
        std::string reason = "it has no binding signature";
        if (!checks.Newest(component, {kSubkeyBinding}, primary, binding, reason)) {
            refused_.push_back("subkey " + key.keyId + ": " + reason);
            return;
        }
        key.primaryId = primary.keyId;
        if (checks.Newest(Revocations(component, kSubkeyRevocation), {kSubkeyRevocation}, primary, revocation,
                          reason)) {
            Revoke(key, revocation);
        }
        if (primary.revoked && (!key.revoked || !primary.softRevoked)) {
            key.revoked = true, key.softRevoked = primary.softRevoked, key.revokedAt = primary.revokedAt;
        }
        key.expires = ExpiryOf(binding, key);
        if (primary.expires != 0 && (key.expires == 0 || primary.expires < key.expires)) key.expires = primary.expires;
        // A subkey of an algorithm the verification does not know keeps its place (its signatures are
        // not trusted rather than keyless) without a back-signature that could be checked.
        const bool grants = binding.hasKeyFlags && (binding.keyFlags & kSignsData) != 0;
        key.signs = grants && (!key.key || BackSigned(binding, component, key, checks));
        if (grants && !key.signs)
            refused_.push_back("subkey " + key.keyId + ": its binding has no valid back-signature");
        if (!verifies && key.key) key.key.reset();
        keys_.push_back(key);
    }

    // component with the revocations of type found anywhere in the block (at most kChecksPerComponent
    // of them): a revocation moved away from what it revokes still revokes it, as Sequoia finds it.
    Component Revocations(const Component& component, unsigned int type) const {
        Component pooled{component.tag, component.body, {}};
        for (const Component& each : components_) {
            for (const ByteCursor& body : each.signatures) {
                // The signature type is the second octet of a version 4 or 6 signature packet.
                const bool typed =
                    body.Size() > 1 && (body.Here()[0] == 4 || body.Here()[0] == 6) && body.Here()[1] == type;
                if (typed && pooled.signatures.size() < kChecksPerComponent) pooled.signatures.push_back(body);
            }
        }
        return pooled;
    }

    // The key ID of a key packet's body (the low 8 octets of a version 4 fingerprint, the high 8 of a
    // version 6 one).
    static std::string KeyIdOf(const ByteCursor& body) {
        const std::vector<unsigned char> print = KeyFingerprint(body);
        const bool v6 = print.size() == 32;
        return print.size() < 8 ? "" : Base::DumpBufferToString(print.data() + (v6 ? 0 : print.size() - 8), 8, true);
    }

    // What rpm 6.1 refuses to import a key for: a packet of a kind a public key does not hold, a packet
    // before the key packet, the same packet twice (but for a copy right after itself).
    void Screen(const OpenPgpPacket& packet) {
        const unsigned int tag = packet.tag;
        const bool keyPart = tag == kPublicKeyPacket || tag == kPublicSubkeyPacket || tag == kUserIdPacket ||
                             tag == kUserAttributePacket || tag == kSignaturePacket || tag == kTrustPacket;
        if (!fault_.empty()) return;
        if (!keyPart) {
            fault_ = "its block holds a packet of tag " + std::to_string(tag);
        } else if (components_.empty() && tag != kPublicKeyPacket) {
            fault_ = "its block holds a packet of tag " + std::to_string(tag) + " before the key";
        } else if (tag != kTrustPacket) {
            // A packet repeated right after itself is taken (rpm takes it); one repeated elsewhere is not.
            std::string bytes(reinterpret_cast<const char*>(packet.body.Here()),
                              static_cast<size_t>(packet.body.Size()));
            bytes += char(tag);
            if (bytes != last_ && !seen_.insert(bytes).second) {
                fault_ = "its block holds a packet of tag " + std::to_string(tag) + " twice";
            }
            last_ = std::move(bytes);
        }
    }

    std::vector<OpenPgpPublicKey>& keys_;
    std::vector<std::string>& refused_;
    std::vector<Component> components_;
    uint64_t& fileCost_;
    std::vector<std::vector<unsigned char>>& orphans_;
    std::set<std::string> seen_;
    std::string last_;
    std::string fault_;
};

}  // namespace

void OpenPgpKeyring::ApplyRevocations() {
    for (const std::vector<unsigned char>& body : orphans_) {
        OpenPgpSignature revocation;
        try {
            revocation = OpenPgpSignature::ParseBody(body.data(), body.size());
        } catch (const DataFormatException&) {
            continue;
        }
        if (revocation.type != kKeyRevocation) continue;
        for (OpenPgpPublicKey& key : keys_) {
            const bool named = revocation.issuerFingerprint.empty() ? revocation.issuer == key.keyId
                                                                    : revocation.issuerFingerprint == key.fingerprint;
            if (key.subkey || !named || key.packet.empty()) continue;
            const ByteCursor packet(key.packet.data(), key.packet.size(), "Public-key packet");
            SelfSignatures checks(key, packet, checkCost_);
            std::string reason;
            if (!checks.Verifies(revocation, Component{kPublicKeyPacket, packet, {}}, key, reason)) continue;
            Revoke(key, revocation);
            for (OpenPgpPublicKey& subkey : keys_) {
                if (subkey.subkey && subkey.primaryId == key.keyId && (!subkey.revoked || !key.softRevoked)) {
                    subkey.revoked = true, subkey.softRevoked = key.softRevoked, subkey.revokedAt = key.revokedAt;
                }
            }
        }
    }
    orphans_.clear();
}

void OpenPgpKeyring::ParseBlock(const unsigned char* data, uint64_t size) {
    ByteCursor cursor(data, size, "OpenPGP key block");
    BlockReader reader(keys_, refused_, checkCost_, orphans_);
    while (cursor.Remaining() > 0) reader.Read(NextPacket(cursor));
    reader.Settle();
}

namespace {

// The public-key algorithms whose signatures are checked.
bool Known(unsigned int algorithm) {
    return IsRsa(algorithm) || algorithm == 17 || algorithm == 19 || algorithm == 22 || algorithm == 27 ||
           algorithm == 28;
}

// What rpm 6.1 does not trust in a signature whatever key made it, as it rates it before it looks for
// the key: an algorithm it does not verify, a weak hash, or an RSA value too short for a key of 2048 bits (a value of
// fewer than 1920 bits has a chance below 2^-128 of coming from one); "" when nothing.
std::string DistrustOfSignature(const OpenPgpSignature& signature) {
    // A public-key algorithm not verified here (ML-DSA): rpm 6.1 without it rates the signature so.
    if (!Known(signature.publicKeyAlgorithm)) {
        return OpenPgpAlgorithmName(signature.publicKeyAlgorithm) + " signatures are not trusted";
    }
    const unsigned int hash = signature.hashAlgorithm;
    if (hash == 2) return OpenPgpHashName(hash) + " signature hashes are not trusted: re-sign with SHA-256 or stronger";
    if (IsRsa(signature.publicKeyAlgorithm) && !signature.value.empty()) {
        size_t first = 0;
        while (first < signature.value.size() && signature.value[first] == 0) ++first;
        uint64_t bits = 8 * uint64_t(signature.value.size() - first);
        for (unsigned char top = first < signature.value.size() ? signature.value[first] : 0x80; (top & 0x80) == 0;
             top = static_cast<unsigned char>(top << 1)) {
            --bits;
        }
        if (bits < 1920) return "RSA keys under 2048 bits are not trusted: re-sign with a stronger key";
    }
    return "";
}

// What rpm 6.1 does not trust in signature by key; "" when nothing.
std::string Distrust(const OpenPgpSignature& signature, const OpenPgpPublicKey& key) {
    std::string weak = DistrustOfSignature(signature);
    if (!weak.empty()) return weak;
    if ((IsRsa(key.algorithm) || key.algorithm == 17) && key.bits < 2048) {
        return OpenPgpAlgorithmName(key.algorithm) +
               " keys under 2048 bits are not trusted: re-sign with a stronger key";
    }
    const char* what = key.subkey ? "subkey " : "key ";
    // A key retired or superseded still vouches for what it signed before.
    if (key.revoked && (!key.softRevoked || signature.creationTime >= key.revokedAt)) {
        return what + key.keyId + ": revoked by its owner";
    }
    return "";
}

// Why signature is not valid at now by key, which is judged when the signature was made (a key that
// expired since still vouches for it, as rpm 6.1 holds); "" when it is.
std::string Expired(const OpenPgpSignature& signature, const OpenPgpPublicKey& key, int64_t now) {
    if (signature.expiresAfter != 0 && now >= 0 &&
        uint64_t(now) >= uint64_t(signature.creationTime) + signature.expiresAfter) {
        return "the signature has expired";
    }
    if (signature.creationTime < key.created) return "the signature is older than its key";
    if (key.expires != 0 && signature.creationTime >= key.expires) {
        return std::string(key.subkey ? "subkey " : "key ") + key.keyId + ": it had expired when it signed";
    }
    return "";
}

// The key signature names: by its fingerprint when it gives one, else by its key ID.
const OpenPgpPublicKey* SignerOf(const OpenPgpSignature& signature, const OpenPgpKeyring& keys) {
    if (!signature.issuerFingerprint.empty()) return keys.FindFingerprint(signature.issuerFingerprint);
    return signature.issuer.empty() ? nullptr : keys.Find(signature.issuer);
}

// What makes signature Bad or not trusted before its value is looked at; Ok when nothing does.
SignatureVerdict Screen(const OpenPgpSignature& signature, const OpenPgpPublicKey& key, int64_t now,
                        std::string& reason) {
    if (!signature.flaw.empty()) return reason = "The signature is not valid: " + signature.flaw, SignatureVerdict::Bad;
    if (signature.type > 0x01) {
        reason = "a signature of type " + std::to_string(signature.type) + " does not sign a document";
        return SignatureVerdict::Bad;
    }
    if (!signature.hasCreationTime) {
        return reason = "The signature is not valid: it has no creation time", SignatureVerdict::Bad;
    }
    if (!Known(signature.publicKeyAlgorithm)) {
        reason = OpenPgpAlgorithmName(signature.publicKeyAlgorithm) + " signatures are not trusted";
        return SignatureVerdict::NotTrusted;
    }
    const char* what = key.subkey ? "subkey " : "key ";
    if (!key.key && !Known(key.algorithm)) {
        reason = what + key.keyId + ": " + OpenPgpAlgorithmName(key.algorithm) + " keys are not trusted";
        return SignatureVerdict::NotTrusted;
    }
    if (!key.signs || !key.key) return reason = what + key.keyId + ": it is not a signing key", SignatureVerdict::Bad;
    if ((signature.version == 6) != (key.version == 6)) {
        reason = "a version " + std::to_string(signature.version) + " signature cannot be made by a version " +
                 std::to_string(key.version) + " key";
        return SignatureVerdict::Bad;
    }
    reason = Expired(signature, key, now);
    if (!reason.empty()) return SignatureVerdict::Bad;
    reason = Distrust(signature, key);
    return reason.empty() ? SignatureVerdict::Ok : SignatureVerdict::NotTrusted;
}

}  // namespace

SignatureVerdict VerifyOpenPgpSignature(const OpenPgpSignature& signature, const EVP_MD_CTX* signedData,
                                        const OpenPgpKeyring& keys, std::string& reason) {
    return VerifyOpenPgpSignature(signature, signedData, keys, reason, static_cast<int64_t>(time(nullptr)));
}

SignatureVerdict VerifyOpenPgpSignature(const OpenPgpSignature& signature, const EVP_MD_CTX* signedData,
                                        const OpenPgpKeyring& keys, std::string& reason, int64_t now) {
    // A packet rpm cannot parse, or a hash its policy rejects as broken, is BAD whatever the key file.
    if (!signature.flaw.empty()) return reason = "The signature is not valid: " + signature.flaw, SignatureVerdict::Bad;
    if (signature.hashAlgorithm == 1 || signature.hashAlgorithm == 3) {
        reason = "The signature is not valid: " + OpenPgpHashName(signature.hashAlgorithm) + " is a broken hash";
        return SignatureVerdict::Bad;
    }
    const OpenPgpPublicKey* key = SignerOf(signature, keys);
    if (key == nullptr && !(reason = DistrustOfSignature(signature)).empty()) return SignatureVerdict::NotTrusted;
    if (key == nullptr) {
        reason = signature.issuer.empty() ? "the signature names no key"
                                          : "key ID " + signature.issuer + " is not in the key file";
        return SignatureVerdict::NoKey;
    }
    const SignatureVerdict screened = Screen(signature, *key, now, reason);
    if (screened != SignatureVerdict::Ok) return screened;
    std::vector<unsigned char> hash;
    if (OpenPgpDigest(signature.hashAlgorithm) == nullptr || !FinishHash(signature, signedData, hash)) {
        reason = "the hash algorithm " + OpenPgpHashName(signature.hashAlgorithm) + " is not supported";
        return SignatureVerdict::Bad;
    }
    // The value decides; the quick-check octets only name the failure (Sequoia, and so rpm 6.1, does
    // not read them: a signature whose octets are wrong and whose value verifies is good).
    if (CheckValue(signature, *key, hash, reason)) return SignatureVerdict::Ok;
    if (hash.size() < 2 || std::memcmp(hash.data(), signature.left16, 2) != 0) {
        reason = "Digest does not correspond to the signature";
    }
    return SignatureVerdict::Bad;
}
