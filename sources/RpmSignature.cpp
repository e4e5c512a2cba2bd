#include "RpmSignature.h"

#include <arpa/inet.h>

#include <cctype>
#include <cstring>

#include "Base.h"
#include "ByteCursor.h"
#include "Exceptions.h"

namespace {

std::string EntryName(uint32_t tag) {
    return "RPM signature tag " + std::to_string(tag);
}

}  // namespace

// How the walk finds the length of a value it reads.
enum class RpmSignature::Extent {
    Count,  // the entry's count, in bytes
    Text,   // up to and with the first NUL inside the store; the count is not read
    Fixed,  // the rule's length; the count is not read
};

// A tag the index walk reads. The type is the one writers store; the walk does not check it, so an
// entry of the tag is read the same way whatever type it gives.
struct RpmSignature::TagRule {
    uint32_t tag;
    RpmDataType type;
    Extent extent;
    uint32_t length;  // for Extent::Fixed
    void (RpmSignature::*keep)(const SignatureEntry& entry, const ByteCursor& value);
};

// The signature-header tags the module reads; entries of any other tag are neither read nor checked.
const RpmSignature::TagRule RpmSignature::kTagRules[] = {
    {TagHeaderSignature, RpmBinary, Extent::Count, 0, &RpmSignature::KeepHeaderSignature},
    {TagSha1, RpmString, Extent::Text, 0, &RpmSignature::KeepSha1},
    {TagPackageSignature, RpmBinary, Extent::Count, 0, &RpmSignature::KeepPackageSignature},
    {TagMd5, RpmBinary, Extent::Fixed, 16, &RpmSignature::KeepMd5},
};

RpmSignature::RpmSignature(std::shared_ptr<char[]> entries, const HeaderStructureHeader& header)
    : RpmSignature(static_cast<void*>(entries.get()), header) {
    share_ = std::move(entries);
}

RpmSignature::RpmSignature(void* entries, const HeaderStructureHeader& header)
    : entries_(static_cast<SignatureEntry*>(entries)),
      entryCount_(header.indexCount),
      dataSize_(header.dataSize),
      valueBytes_(0),
      payloadLength_(0),
      sha1_(nullptr),
      md5_(nullptr),
      headerSignature_(nullptr) {
    if (entryCount_ == 0) {
        return;
    }
    // The reader walks the index with an 8-bit counter, which can never reach a count of 256 or more.
    if (entryCount_ > MaxEntries) {
        throw DataFormatException("RPM signature header holds " + std::to_string(entryCount_) +
                                  " index entries; at most 255 are supported");
    }
    try {
        ParseEntries();
    } catch (...) {
        CleanUpPgpSignatures();
        throw;
    }
}

RpmSignature::~RpmSignature() {
    CleanUpPgpSignatures();
}

void RpmSignature::ParseEntries() {
    for (uint32_t index = 0; index < entryCount_; ++index) {
        SignatureEntry& entry = entries_[index];
        entry.offset = ntohl(entry.offset);
        entry.count = ntohl(entry.count);
        entry.type = ntohl(entry.type) & 0xFF;
        // The tag stays in file order; it is compared with the big-endian form of each tag.
        for (const TagRule& rule : kTagRules) {
            if (entry.tag == htonl(rule.tag)) {
                (this->*rule.keep)(entry, ValueFor(rule, entry));
                break;
            }
        }
    }
}

ByteCursor RpmSignature::Store() const {
    return ByteCursor(entries_ + entryCount_, dataSize_, "RPM signature store");
}

ByteCursor RpmSignature::ValueFor(const TagRule& rule, const SignatureEntry& entry) {
    switch (rule.extent) {
        case Extent::Count: return ValueOf(entry, entry.count);
        case Extent::Fixed: return ValueOf(entry, rule.length);
        case Extent::Text: break;
    }
    ByteCursor text = Store();
    const void* end = nullptr;
    if (text.Has(entry.offset)) {
        text.Skip(entry.offset);
        end = std::memchr(text.Here(), '\0', static_cast<size_t>(text.Remaining()));
    }
    if (end == nullptr) {
        ValueOf(entry, 1);  // outside the store: says so
        throw DataFormatException(EntryName(ntohl(entry.tag)) + ": the text is not terminated inside the store");
    }
    return ValueOf(entry, static_cast<const unsigned char*>(end) - text.Here() + 1);
}

