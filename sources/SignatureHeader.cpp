#include "SignatureHeader.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "Base.h"
#include "Evaluation.h"
#include "Exceptions.h"
#include "OpenPgpAlgorithms.h"
#include "PgpVerification.h"
#include "ProcessingResult.h"
#include "SigningPolicy.h"

namespace {

std::string EntryName(uint32_t tag) {
    return "RPM signature tag " + std::to_string(tag);
}

}  // namespace

// How the walk finds the length of a value it reads, and where it keeps the value, by what the tag
// holds (SigningPolicy.h). The type the index gives is not checked: an entry of a tag the classic
// policy reads is read the same way whatever type it gives.
struct SignatureHeader::TagRule {
    enum Extent {
        Count,  // the entry's count, in bytes
        Text,   // up to and with the first NUL inside the store; the count is not read
        Fixed,  // the rule's length; the count is not read
    } extent;
    uint32_t length;  // for Fixed
    void (SignatureHeader::*keep)(const HeaderEntry& entry, const ByteCursor& value);
};

const SignatureHeader::TagRule& SignatureHeader::RuleFor(const SignatureTagRow& row) {
    static const TagRule kHeaderSignature{TagRule::Count, 0, &SignatureHeader::KeepHeaderSignature};
    static const TagRule kDigest{TagRule::Text, 0, &SignatureHeader::KeepSha1};
    static const TagRule kPackageSignature{TagRule::Count, 0, &SignatureHeader::KeepPackageSignature};
    static const TagRule kMd5{TagRule::Fixed, 16, &SignatureHeader::KeepMd5};
    switch (row.meaning) {
        case TagMeaning::HeaderSignature: return kHeaderSignature;
        case TagMeaning::PackageSignature: return kPackageSignature;
        case TagMeaning::PackageMd5: return kMd5;
        default: return kDigest;
    }
}

SignatureHeader::SignatureHeader(const std::shared_ptr<char[]>& entries, const HeaderStructureHeader& header)
    : SignatureHeader(static_cast<const void*>(entries.get()), header) {}

SignatureHeader::SignatureHeader(const void* entries, const HeaderStructureHeader& header)
    : entryCount_(header.indexCount), dataSize_(header.dataSize), valueBytes_(0), sha1_(nullptr), md5_(nullptr) {
    if (entryCount_ == 0) {
        return;
    }
    // The reader walks the index with an 8-bit counter, which can never reach a count of 256 or more.
    if (entryCount_ > MaxEntries) {
        throw DataFormatException("RPM signature header holds " + std::to_string(entryCount_) +
                                  " index entries; at most 255 are supported");
    }
    // The index and the store as given; the entries become values, the store a copy of its own.
    const uint64_t indexSize = 16ull * entryCount_;
    ByteCursor index(entries, indexSize, "RPM signature index");
    entries_.resize(entryCount_);
    for (HeaderEntry& entry : entries_) {
        entry.tag = index.ReadUInt32();
        entry.type = index.ReadUInt32();
        entry.offset = index.ReadUInt32();
        entry.count = index.ReadUInt32();
    }
    const auto* store = static_cast<const unsigned char*>(entries) + indexSize;
    store_.assign(store, store + dataSize_);
    ParseEntries(entryCount_);
}

SignatureHeader::SignatureHeader(SignatureHeaderData data)
    : entries_(std::move(data.structure.entries)),
      store_(std::move(data.store)),
      entryCount_(data.structure.indexCount),
      dataSize_(data.structure.dataSize),
      valueBytes_(0),
      sha1_(nullptr),
      md5_(nullptr) {
    ParseEntries(std::min<uint32_t>(entryCount_, MaxEntries));
}

void SignatureHeader::ParseEntries(uint32_t entryCount) {
    for (uint32_t index = 0; index < entryCount; ++index) {
        HeaderEntry& entry = entries_[index];
        // The type keeps its low byte, as the walk always read it.
        entry.type &= 0xFF;
        // The tags the classic policy reads; entries of any other tag are neither read nor checked.
        const VerificationPolicy& policy = PolicyOf(SigningPolicy::Classic);
        for (size_t row = 0; row < kSignatureTagCount; ++row) {
            if (kSignatureTags[row].*policy.reads && entry.tag == kSignatureTags[row].tag) {
                const TagRule& rule = RuleFor(kSignatureTags[row]);
                (this->*rule.keep)(entry, ValueFor(rule, entry));
                break;
            }
        }
    }
}

