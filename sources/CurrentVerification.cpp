#include "CurrentVerification.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>

#include "Base.h"
#include "ByteCursor.h"
#include "DigestPipeline.h"
#include "Evaluation.h"
#include "Exceptions.h"
#include "FileHelper.h"
#include "HeaderStore.h"
#include "OpenPgpKeyring.h"
#include "OpenPgpPackets.h"
#include "OpenSslHandles.h"
#include "PgpKey.h"
#include "PgpPacket.h"
#include "ProcessingResult.h"
#include "RpmPackage.h"
#include "SigningPolicy.h"

namespace {

const uint32_t kSignatureRegion = 62;
const uint32_t kMainRegion = 63;
// rpm 6 packages hold their reserved space in 999 and the header's SHA3-256 digest in 279: with
// both, rpm reads no signature from the tags of older packages (1000 and above).
const uint32_t kReserved = 999;
const uint32_t kSha3Header = 279;
const uint32_t kFirstLegacyTag = 1000;
const uint32_t kOpenPgp = 278;
// The OpenPGP id of RIPEMD-160, which OpenSSL's default provider does not compute.
const unsigned int kRipemd160 = 3;
// What is read of a package's signatures and digests. rpm reads any number of them; packages carry
// one to three signatures and one digest per tag, and more only cost: a package beyond these bounds
// is refused.
const size_t kMaxBase64Signatures = 16;
const uint32_t kMaxSignatureBytes = 256 * 1024;
const size_t kMaxDigestsPerTag = 1024;
// A digest's text longer than this cannot be one (SHA-512 takes 128 digits).
const size_t kDigestTextKept = 160;

// How the current verification reads a package (SigningPolicy.h).
const ReaderStyle& CurrentReader() {
    return PolicyOf(SigningPolicy::Current).reader;
}

std::string TagText(uint32_t tag) {
    return "tag " + std::to_string(tag);
}

// Whether rpm reads an entry's value at all: the values of integer types (16, 32 and 64 bits) are
// not read for verification, and the tag is then taken as absent.
bool ValueRead(const HeaderEntry& entry) {
    return entry.type != RpmInt16 && entry.type != RpmInt32 && entry.type != RpmInt64;
}

// A digest in the making, with the OpenPGP id of its algorithm.
class Hash {
public:
    explicit Hash(unsigned int id) : id_(id), context_(EVP_MD_CTX_new()) {
        const OpenPgpHashRow* row = FindOpenPgpHash(id);
        const EVP_MD* md = row != nullptr && row->md != nullptr ? row->md() : nullptr;
        if (md == nullptr || !context_ || EVP_DigestInit_ex(context_.get(), md, nullptr) != 1) {
            throw NotSupportedException("The hash algorithm " + OpenPgpHashName(id) + " is not supported");
        }
    }
    const EVP_MD_CTX* Context() const { return context_.get(); }
    void Feed(const unsigned char* data, size_t size) { EVP_DigestUpdate(context_.get(), data, size); }
    // This digest as a digest pass feeds it.
    DigestStream Stream() {
        EVP_MD_CTX* context = context_.get();
        return DigestStream{[context](const char* data, size_t size) { EVP_DigestUpdate(context, data, size); },
                            DigestPipeline::Cost(id_)};
    }
    // The value of a copy, in lower-case hexadecimal.
    std::string HexValue() const {
        const EvpMdCtxHandle copy(EVP_MD_CTX_new());
        unsigned char value[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        if (!copy || EVP_MD_CTX_copy_ex(copy.get(), context_.get()) != 1 ||
            EVP_DigestFinal_ex(copy.get(), value, &length) != 1) {
            throw InternalErrorException("A digest could not be finished");
        }
        return Base::DumpBufferToString(value, length, false);
    }

private:
    unsigned int id_;
    EvpMdCtxHandle context_;
};

// Digests by OpenPGP id, one per algorithm; null for an algorithm that is not computed.
using Hashes = std::map<unsigned int, std::shared_ptr<Hash>>;

std::shared_ptr<Hash> Want(Hashes& hashes, unsigned int id) {
    const auto found = hashes.find(id);
    if (found != hashes.end()) return found->second;
    std::shared_ptr<Hash> hash;
    if (id == PgpHashMd5 || OpenPgpDigest(id) != nullptr) hash = std::make_shared<Hash>(id);
    hashes[id] = hash;
    return hash;
}

std::string Lower(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// A digest the package carries: its algorithm, its label, the text it holds (lower case), and why
// that cannot be a digest.
struct CarriedDigest {
    unsigned int id;
    std::string label;
    std::string expected;
    std::string flaw;
};

// The hexadecimal digest in the string at offset, read as rpm reads one: at least 16 characters,
// the size its tag requires (size, with the NUL; 0 for any), at least 40 hexadecimal digits, an
// even number of them.
CarriedDigest ReadDigestText(const HeaderStore& store, uint32_t offset, uint32_t tag, uint32_t size,
                             CarriedDigest digest) {
    std::string text;
    uint32_t length = 0;
    if (!store.String(offset, kDigestTextKept, text, length) || length < 16) {
        digest.flaw = TagText(tag) + ": invalid data (" + std::to_string(length) + ")";
    } else if (size != 0 && length + 1 != size) {
        digest.flaw = TagText(tag) + ": invalid size " + std::to_string(length + 1);
    } else if (length < 40 || length % 2 != 0 || length > kDigestTextKept ||
               text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
        digest.flaw = TagText(tag) + ": invalid hex";
    } else {
        digest.expected = Lower(text);
    }
    return digest;
}

// A signature read from the signature header: the packet, the digest its hash is made in (its own
// when the signature is salted), or why it could not be read.
struct SignatureEntry {
    uint32_t tag;
    bool header;  // over the main header (267, 268, 278), else over header and payload
    OpenPgpSignature packet;
    std::string unreadable;
    std::shared_ptr<Hash> hash;
};

// The signature packet alone in data: one packet of tag 2, and nothing after it.
OpenPgpSignature ParseSignaturePacket(const unsigned char* data, uint64_t size) {
    ByteCursor cursor(data, size, "OpenPGP signature");
    const OpenPgpPacket packet = NextPacket(cursor);
    if (packet.tag != kSignaturePacket) {
        throw DataFormatException("OpenPGP packet of tag " + std::to_string(packet.tag) + " is no signature");
    }
    if (cursor.Remaining() != 0) throw DataFormatException("bytes follow the OpenPGP signature packet");
    return OpenPgpSignature::ParseBody(packet.body.Here(), packet.body.Size());
}

// A signature's record: its algorithms and key ID, or only its tag when it cannot be read.
RpmCheck SignatureRecordOf(const SignatureEntry& signature) {
    const RpmCheck::Kind kind = signature.header ? RpmCheck::HeaderSignature : RpmCheck::PackageSignature;
    if (!signature.unreadable.empty()) {
        return RpmCheck{
            kind, RpmCheck::Ok,
            std::string(signature.header ? "Header " : "") + "signature (tag " + std::to_string(signature.tag) + ")",
            "", signature.packet.issuer};
    }
    return SignatureRecord(PolicyOf(SigningPolicy::Current), kind, signature.packet.version,
                           signature.packet.publicKeyAlgorithm, signature.packet.hashAlgorithm,
                           signature.packet.issuer);
}

// A payload digest that the main header holds: its row of the table, its place in its tag, and the
// digest.
struct PayloadElement {
    size_t row;
    uint32_t index;
    CarriedDigest digest;
    bool good = false;
    bool excused = false;
};

// Excuses the failures of alternatives (the ALT tags, written over the uncompressed payload, which
// the stored payload does not match) when the main tag of their pair passes, as rpm excuses them. A
// main tag that fails is not excused by its alternative: rpm would excuse it, but the stored payload
// is then not what was signed (an uncompressed archive stored in place of the payload matches the
// alternative).
void ExcuseAlternatives(std::vector<PayloadElement>& elements) {
    for (PayloadElement& element : elements) {
        const size_t row = element.row;
        if (element.good || !kPayloadDigests[row].alternative) continue;
        element.excused = std::any_of(elements.begin(), elements.end(),
                                      [row](const PayloadElement& main) { return main.row == row - 1 && main.good; });
    }
}

class CurrentVerification {
public:
    CurrentVerification(const PackageFile& file, KeyFileBytes& keyFile) : file_(file), keyFile_(keyFile) {}

    int Run(std::string& message, std::vector<RpmCheck>* checks) {
        file_.CheckLead(CurrentReader());
        const HeaderStructure signature = ReadHeaderStructure(file_, PackageFile::LeadSize, kSignatureHeaderBounds,
                                                              "Signature section", CurrentReader());
        const HeaderStore signatureStore(file_, signature);
        std::string fault;
        CheckHeaderAsRpm(signatureStore, kSignatureRegion, false, fault);
        if (!fault.empty()) return Refuse("Signature section: " + fault, message);
        const uint64_t mainStart = (signature.End() + 7) & ~uint64_t(7);
        const HeaderStructure main =
            ReadHeaderStructure(file_, mainStart, kMainHeaderBounds, "Header section", CurrentReader());
        const HeaderStore mainStore(file_, main);
        CheckHeaderAsRpm(mainStore, kMainRegion, true, fault);
        if (!fault.empty()) return Refuse("Header section: " + fault, message);
        ReadSignatureHeader(signatureStore);
        ReadPayloadDigests(mainStore);
        Digest(main);
        return EvaluatePackage(PolicyOf(SigningPolicy::Current), Findings(), message, checks);
    }

private:
    static int Refuse(const std::string& fault, std::string& message) {
        message = fault;
        return ResultInvalidStructure;
    }

    // The tags of the signature header in the order of the tag table, as rpm reads them.
    void ReadSignatureHeader(const HeaderStore& store) {
        const HeaderStructure& header = store.Header();
        const bool legacyIgnored = header.Find(kReserved) != nullptr && header.Find(kSha3Header) != nullptr;
        bool base64Read = false;
        for (size_t row = 0; row < kSignatureTagCount; ++row) {
            const SignatureTagRow& tag = kSignatureTags[row];
            if (!tag.current) continue;
            const bool signature = tag.meaning != TagMeaning::HeaderDigest && tag.meaning != TagMeaning::PackageMd5;
            if (signature && legacyIgnored && tag.tag >= kFirstLegacyTag) continue;
            if (tag.supersededBy == kOpenPgp && base64Read) continue;
            const HeaderEntry* entry = header.Find(tag.tag);
            if (entry == nullptr || !ValueRead(*entry)) continue;
            std::string flaw;
            if (entry->type != tag.type) {
                flaw = TagText(tag.tag) + ": invalid type " + std::to_string(entry->type);
            } else if (tag.count != 0 && entry->count != tag.count) {
                flaw = TagText(tag.tag) + ": invalid count " + std::to_string(entry->count);
            }
            switch (tag.meaning) {
                case TagMeaning::Base64Signatures: base64Read = ReadBase64(store, *entry, flaw); break;
                case TagMeaning::HeaderSignature:
                case TagMeaning::PackageSignature:
                    ReadBinary(store, *entry, flaw, tag.meaning == TagMeaning::HeaderSignature);
                    break;
                case TagMeaning::HeaderDigest: ReadHeaderDigest(store, *entry, flaw, tag); break;
                case TagMeaning::PackageMd5: ReadMd5(store, *entry, flaw); break;
            }
        }
    }

    // The signature in data, or why it cannot be read.
    void AddSignature(uint32_t tag, bool header, const unsigned char* data, uint64_t size, std::string flaw) {
        SignatureEntry signature{tag, header, OpenPgpSignature(), std::move(flaw), nullptr};
        if (signature.unreadable.empty()) {
            try {
                signature.packet = ParseSignaturePacket(data, size);
            } catch (const DataFormatException& e) {
                signature.unreadable = TagText(tag) + ": invalid OpenPGP signature: " + e.what();
            }
        }
        signatures_.push_back(std::move(signature));
    }

    // Tag 278's signatures, each a Base64 text; whether one of them could be read.
    bool ReadBase64(const HeaderStore& store, const HeaderEntry& entry, const std::string& flaw) {
        if (!flaw.empty()) {
            AddSignature(entry.tag, true, nullptr, 0, flaw);
            return false;
        }
        bool read = false;
        uint32_t offset = entry.offset;
        for (uint32_t i = 0; i < entry.count; ++i) {
            if (i == kMaxBase64Signatures) {
                AddSignature(entry.tag, true, nullptr, 0,
                             TagText(entry.tag) + ": more than " + std::to_string(kMaxBase64Signatures) +
                                 " signatures are not read");
                break;
            }
            std::string text;
            uint32_t length = 0;
            store.String(offset, size_t(kMaxSignatureBytes) * 2, text, length);
            offset += length + 1;
            std::vector<unsigned char> bytes;
            std::string unreadable;
            if (length > text.size()) {
                unreadable = TagText(entry.tag) + ": the signature is too long";
            } else {
                try {
                    bytes = DecodeBase64(text, "invalid base64");
                } catch (const DataFormatException& e) {
                    unreadable = TagText(entry.tag) + ": " + e.what();
                }
            }
            AddSignature(entry.tag, true, bytes.data(), bytes.size(), unreadable);
            read = read || signatures_.back().unreadable.empty();
        }
        return read;
    }

    void ReadBinary(const HeaderStore& store, const HeaderEntry& entry, std::string flaw, bool header) {
        if (flaw.empty() && entry.count > kMaxSignatureBytes) flaw = TagText(entry.tag) + ": the signature is too long";
        const std::vector<unsigned char> bytes =
            flaw.empty() ? store.Bytes(entry.offset, entry.count) : std::vector<unsigned char>();
        AddSignature(entry.tag, header, bytes.data(), bytes.size(), flaw);
    }

    void ReadHeaderDigest(const HeaderStore& store, const HeaderEntry& entry, const std::string& flaw,
                          const SignatureTagRow& tag) {
        CarriedDigest digest{tag.hashId, "Header " + OpenPgpHashName(tag.hashId) + " digest", "", flaw};
        headerDigests_.push_back(flaw.empty() ? ReadDigestText(store, entry.offset, tag.tag, tag.size, digest)
                                              : digest);
    }

    void ReadMd5(const HeaderStore& store, const HeaderEntry& entry, std::string flaw) {
        md5_ = CarriedDigest{PgpHashMd5, "MD5 digest", "", flaw};
        if (flaw.empty() && entry.count < 16)
            flaw = TagText(entry.tag) + ": invalid data (" + std::to_string(entry.count) + ")";
        if (flaw.empty() && entry.count != 16)
            flaw = TagText(entry.tag) + ": invalid size " + std::to_string(entry.count);
        md5_.flaw = flaw;
        if (flaw.empty()) {
            const std::vector<unsigned char> bytes = store.Bytes(entry.offset, 16);
            md5_.expected = Base::DumpBufferToString(bytes.data(), bytes.size(), false);
        }
        md5Present_ = true;
    }

    // The payload digests of the main header: each string of a string array is a digest of its own.
    void ReadPayloadDigests(const HeaderStore& store) {
        for (size_t row = 0; row < kPayloadDigestCount; ++row) {
            const PayloadDigestRow& tag = kPayloadDigests[row];
            const HeaderEntry* entry = store.Header().Find(tag.tag);
            if (entry == nullptr || !ValueRead(*entry)) continue;
            const CarriedDigest digest{
                tag.hashId, "Payload " + OpenPgpHashName(tag.hashId) + (tag.alternative ? " ALT" : "") + " digest", "",
                ""};
            if (entry->type != tag.type) {
                CarriedDigest flawed = digest;
                flawed.flaw = TagText(tag.tag) + ": invalid type " + std::to_string(entry->type);
                payloadDigests_.push_back(PayloadElement{row, 0, flawed});
                continue;
            }
            uint32_t offset = entry->offset;
            for (uint32_t i = 0; i < entry->count; ++i) {
                if (i == kMaxDigestsPerTag) {
                    CarriedDigest flawed = digest;
                    flawed.flaw =
                        TagText(tag.tag) + ": more than " + std::to_string(kMaxDigestsPerTag) + " digests are not read";
                    payloadDigests_.push_back(PayloadElement{row, i, flawed});
                    break;
                }
                payloadDigests_.push_back(PayloadElement{row, i, ReadDigestText(store, offset, tag.tag, 0, digest)});
                uint32_t length = 0;
                store.StringsLength(offset, 1, length);
                offset += length;
            }
        }
    }

    // One pass over the main header and the payload in blocks: the header digests and the header
    // signatures' hashes over the main header, MD5 and the package signatures' hashes over header and
    // payload, the payload digests over what follows the main header. A salted signature (OpenPGP
    // version 6) has a hash of its own, which starts with its salt.
    void Digest(const HeaderStructure& main) {
        for (const CarriedDigest& digest : headerDigests_) Want(headerHashes_, digest.id);
        if (md5Present_) Want(packageHashes_, PgpHashMd5);
        for (const PayloadElement& element : payloadDigests_) Want(payloadHashes_, element.digest.id);
        DigestStreams streams;
        for (SignatureEntry& signature : signatures_) {
            if (!signature.unreadable.empty()) continue;
            const unsigned int id = signature.packet.hashAlgorithm;
            if (signature.packet.salt.empty()) {
                signature.hash = Want(signature.header ? headerHashes_ : packageHashes_, id);
            } else if (OpenPgpDigest(id) != nullptr) {
                signature.hash = std::make_shared<Hash>(id);
                signature.hash->Feed(signature.packet.salt.data(), signature.packet.salt.size());
                (signature.header ? streams.header : streams.package).push_back(signature.hash->Stream());
            }
        }
        for (auto& hash : headerHashes_) {
            if (hash.second) streams.header.push_back(hash.second->Stream());
        }
        for (auto& hash : packageHashes_) {
            if (hash.second) streams.package.push_back(hash.second->Stream());
        }
        for (auto& hash : payloadHashes_) {
            if (hash.second) streams.payload.push_back(hash.second->Stream());
        }
        payloadLength_ = DigestPass(file_, main, streams);
    }

    const OpenPgpKeyring& Keys() {
        if (!keysRead_) {
            keysRead_ = true;
            try {
                const std::vector<char>& bytes = keyFile_.Bytes();
                keys_ = std::make_unique<OpenPgpKeyring>(
                    OpenPgpKeyring::Parse(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()));
            } catch (...) {
                keyError_ = std::current_exception();
            }
        }
        if (keyError_) std::rethrow_exception(keyError_);
        return *keys_;
    }

    // A signature's check as rpm makes it: unreadable, not over a binary document, in a hash that is
    // not computed (counts for nothing, as rpm skips it), or verified with the keys of the key file
    // (read at the first check).
    SignatureOutcome Check(const SignatureEntry& signature) {
        if (!signature.unreadable.empty())
            return SignatureOutcome{RpmCheck::Bad, ResultInvalidSignature, signature.unreadable};
        if (signature.packet.type != 0x00) {
            return SignatureOutcome{
                RpmCheck::Bad, ResultInvalidSignature,
                "a signature of type " + std::to_string(signature.packet.type) + " does not sign a binary document"};
        }
        const unsigned int hashId = signature.packet.hashAlgorithm;
        if (hashId == PgpHashMd5 || hashId == kRipemd160) {
            // rpm computes these and its policy rejects them as broken: BAD, whatever the key file.
            return SignatureOutcome{RpmCheck::Bad, ResultInvalidSignature,
                                    "The signature is not valid: " + OpenPgpHashName(hashId) + " is a broken hash"};
        }
        if (!signature.hash) {
            return SignatureOutcome{
                RpmCheck::NotTrusted, ResultInvalidSignature,
                "the hash algorithm " + OpenPgpHashName(signature.packet.hashAlgorithm) + " is not supported"};
        }
        std::string reason;
        switch (VerifyOpenPgpSignature(signature.packet, signature.hash->Context(), Keys(), reason)) {
            case SignatureVerdict::Ok: return SignatureOutcome{RpmCheck::Ok, ResultSigned, ""};
            case SignatureVerdict::NoKey: return SignatureOutcome{RpmCheck::NoKey, ResultInvalidSignature, reason};
            case SignatureVerdict::NotTrusted:
                return SignatureOutcome{RpmCheck::NotTrusted, ResultInvalidSignature, reason};
            default: return SignatureOutcome{RpmCheck::Bad, ResultInvalidSignature, reason};
        }
    }

    static DigestFinding FindingOf(RpmCheck::Kind kind, const CarriedDigest& digest, const Hashes& hashes) {
        const auto hash = hashes.find(digest.id);
        const bool computed = hash != hashes.end() && hash->second;
        return DigestFinding{
            kind,       digest.label,    true,
            computed,   digest.expected, computed && digest.flaw.empty() ? hash->second->HexValue() : "",
            digest.flaw};
    }

    // What the current verification finds: the digests the package carries against those computed
    // (less the failures rpm excuses), the signatures it reads (header signatures first).
    PackageFindings Findings() {
        PackageFindings findings;
        for (const CarriedDigest& digest : headerDigests_) {
            findings.headerDigests.push_back(FindingOf(
                digest.id == PgpHashSha1 ? RpmCheck::HeaderSha1 : RpmCheck::HeaderDigest, digest, headerHashes_));
        }
        for (PayloadElement& element : payloadDigests_) {
            const DigestFinding finding = FindingOf(RpmCheck::PayloadDigest, element.digest, payloadHashes_);
            element.good = finding.flaw.empty() && finding.computed && finding.expected == finding.value;
        }
        ExcuseAlternatives(payloadDigests_);
        for (const PayloadElement& element : payloadDigests_) {
            if (!element.excused) {
                findings.payloadDigests.push_back(FindingOf(RpmCheck::PayloadDigest, element.digest, payloadHashes_));
            }
        }
        if (md5Present_) findings.md5 = FindingOf(RpmCheck::Md5, md5_, packageHashes_);
        for (const SignatureEntry& signature : signatures_) {
            SignatureFinding finding{signature.tag, SignatureRecordOf(signature),
                                     [this, &signature](std::string&) { return Check(signature); }};
            (signature.header ? findings.headerSignatures : findings.packageSignatures).push_back(std::move(finding));
        }
        findings.payloadLength = payloadLength_;
        return findings;
    }

    const PackageFile& file_;
    KeyFileBytes& keyFile_;
    std::unique_ptr<OpenPgpKeyring> keys_;
    std::exception_ptr keyError_;
    bool keysRead_ = false;
    std::vector<SignatureEntry> signatures_;
    std::vector<CarriedDigest> headerDigests_;
    CarriedDigest md5_;
    bool md5Present_ = false;
    std::vector<PayloadElement> payloadDigests_;
    Hashes headerHashes_, packageHashes_, payloadHashes_;
    uint64_t payloadLength_ = 0;
};

}  // namespace

int VerifyPackageCurrent(const PackageFile& file, KeyFileBytes& keyFile, std::string& message,
                         std::vector<RpmCheck>* checks) {
    try {
        CurrentVerification verification(file, keyFile);
        return verification.Run(message, checks);
    } catch (const std::exception& e) {
        message = e.what();
        return ResultInternalError;
    }
}