ByteCursor RpmSignature::ValueOf(const SignatureEntry& entry, uint64_t length) {
    ByteCursor value = Store();
    if (!value.HasAt(entry.offset, length)) {
        throw DataFormatException(EntryName(ntohl(entry.tag)) + ": " + std::to_string(length) + " bytes at offset " +
                                  std::to_string(entry.offset) + " lie outside the store of " +
                                  std::to_string(dataSize_) + " bytes");
    }
    // The values a writer stores never share bytes, so together they fit in the store. Entries
    // that all point at the same bytes would make each of them parsed and kept again.
    valueBytes_ += length;
    if (valueBytes_ > dataSize_) {
        throw DataFormatException(EntryName(ntohl(entry.tag)) + ": the values read add up to " +
                                  std::to_string(valueBytes_) + " bytes, more than the store of " +
                                  std::to_string(dataSize_) + " bytes");
    }
    value.Skip(entry.offset);
    return value.Take(length);
}

void RpmSignature::KeepHeaderSignature(const SignatureEntry& entry, const ByteCursor& value) {
    // A later tag-268 entry replaces the earlier signature, which nothing refers to yet.
    std::unique_ptr<PgpMessage> message;
    std::unique_ptr<PgpSignature> signature(ParsePgpSignature(entry, value, message));
    headerSignature_ = std::move(signature);
    headerMessage_ = std::move(message);
}

void RpmSignature::KeepSha1(const SignatureEntry&, const ByteCursor& value) {
    sha1_ = reinterpret_cast<const char*>(value.Here());
}

void RpmSignature::KeepPackageSignature(const SignatureEntry& entry, const ByteCursor& value) {
    std::unique_ptr<PgpMessage> message;
    std::unique_ptr<PgpSignature> signature(ParsePgpSignature(entry, value, message));
    packageMessages_.reserve(packageMessages_.size() + 1);
    packageSignatures_.push_back(std::move(signature));
    packageMessages_.push_back(std::move(message));
}

void RpmSignature::KeepMd5(const SignatureEntry&, const ByteCursor& value) {
    md5_ = value.Here();
}

std::unique_ptr<PgpSignature> RpmSignature::ParsePgpSignature(const SignatureEntry& entry, const ByteCursor& value,
                                                              std::unique_ptr<PgpMessage>& message) {
    message = std::make_unique<PgpMessage>(reinterpret_cast<const char*>(value.Here()),
                                           static_cast<unsigned int>(value.Size()));
    PgpSignatureData* data = message->GetSignatureData();
    if (data == nullptr) {
        throw DataFormatException(EntryName(ntohl(entry.tag)) + " holds no OpenPGP signature packet");
    }
    // A version 3 signature hashes the data, then only its type and creation time. A version 4
    // header signature hashes the header, then its trailer (04, type, algorithms, hashed area,
    // 04 FF and a length): that trailer less its last 5 octets as the payload, and those 5 octets
    // as a version 3 packet's type and time, would let the header signature pass for a package
    // signature. The type octet is then 0xFF; a signature over data is a document signature,
    // 0x00 (binary) or 0x01 (text).
    if (data->GetVersion() == 3 && data->GetHashedData()[0] > 0x01) {
        throw DataFormatException(EntryName(ntohl(entry.tag)) + ": a version 3 signature of type " +
                                  std::to_string(data->GetHashedData()[0]) + " does not sign a document");
    }
    return std::make_unique<PgpSignature>(data);
}

void RpmSignature::CleanUpPgpSignatures() {
    headerSignature_.reset();
    packageSignatures_.clear();
    headerMessage_.reset();
    packageMessages_.clear();
}

void RpmSignature::CreatePgpSignatures() {}

int RpmSignature::Sign(soapWrap::Binary*, const soapWrap::Binary*, std::string&) {
    return 1;
}