ByteCursor SignatureHeader::Store() const {
    return ByteCursor(store_.data(), store_.size(), "RPM signature store");
}

ByteCursor SignatureHeader::ValueFor(const TagRule& rule, const HeaderEntry& entry) {
    switch (rule.extent) {
        case TagRule::Count: return ValueOf(entry, entry.count);
        case TagRule::Fixed: return ValueOf(entry, rule.length);
        case TagRule::Text: break;
    }
    ByteCursor text = Store();
    const void* end = nullptr;
    if (text.Has(entry.offset)) {
        text.Skip(entry.offset);
        // An empty store has no bytes to search (and may have no address).
        end = text.Remaining() == 0 ? nullptr : std::memchr(text.Here(), '\0', static_cast<size_t>(text.Remaining()));
    }
    if (end == nullptr) {
        ValueOf(entry, 1);  // outside the store: says so
        throw DataFormatException(EntryName(entry.tag) + ": the text is not terminated inside the store");
    }
    return ValueOf(entry, static_cast<const unsigned char*>(end) - text.Here() + 1);
}

ByteCursor SignatureHeader::ValueOf(const HeaderEntry& entry, uint64_t length) {
    ByteCursor value = Store();
    if (!value.HasAt(entry.offset, length)) {
        throw DataFormatException(EntryName(entry.tag) + ": " + std::to_string(length) + " bytes at offset " +
                                  std::to_string(entry.offset) + " lie outside the store of " +
                                  std::to_string(dataSize_) + " bytes");
    }
    // The values a writer stores never share bytes, so together they fit in the store. Entries
    // that all point at the same bytes would make each of them parsed and kept again.
    valueBytes_ += length;
    if (valueBytes_ > dataSize_) {
        throw DataFormatException(EntryName(entry.tag) + ": the values read add up to " + std::to_string(valueBytes_) +
                                  " bytes, more than the store of " + std::to_string(dataSize_) + " bytes");
    }
    value.Skip(entry.offset);
    return value.Take(length);
}

void SignatureHeader::KeepHeaderSignature(const HeaderEntry& entry, const ByteCursor& value) {
    // A later tag-268 entry replaces the earlier signature.
    headerMessage_ = ParsePgpSignature(entry, value);
}

void SignatureHeader::KeepSha1(const HeaderEntry&, const ByteCursor& value) {
    sha1_ = reinterpret_cast<const char*>(value.Here());
}

void SignatureHeader::KeepPackageSignature(const HeaderEntry& entry, const ByteCursor& value) {
    std::unique_ptr<PgpMessage> message = ParsePgpSignature(entry, value);
    packageMessages_.reserve(packageMessages_.size() + 1);
    packageSignatures_.reserve(packageSignatures_.size() + 1);
    packageSignatures_.push_back(message->GetSignatureData());
    packageMessages_.push_back(std::move(message));
}

void SignatureHeader::KeepMd5(const HeaderEntry&, const ByteCursor& value) {
    md5_ = value.Here();
}

std::unique_ptr<PgpMessage> SignatureHeader::ParsePgpSignature(const HeaderEntry& entry, const ByteCursor& value) {
    auto message = std::make_unique<PgpMessage>(reinterpret_cast<const char*>(value.Here()),
                                                static_cast<unsigned int>(value.Size()));
    const PgpSignatureData* data = message->GetSignatureData();
    if (data == nullptr) {
        throw DataFormatException(EntryName(entry.tag) + " holds no OpenPGP signature packet");
    }
    // A signature over a package signs a document: type 0x00 (binary) or 0x01 (text). A version 3
    // signature hashes the data, then only its type and creation time. A version 4 header signature
    // hashes the header, then its trailer (04, type, algorithms, hashed area, 04 FF and a length):
    // that trailer less its last 5 octets as the payload, and those 5 octets as a version 3
    // packet's type and time, would let the header signature pass for a package signature; the
    // type octet is then 0xFF. A version 4 certification or revocation (0x10 to 0x30) signs a key,
    // not data.
    const unsigned int type = data->GetVersion() == 3 ? data->GetHashedData()[0] : data->GetSignatureType();
    if ((data->GetVersion() == 3 || data->GetVersion() == 4) && type > 0x01) {
        throw DataFormatException(EntryName(entry.tag) + ": a version " + std::to_string(data->GetVersion()) +
                                  " signature of type " + std::to_string(type) + " does not sign a document");
    }
    return message;
}

