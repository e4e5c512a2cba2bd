#include "CurrentVerification.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>

#include "ByteCursor.h"
#include "DigestPipeline.h"
#include "Exceptions.h"
#include "FileHelper.h"
#include "OpenPgpKeyring.h"
#include "PgpPacket.h"
#include "PgpKey.h"
#include "OpenSslHandles.h"
#include "ProcessingResult.h"
#include "RpmPackage.h"
#include "SigningPolicy.h"
#include "Verdict.h"

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

std::vector<unsigned char> Base64Decode(const std::string& text) {
    std::vector<unsigned char> bytes(text.size() / 4 * 3 + 3);
    const std::unique_ptr<EVP_ENCODE_CTX, decltype(&EVP_ENCODE_CTX_free)> context(EVP_ENCODE_CTX_new(),
                                                                                  &EVP_ENCODE_CTX_free);
    int length = 0, last = 0;
    EVP_DecodeInit(context.get());
    if (!context ||
        EVP_DecodeUpdate(context.get(), bytes.data(), &length, reinterpret_cast<const unsigned char*>(text.data()),
                         static_cast<int>(text.size())) < 0 ||
        EVP_DecodeFinal(context.get(), bytes.data() + length, &last) != 1) {
        throw DataFormatException("RPM tag 278: a signature's Base64 text is damaged");
    }
    bytes.resize(static_cast<size_t>(length) + static_cast<size_t>(last));
    return bytes;
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
        static const char kDigits[] = "0123456789abcdef";
        std::string text;
        for (unsigned int i = 0; i < length; ++i) {
            text += kDigits[value[i] >> 4];
            text += kDigits[value[i] & 0x0F];
        }
        return text;
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

std::string SignatureLabel(const SignatureEntry& signature) {
    std::string label = signature.header ? "Header " : "";
    if (!signature.unreadable.empty()) return label + "signature (tag " + std::to_string(signature.tag) + ")";
    const std::string shortId = Lower(signature.packet.issuer.size() == 16 ? signature.packet.issuer.substr(8) : "");
    const bool classic = PolicyOf(SigningPolicy::Current).classicAlgorithms;
    return label + "V" + std::to_string(signature.packet.version) + " " +
           OpenPgpAlgorithmName(signature.packet.publicKeyAlgorithm, classic) + "/" +
           OpenPgpHashName(signature.packet.hashAlgorithm, classic) + " Signature, key ID " + shortId;
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
        Verdict verdict(message, checks, PolicyOf(SigningPolicy::Current).firstFailureStops);
        if (version6_ && laterTags_) {
            verdict.Fail(ResultInvalidStructure, "A version 6 package holds signature tags above 999");
        }
        CheckSignatures(verdict, true);
        CheckDigests(verdict);
        CheckSignatures(verdict, false);
        if (!verdict.Decided()) CheckCoverage(verdict);
        return verdict.Result();
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
                        bytes = Base64Decode(text);
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
                static const char kDigits[] = "0123456789abcdef";
                for (uint64_t i = 0; i < value.Size(); ++i) {
                    md5_ += kDigits[value.Here()[i] >> 4];
                    md5_ += kDigits[value.Here()[i] & 0x0F];
                }
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

    void CheckSignatures(Verdict& verdict, bool header) {
        bool any = false, anyGood = false, openPgp = false;
        std::string firstFailure;
        for (const SignatureEntry& signature : signatures_) {
            if (signature.header != header) continue;
            any = true;
            openPgp = openPgp || signature.tag == kOpenPgp;
            const RpmCheck::Kind kind = header ? RpmCheck::HeaderSignature : RpmCheck::PackageSignature;
            std::string reason = signature.unreadable;
            SignatureVerdict result = SignatureVerdict::Bad;
            if (reason.empty()) {
                const auto hash = (header ? headerHashes_ : packageHashes_).find(signature.packet.hashAlgorithm);
                if (hash == (header ? headerHashes_ : packageHashes_).end()) {
                    reason =
                        "the hash algorithm " + OpenPgpHashName(signature.packet.hashAlgorithm) + " is not supported";
                } else {
                    result = VerifyOpenPgpSignature(signature.packet, hash->second->Context(), Keys(), reason);
                }
            }
            const RpmCheck::State state = result == SignatureVerdict::Ok      ? RpmCheck::Ok
                                          : result == SignatureVerdict::NoKey ? RpmCheck::NoKey
                                                                              : RpmCheck::Bad;
            verdict.Record(RpmCheck{kind, state, SignatureLabel(signature), result == SignatureVerdict::Ok ? "" : reason,
                           signature.packet.issuer});
            anyGood = anyGood || result == SignatureVerdict::Ok;
            if (result != SignatureVerdict::Ok && firstFailure.empty()) firstFailure = reason;
        }
        if (header) headerSigned_ = any && (openPgp ? anyGood : firstFailure.empty());
        if (!header) packageSigned_ = any && firstFailure.empty();
        // Every signature must verify; of rpm 6's tag 278, any one.
        const bool failed = any && (openPgp ? !anyGood : !firstFailure.empty());
        if (failed)
            pendingSignatureFailure_ = pendingSignatureFailure_.empty() ? firstFailure : pendingSignatureFailure_;
        if (!header) {
            if (!any) {
                verdict.Record(RpmCheck{RpmCheck::PackageSignature, RpmCheck::NotFound, "Header and payload signature", "", ""});
            }
            if (!pendingSignatureFailure_.empty()) deferredFailure_ = true;
        } else if (!any) {
            verdict.Record(RpmCheck{RpmCheck::HeaderSignature, RpmCheck::NotFound, "Header signature", "", ""});
        }
    }

    void CheckDigest(Verdict& verdict, RpmCheck::Kind kind, const std::string& label, const std::string& expected,
                     const std::string& computed) {
        const bool good = expected == computed;
        verdict.Record(RpmCheck{kind, good ? RpmCheck::Ok : RpmCheck::Bad, label,
                       good ? "" : "Expected " + expected + " != " + computed, ""});
        if (!good) verdict.Fail(ResultInvalidHash, "Invalid value of " + label);
    }

    void CheckDigests(Verdict& verdict) {
        for (const auto& digest : headerDigests_) {
            const std::string label = "Header " + OpenPgpHashName(digest.first) + " digest";
            CheckDigest(verdict, digest.first == PgpHashSha1 ? RpmCheck::HeaderSha1 : RpmCheck::HeaderDigest, label,
                        digest.second, headerHashes_.at(digest.first)->HexValue());
        }
        for (const PayloadDigest& digest : payloadDigests_) {
            const auto hash = payloadHashes_.find(digest.id);
            if (hash == payloadHashes_.end()) {
                verdict.Record(RpmCheck{RpmCheck::PayloadDigest, RpmCheck::Bad, digest.label, "the algorithm is not supported",
                               ""});
                verdict.Fail(ResultInvalidHash, "Unsupported algorithm of the " + digest.label);
                continue;
            }
            CheckDigest(verdict, RpmCheck::PayloadDigest, digest.label, digest.expected, hash->second->HexValue());
        }
        if (!md5_.empty()) CheckDigest(verdict, RpmCheck::Md5, "MD5 digest", md5_, packageHashes_.at(1)->HexValue());
    }

    void CheckCoverage(Verdict& verdict) {
        if (deferredFailure_) {
            verdict.Fail(ResultInvalidSignature, "PGP signature is not valid: " + pendingSignatureFailure_);
            return;
        }
        if (!headerSigned_ && !packageSigned_) {
            verdict.Fail(ResultNotSigned, "The package holds no signature");
            return;
        }
        if (payloadLength_ == 0) {
            verdict.Fail(ResultInvalidHash, "The package has no payload");
            return;
        }
        // A header signature covers the payload through the payload digest that the main header
        // holds; without one only a signature over header and payload does.
        if (!packageSigned_ && payloadDigests_.empty()) {
            verdict.Fail(ResultHeaderOnlySigned,
                         "The package is signed over its header only, and its header holds no payload digest");
        }
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
    bool headerSigned_ = false, packageSigned_ = false, deferredFailure_ = false;
    std::string pendingSignatureFailure_;
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
