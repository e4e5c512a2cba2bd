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
#include "OpenPgpKeyring.h"
#include "OpenPgpPackets.h"
#include "OpenSslHandles.h"
#include "PgpKey.h"
#include "PgpPacket.h"
#include "ProcessingResult.h"
#include "RpmPackage.h"
#include "SigningPolicy.h"

namespace {

// The main header's tag of the package format version (6 for rpm 6 packages).
const uint32_t kRpmFormat = 5114;
// The tag of rpm 6's Base64 signatures.
const uint32_t kOpenPgp = 278;

// How the current verification reads a package (SigningPolicy.h).
const ReaderStyle& CurrentReader() {
    return PolicyOf(SigningPolicy::Current).reader;
}

std::string TagName(uint32_t tag) {
    return "RPM tag " + std::to_string(tag);
}

// The signature header, read whole (it is bounded to 64 MiB), with its values looked up by tag.
class SignatureStore {
public:
    explicit SignatureStore(SignatureHeaderData data) : data_(std::move(data)) {}
    // The bytes of a binary entry (its count of them).
    ByteCursor Binary(const HeaderEntry& entry) const {
        ByteCursor store = data_.Store();
        if (!store.HasAt(entry.offset, entry.count)) {
            throw DataFormatException(TagName(entry.tag) + ": the value lies outside the store");
        }
        store.Skip(entry.offset);
        return store.Take(entry.count);
    }
    // The count NUL-terminated strings of a string or string-array entry.
    std::vector<std::string> Strings(const HeaderEntry& entry) const {
        std::vector<std::string> strings;
        ByteCursor store = data_.Store();
        if (!store.Has(entry.offset))
            throw DataFormatException(TagName(entry.tag) + ": the value lies outside the store");
        store.Skip(entry.offset);
        const uint32_t count = entry.type == 6 ? 1 : entry.count;
        for (uint32_t i = 0; i < count; ++i) {
            const void* end = store.Remaining() == 0
                                  ? nullptr
                                  : std::memchr(store.Here(), '\0', static_cast<size_t>(store.Remaining()));
            if (end == nullptr)
                throw DataFormatException(TagName(entry.tag) + ": the text is not terminated in the store");
            const size_t length = static_cast<size_t>(static_cast<const unsigned char*>(end) - store.Here());
            strings.emplace_back(reinterpret_cast<const char*>(store.Here()), length);
            store.Skip(length + 1);
        }
        return strings;
    }
    // The first string of a digest entry.
    std::string Text(const HeaderEntry& entry) const {
        const std::vector<std::string> strings = Strings(entry);
        if (strings.empty()) throw DataFormatException(TagName(entry.tag) + ": the entry holds no text");
        return strings.front();
    }
    const HeaderStructure& Index() const { return data_.structure; }

private:
    SignatureHeaderData data_;
};

// The first string of a main-header entry (a hexadecimal digest), read from the file.
std::string MainString(const PackageFile& file, const HeaderStructure& header, const HeaderEntry& entry) {
    if (entry.offset >= header.dataSize)
        throw DataFormatException(TagName(entry.tag) + ": the value lies outside the store");
    char text[257] = {};
    const auto length = static_cast<size_t>(std::min<uint32_t>(256, header.dataSize - entry.offset));
    if (file.Read(text, length, header.StoreStart() + entry.offset) != length) {
        throw InvalidFileStructureException("Header section is cut short");
    }
    if (std::memchr(text, '\0', length) == nullptr) {
        throw DataFormatException(TagName(entry.tag) + ": the digest text is not terminated");
    }
    return text;
}

uint32_t MainInt32(const PackageFile& file, const HeaderStructure& header, const HeaderEntry& entry) {
    if (entry.offset > header.dataSize || header.dataSize - entry.offset < 4) {
        throw DataFormatException(TagName(entry.tag) + ": the value lies outside the store");
    }
    unsigned char bytes[4];
    if (file.Read(bytes, 4, header.StoreStart() + entry.offset) != 4) {
        throw InvalidFileStructureException("Header section is cut short");
    }
    return (uint32_t(bytes[0]) << 24) | (uint32_t(bytes[1]) << 16) | (uint32_t(bytes[2]) << 8) | bytes[3];
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

// Digests by OpenPGP id, one per algorithm.
using Hashes = std::map<unsigned int, std::unique_ptr<Hash>>;

void Want(Hashes& hashes, unsigned int id) {
    if (hashes.count(id) == 0 && (id == PgpHashMd5 || OpenPgpDigest(id) != nullptr)) {
        hashes[id] = std::make_unique<Hash>(id);
    }
}

std::string Lower(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// A signature read from the signature header: the packet, or why it could not be read.
struct SignatureEntry {
    uint32_t tag;
    bool header;  // over the main header (267, 268, 278), else over header and payload
    OpenPgpSignature packet;
    std::string unreadable;
};

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

class CurrentVerification {
public:
    CurrentVerification(const PackageFile& file, KeyFileBytes& keyFile) : file_(file), keyFile_(keyFile) {}

    int Run(std::string& message, std::vector<RpmCheck>* checks) {
        file_.CheckLead(CurrentReader());
        const SignatureStore signatures(ReadSignatureHeaderData(file_, CurrentReader()));
        const uint64_t mainStart = (signatures.Index().End() + 7) & ~uint64_t(7);
        const HeaderStructure main =
            ReadHeaderStructure(file_, mainStart, kMainHeaderBounds, "Header section", CurrentReader());
        ReadSignatureHeader(signatures);
        ReadMainHeader(main);
        Digest(main);
        return EvaluatePackage(PolicyOf(SigningPolicy::Current), Findings(), message, checks);
    }

private:
    void ReadSignatureHeader(const SignatureStore& store) {
        for (const HeaderEntry& entry : store.Index().entries) {
            // rpm 6 packages hold no tag above 999 in their signature header.
            laterTags_ = laterTags_ || entry.tag > 999;
            if (const SignatureTagRow* row = RowOf(entry.tag)) ReadEntry(store, entry, *row);
        }
        // A tag superseded by another that holds a signature is not read (rpm reads 267 and 268 only
        // when 278 holds none).
        std::vector<SignatureEntry> kept;
        for (SignatureEntry& signature : signatures_) {
            const uint32_t over = RowOf(signature.tag)->supersededBy;
            const bool superseded =
                over != 0 && std::any_of(signatures_.begin(), signatures_.end(),
                                         [over](const SignatureEntry& other) { return other.tag == over; });
            if (!superseded) kept.push_back(std::move(signature));
        }
        signatures_ = std::move(kept);
    }

    // The row of the tag table that the current policy reads for tag, or null.
    static const SignatureTagRow* RowOf(uint32_t tag) {
        const VerificationPolicy& policy = PolicyOf(SigningPolicy::Current);
        for (size_t row = 0; row < kSignatureTagCount; ++row) {
            if (kSignatureTags[row].tag == tag && kSignatureTags[row].*policy.reads) return &kSignatureTags[row];
        }
        return nullptr;
    }

    void ReadEntry(const SignatureStore& store, const HeaderEntry& entry, const SignatureTagRow& row) {
        switch (row.meaning) {
            case TagMeaning::HeaderSignature:
            case TagMeaning::PackageSignature: {
                const ByteCursor value = store.Binary(entry);
                AddSignature(entry.tag, row.meaning == TagMeaning::HeaderSignature, value.Here(), value.Size());
                break;
            }
            case TagMeaning::Base64Signatures:
                for (const std::string& text : store.Strings(entry)) {
                    std::vector<unsigned char> bytes;
                    std::string unreadable;
                    try {
                        bytes = DecodeBase64(text, "RPM tag 278: a signature's Base64 text is damaged");
                    } catch (const DataFormatException& e) {
                        unreadable = e.what();
                    }
                    AddSignature(entry.tag, true, bytes.data(), bytes.size());
                    if (!unreadable.empty()) signatures_.back().unreadable = unreadable;
                }
                break;
            case TagMeaning::HeaderDigest: headerDigests_[row.hashId] = Lower(store.Text(entry)); break;
            case TagMeaning::PackageMd5: {
                if (entry.count != 16) throw DataFormatException("RPM tag 1004: an MD5 digest takes 16 bytes");
                const ByteCursor value = store.Binary(entry);
                md5_ += Base::DumpBufferToString(value.Here(), value.Size(), false);  // a second entry adds to it
                break;
            }
        }
    }

    void AddSignature(uint32_t tag, bool header, const unsigned char* data, uint64_t size) {
        SignatureEntry signature{tag, header, OpenPgpSignature(), ""};
        try {
            signature.packet = OpenPgpSignature::Parse(data, size);
        } catch (const DataFormatException& e) {
            signature.unreadable = e.what();
        }
        signatures_.push_back(std::move(signature));
    }

    void ReadMainHeader(const HeaderStructure& main) {
        for (size_t row = 0; row < kPayloadDigestCount; ++row) {
            const PayloadDigestRow& digest = kPayloadDigests[row];
            const HeaderEntry* entry = main.Find(digest.tag);
            if (entry == nullptr) continue;
            const HeaderEntry* algorithm = digest.algorithmTag != 0 ? main.Find(digest.algorithmTag) : nullptr;
            const unsigned int id = algorithm != nullptr ? MainInt32(file_, main, *algorithm) : digest.hashId;
            payloadDigests_.push_back(
                {id, Lower(MainString(file_, main, *entry)), "Payload " + OpenPgpHashName(id) + " digest"});
        }
        if (const HeaderEntry* entry = main.Find(kRpmFormat)) version6_ = MainInt32(file_, main, *entry) >= 6;
    }

    // One pass over the main header and the payload in blocks: the header digests and the header
    // signatures' hashes over the main header, MD5 and the package signatures' hashes over header and
    // payload, the payload digests over what follows the main header.
    void Digest(const HeaderStructure& main) {
        for (const auto& digest : headerDigests_) Want(headerHashes_, digest.first);
        if (!md5_.empty()) Want(packageHashes_, 1);
        for (const PayloadDigest& digest : payloadDigests_) Want(payloadHashes_, digest.id);
        for (const SignatureEntry& signature : signatures_) {
            if (signature.unreadable.empty()) {
                Want(signature.header ? headerHashes_ : packageHashes_, signature.packet.hashAlgorithm);
            }
        }
        DigestStreams streams;
        for (auto& hash : headerHashes_) streams.header.push_back(hash.second->Stream());
        for (auto& hash : packageHashes_) streams.package.push_back(hash.second->Stream());
        for (auto& hash : payloadHashes_) streams.payload.push_back(hash.second->Stream());
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

    // A signature's check: unreadable, in a hash the package was not hashed in, or verified with the
    // keys of the key file (read at the first check).
    SignatureOutcome Check(const SignatureEntry& signature) {
        if (!signature.unreadable.empty())
            return SignatureOutcome{RpmCheck::Bad, ResultInvalidSignature, signature.unreadable};
        const Hashes& hashes = signature.header ? headerHashes_ : packageHashes_;
        const auto hash = hashes.find(signature.packet.hashAlgorithm);
        if (hash == hashes.end()) {
            return SignatureOutcome{
                RpmCheck::Bad, ResultInvalidSignature,
                "the hash algorithm " + OpenPgpHashName(signature.packet.hashAlgorithm) + " is not supported"};
        }
        std::string reason;
        switch (VerifyOpenPgpSignature(signature.packet, hash->second->Context(), Keys(), reason)) {
            case SignatureVerdict::Ok: return SignatureOutcome{RpmCheck::Ok, ResultSigned, ""};
            case SignatureVerdict::NoKey: return SignatureOutcome{RpmCheck::NoKey, ResultInvalidSignature, reason};
            default: return SignatureOutcome{RpmCheck::Bad, ResultInvalidSignature, reason};
        }
    }

    // What the current verification finds: the digests the package carries against those computed,
    // the signatures it reads (header signatures first), and its structure's fault.
    PackageFindings Findings() {
        PackageFindings findings;
        findings.structureFault = version6_ && laterTags_;
        for (const auto& digest : headerDigests_) {
            findings.headerDigests.push_back(
                DigestFinding{digest.first == PgpHashSha1 ? RpmCheck::HeaderSha1 : RpmCheck::HeaderDigest,
                              "Header " + OpenPgpHashName(digest.first) + " digest", true, true, digest.second,
                              headerHashes_.at(digest.first)->HexValue()});
        }
        for (const PayloadDigest& digest : payloadDigests_) {
            const auto hash = payloadHashes_.find(digest.id);
            findings.payloadDigests.push_back(
                DigestFinding{RpmCheck::PayloadDigest, digest.label, true, hash != payloadHashes_.end(),
                              digest.expected, hash != payloadHashes_.end() ? hash->second->HexValue() : ""});
        }
        findings.md5.present = !md5_.empty();
        findings.md5.expected = md5_;
        if (findings.md5.present) findings.md5.value = packageHashes_.at(PgpHashMd5)->HexValue();
        for (const SignatureEntry& signature : signatures_) {
            SignatureFinding finding{signature.tag, SignatureRecordOf(signature),
                                     [this, &signature](std::string&) { return Check(signature); }};
            (signature.header ? findings.headerSignatures : findings.packageSignatures).push_back(std::move(finding));
        }
        findings.payloadLength = payloadLength_;
        return findings;
    }

    struct PayloadDigest {
        unsigned int id;
        std::string expected;
        std::string label;
    };

    const PackageFile& file_;
    KeyFileBytes& keyFile_;
    std::unique_ptr<OpenPgpKeyring> keys_;
    std::exception_ptr keyError_;
    bool keysRead_ = false;
    std::vector<SignatureEntry> signatures_;
    std::map<unsigned int, std::string> headerDigests_;  // expected, by hash id
    std::string md5_;
    std::vector<PayloadDigest> payloadDigests_;
    Hashes headerHashes_, packageHashes_, payloadHashes_;
    uint64_t payloadLength_ = 0;
    bool version6_ = false, laterTags_ = false;
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