soapWrap::HashAlgorithm RpmSignature::GetHashAlgorithm() {
    if (headerSignature_ == nullptr) {
        throw NotDefinedException("There are no PGP signatures.");
    }
    return headerSignature_->GetHashAlgorithm();
}

// The signing path: fresh signatures get the hashes of the package. CreatePgpSignatures makes none,
// so this ends at the missing header signature.
void RpmSignature::UpdateDigests() {
    CleanUpPgpSignatures();
    CreatePgpSignatures();
    if (headerSignature_ == nullptr || packageSignatures_.empty()) {
        throw NotDefinedException("There are no PGP signatures.");
    }
    struct Slots {
        PgpSignature* signature;
        int hash, extra;
    };
    for (const Slots& slots : {Slots{headerSignature_.get(), 1, 2}, Slots{packageSignatures_.front().get(), 4, 5}}) {
        const int stale = GetDigest(slots.extra) != nullptr ? slots.extra : slots.hash;
        delete GetDigest(stale);
        SetDigest(stale, nullptr);
        DigestBase* hash = slots.signature->UpdateHash();
        slots.signature->SetDigest(0, hash->Copy());
        SetDigest(slots.hash, hash);
        SetDigest(slots.extra, nullptr);
    }
}

void RpmSignature::VerifyPgpSignature(PgpSignature* pgp, DigestBase* digest, int& result, std::string& message,
                                      std::string* reason) const {
    // Lent once: lending the same digest again would hand it to the signature's own store.
    if (pgp->GetDigest(0) != digest) {
        pgp->SetDigest(0, digest);
    }
    std::string appended;
    result = pgp->Verify(appended);
    message += appended;
    if (reason != nullptr) {
        *reason = appended.empty() || appended[0] != ' ' ? appended : appended.substr(1);
    }
    if (result == ResultInvalidSignature) {
        message = "RSA signature is not valid. " + message;
    }
}

namespace {

std::string HexOf(const unsigned char* bytes, unsigned int length) {
    return Base::DumpBufferToString(bytes, length, false);
}

std::string Mismatch(const std::string& expected, const std::string& computed) {
    return "Expected " + expected + " != " + computed;
}

// "RSA/SHA256" in the manner of rpmkeys: the public-key and hash algorithms of a signature packet.
std::string AlgorithmsOf(const PgpSignatureData& data) {
    std::string text;
    switch (data.GetPublicKeyAlgorithm()) {
        case 1:
        case 2:
        case 3: text = "RSA"; break;
        case 17: text = "DSA"; break;
        default: text = "algorithm " + std::to_string(data.GetPublicKeyAlgorithm()); break;
    }
    switch (data.GetHashAlgorithm()) {
        case PgpHashMd5: return text + "/MD5";
        case PgpHashSha1: return text + "/SHA1";
        case PgpHashRipemd160: return text + "/RIPEMD160";
        case PgpHashSha256: return text + "/SHA256";
        case PgpHashSha384: return text + "/SHA384";
        case PgpHashSha512: return text + "/SHA512";
        case PgpHashSha224: return text + "/SHA224";
        default: return text + "/hash " + std::to_string(data.GetHashAlgorithm());
    }
}

RpmCheck SignatureCheck(RpmCheck::Kind kind, const PgpSignature& signature) {
    const PgpSignatureData& data = *signature.GetSignatureData();
    const std::string keyId = Base::DumpBufferToString(data.GetIssuerId(), 8, true);
    std::string shortId = keyId.substr(8);
    for (char& c : shortId) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    std::string label = kind == RpmCheck::HeaderSignature ? "Header V" : "V";
    label += std::to_string(data.GetVersion()) + " " + AlgorithmsOf(data) + " Signature, key ID " + shortId;
    return RpmCheck{kind, RpmCheck::Ok, label, "", keyId};
}

}  // namespace

// The running verdict of an evaluation. The first failure decides the verdict and its message; with a
// record of checks the evaluation goes on after it and keeps every check.
class RpmSignature::Evaluation {
public:
    Evaluation(std::string& message, std::vector<RpmCheck>* checks) : message_(message), checks_(checks) {}