const PgpSignatureData* SignatureHeader::HeaderSignature() const {
    return headerMessage_ != nullptr ? headerMessage_->GetSignatureData() : nullptr;
}

soapWrap::HashAlgorithm SignatureHeader::DigestHash() const {
    const PgpSignatureData* signature = HeaderSignature();
    return signature != nullptr ? HashAlgorithmOf(signature->GetHashAlgorithm()) : soapWrap::Sha1;
}

int SignatureHeader::CheckSignature(const PgpSignatureData& signature, KeySource& keys, const DigestBase* signedData,
                                    std::string& message, std::string* reason) {
    std::string appended;
    const int result = CheckPgpSignature(signature, keys, signedData, appended);
    message += appended;
    if (reason != nullptr) {
        *reason = appended.empty() || appended[0] != ' ' ? appended : appended.substr(1);
    }
    if (result == ResultInvalidSignature) {
        message = "RSA signature is not valid. " + message;
    }
    return result;
}

namespace {

std::string HexOf(const unsigned char* bytes, unsigned int length) {
    return Base::DumpBufferToString(bytes, length, false);
}

RpmCheck SignatureCheck(RpmCheck::Kind kind, const PgpSignatureData& data) {
    return SignatureRecord(PolicyOf(SigningPolicy::Classic), kind, data.GetVersion(), data.GetPublicKeyAlgorithm(),
                           data.GetHashAlgorithm(), Base::DumpBufferToString(data.GetIssuerId(), 8, true));
}

}  // namespace

int SignatureHeader::Evaluate(KeySource& keys, const PackageDigests& digests, std::string& message,
                              std::vector<RpmCheck>* checks) const {
    if (digests.headerSha1 == nullptr || digests.packageMd5 == nullptr) {
        throw NotDefinedException("The package digests have not been computed.");
    }
    return EvaluatePackage(PolicyOf(SigningPolicy::Classic), Findings(keys, digests), message, checks);
}

namespace {

// The value of a digest, finished on a copy so that the digest itself stays open.
std::string ComputedValue(const DigestBase& digest) {
    std::unique_ptr<DigestBase> copy(digest.Copy());
    return HexOf(copy->GetValue(), copy->GetLength());
}

}  // namespace

SignatureFinding SignatureHeader::Finding(RpmCheck::Kind kind, const PgpSignatureData& signature, KeySource& keys,
                                          const DigestBase* digest) {
    // While the verdict is open the check's text goes into the verdict's message.
    const auto check = [&signature, &keys, digest](std::string& text) {
        SignatureOutcome outcome{RpmCheck::Ok, ResultSigned, ""};
        outcome.result = CheckSignature(signature, keys, digest, text, &outcome.reason);
        if (outcome.result != ResultSigned) outcome.state = RpmCheck::Bad;
        return outcome;
    };
    return SignatureFinding{kind == RpmCheck::HeaderSignature ? TagHeaderSignature : TagPackageSignature,
                            SignatureCheck(kind, signature), check};
}

// What the classic verification finds: the SHA-1 text of the main header, the MD5 of header and
// payload (both compared with the digests as computed), the last header signature and every
// signature over header and payload.
PackageFindings SignatureHeader::Findings(KeySource& keys, const PackageDigests& digests) const {
    PackageFindings findings;
    findings.headerDigests.push_back(DigestFinding{RpmCheck::HeaderSha1, "Header SHA1 digest", sha1_ != nullptr, true,
                                                   sha1_ != nullptr ? sha1_ : "", ComputedValue(*digests.headerSha1)});
    const std::string md5 = ComputedValue(*digests.packageMd5);
    findings.md5.present = md5_ != nullptr;
    findings.md5.expected = md5_ != nullptr ? HexOf(md5_, static_cast<unsigned int>(md5.size() / 2)) : "";
    findings.md5.value = md5;
    if (const PgpSignatureData* signature = HeaderSignature()) {
        findings.headerSignatures.push_back(
            Finding(RpmCheck::HeaderSignature, *signature, keys, digests.headerSigned.get()));
    }
    for (const PgpSignatureData* signature : packageSignatures_) {
        findings.packageSignatures.push_back(
            Finding(RpmCheck::PackageSignature, *signature, keys, digests.packageSigned.get()));
    }
    findings.payloadLength = digests.payloadLength;
    return findings;
}