    // Takes result as the verdict unless one was taken (text, when given, as its message); says
    // whether the evaluation goes on.
    bool Fail(int result, const char* text) {
        if (!decided_) {
            verdict_ = result;
            if (text != nullptr) message_ = text;
            decided_ = true;
        }
        return checks_ != nullptr;
    }
    void Record(RpmCheck check) {
        if (checks_ != nullptr) checks_->push_back(std::move(check));
    }
    bool Decided() const { return decided_; }
    int Verdict() const { return verdict_; }
    // Where a signature check writes its text: the verdict's message while the verdict is open.
    std::string& Text() { return decided_ ? scratch_ : message_; }

private:
    std::string& message_;
    std::vector<RpmCheck>* checks_;
    std::string scratch_;
    int verdict_ = ResultSigned;
    bool decided_ = false;
};

int RpmSignature::Verify(std::string& message) const {
    return Evaluate(message, nullptr);
}

// The checks in their order: the SHA-1 of the main header, the payload and the MD5 of header and
// payload, the header signature, the header-and-payload signatures. The first that fails decides
// the verdict and its message. Without a record the evaluation ends there; with one every check is
// made and recorded, and a later check neither changes the verdict nor its message.
int RpmSignature::Evaluate(std::string& message, std::vector<RpmCheck>* checks) const {
    if (GetDigest(0) == nullptr || GetDigest(3) == nullptr) {
        throw NotDefinedException("The package digests have not been computed.");
    }
    Evaluation evaluation(message, checks);
    if (CheckHeaderDigest(evaluation) && CheckPackageDigest(evaluation) && CheckHeaderSignature(evaluation)) {
        CheckPackageSignatures(evaluation);
    }
    return evaluation.Verdict();
}

bool RpmSignature::CheckHeaderDigest(Evaluation& evaluation) const {
    // The SHA-1 of the main header, as lower-case hexadecimal text. A copy is finished so that the
    // digest itself stays open.
    std::unique_ptr<DigestBase> copy(GetDigest(0)->Copy());
    const std::string sha1 = HexOf(copy->GetValue(), copy->GetLength());
    const bool good = sha1_ != nullptr && sha1 == sha1_;
    evaluation.Record({RpmCheck::HeaderSha1,
                       good               ? RpmCheck::Ok
                       : sha1_ == nullptr ? RpmCheck::NotFound
                                          : RpmCheck::Bad,
                       "Header SHA1 digest", good || sha1_ == nullptr ? "" : Mismatch(sha1_, sha1), ""});
    return good || evaluation.Fail(ResultInvalidHash, "Invalid value of SHA1 header hash");
}

bool RpmSignature::CheckPackageDigest(Evaluation& evaluation) const {
    // With nothing after the main header, the digest of header and payload is the digest of the
    // header alone, and a signature over the header would pass for one over the whole package.
    // A package always carries a payload.
    if (payloadLength_ == 0 && !evaluation.Fail(ResultInvalidHash, "The package has no payload")) {
        return false;
    }
    DigestBase* packageMd5 = GetDigest(3);
    const std::string md5 = HexOf(packageMd5->GetValue(), packageMd5->GetLength());
    const bool good = md5_ != nullptr && std::memcmp(packageMd5->GetValue(), md5_, packageMd5->GetLength()) == 0;
    std::string reason;
    if (payloadLength_ == 0) {
        reason = "The package has no payload";
    } else if (!good && md5_ != nullptr) {
        reason = Mismatch(HexOf(md5_, packageMd5->GetLength()), md5);
    }
    evaluation.Record({RpmCheck::Md5,
                       good && payloadLength_ != 0 ? RpmCheck::Ok
                       : md5_ == nullptr           ? RpmCheck::NotFound
                                                   : RpmCheck::Bad,
                       "MD5 digest", reason, ""});
    return good || evaluation.Fail(ResultInvalidHash, "Invalid value of MD5 hash");
}

// One signature check: while the verdict is open its text goes into the verdict's message. An
// exception ends the evaluation unless the verdict was already decided.
int RpmSignature::CheckSignature(Evaluation& evaluation, RpmCheck::Kind kind, PgpSignature* signature,
                                 DigestBase* digest) const {
    RpmCheck check = SignatureCheck(kind, *signature);
    int result = ResultInternalError;
    try {
        VerifyPgpSignature(signature, digest, result, evaluation.Text(), &check.reason);
    } catch (const std::exception& e) {
        check.state = RpmCheck::Bad;
        check.reason = e.what();
        evaluation.Record(std::move(check));
        if (!evaluation.Decided()) throw;
        return ResultInternalError;
    }
    if (result != ResultSigned) check.state = RpmCheck::Bad;
    evaluation.Record(std::move(check));
    return result;
}

bool RpmSignature::CheckHeaderSignature(Evaluation& evaluation) const {
    if (headerSignature_ == nullptr) {
        evaluation.Record({RpmCheck::HeaderSignature, RpmCheck::NotFound, "Header signature", "", ""});
        return evaluation.Fail(ResultNotSigned, nullptr);
    }
    const int result = CheckSignature(evaluation, RpmCheck::HeaderSignature, headerSignature_.get(), GetDigest(1));
    return result == ResultSigned || evaluation.Fail(result, nullptr);
}

void RpmSignature::CheckPackageSignatures(Evaluation& evaluation) const {
    if (packageSignatures_.empty()) {
        evaluation.Record({RpmCheck::PackageSignature, RpmCheck::NotFound, "Header and payload signature", "", ""});
        evaluation.Fail(ResultHeaderOnlySigned,
                        "The package does not contain PGP signature over its header and payload.");
        return;
    }
    // Every signature is checked; any one valid signature makes the package valid.
    bool anyValid = false;
    for (const std::unique_ptr<PgpSignature>& signature : packageSignatures_) {
        anyValid =
            CheckSignature(evaluation, RpmCheck::PackageSignature, signature.get(), GetDigest(4)) == ResultSigned ||
            anyValid;
    }
    if (!anyValid && !evaluation.Decided()) {
        evaluation.Text() = "PGP signature is not valid: " + evaluation.Text();
        evaluation.Fail(ResultInvalidSignature, nullptr);
    }
}

unsigned int RpmSignature::BoundaryAlign(RpmDataType type, unsigned int& offset) {
    unsigned int alignment = 0;
    switch (type) {
        case RpmInt16: alignment = 2; break;
        case RpmInt32: alignment = 4; break;
        case RpmInt64: alignment = 8; break;
        default: return 0;
    }
    const unsigned int padding = (alignment - offset % alignment) % alignment;
    offset += padding;
    return padding;
}

unsigned int RpmSignature::GetEntryStorageSize(RpmDataType type, unsigned char* data, unsigned int count) {
    switch (type) {
        case RpmInt32: return 4;
        case RpmInt64: return 8;
        case RpmString: return static_cast<unsigned int>(std::strlen(reinterpret_cast<const char*>(data))) + 1;
        case RpmBinary: return count;
        default:
            throw NotImplementedException("GetEntryStorageSize() is not implemented for data type = " +
                                          std::to_string(static_cast<uint32_t>(type)));
    }
}

void RpmSignature::CreateHeaderEntry(SignatureEntry* entry, unsigned int tag, unsigned int type, unsigned int offset,
                                     unsigned int count) {
    entry->tag = tag;
    entry->type = type << 24;
    entry->offset = htonl(offset);
    entry->count = htonl(count);
}

void RpmSignature::CreateStorage(RpmDataType type, unsigned char* dest, unsigned char* src, unsigned int& size) {
    switch (type) {
        case RpmString:
            size = static_cast<unsigned int>(std::strlen(reinterpret_cast<const char*>(src)));
            std::memcpy(dest, src, size);
            dest[size] = '\0';
            ++size;
            return;
        case RpmInt32: size = 4; break;
        case RpmInt64: size = 8; break;
        default: break;
    }
    std::memcpy(dest, src, size);
}
