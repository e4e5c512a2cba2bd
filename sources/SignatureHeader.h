#pragma once
// The signature header of an RPM package, parsed: the entries that verification reads (the SHA-1
// text of the main header, the MD5 of header and payload, the OpenPGP signature over the header and
// those over header and payload), and the verdict they give against a key and the package's
// digests.
//
// The index entries are decoded into values and the store is kept by the object: the caller's
// buffer is read, never changed, and may go once the object is made.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ByteCursor.h"
#include "DigestBase.h"
#include "Evaluation.h"
#include "PackageFile.h"
#include "PgpKey.h"
#include "PgpMessage.h"
#include "RpmCheck.h"
#include "soapWrap.h"

// The 16 bytes that open every header structure: magic 8E AD E8, version 1, four reserved bytes,
// then the index count and the data size (big-endian in the file).
struct HeaderStructureHeader {
    unsigned char magic[4];
    unsigned char reserved[4];
    uint32_t indexCount;
    uint32_t dataSize;
};
static_assert(sizeof(HeaderStructureHeader) == 16, "a header structure header is 16 bytes");

// One 16-byte index entry: tag, type, offset into the data store, count.
struct SignatureEntry {
    uint32_t tag;
    uint32_t type;
    uint32_t offset;
    uint32_t count;
};
static_assert(sizeof(SignatureEntry) == 16, "an index entry is 16 bytes");

// The digests of one package, computed in one pass over the main header and the payload.
struct PackageDigests {
    std::unique_ptr<DigestBase> headerSha1;     // SHA-1 of the main header (against tag 269)
    std::unique_ptr<DigestBase> headerSigned;   // the main header, in the header signature's hash
    std::unique_ptr<DigestBase> packageMd5;     // MD5 of main header and payload (against tag 1004)
    std::unique_ptr<DigestBase> packageSigned;  // main header and payload, in the header signature's hash
    // Only for the signing path, and only when the header signature's hash is not SHA-1: SHA-1 of
    // the main header and of header and payload. Verification never reads them.
    std::unique_ptr<DigestBase> headerSha1Extra;
    std::unique_ptr<DigestBase> packageSha1Extra;
    // Bytes after the main header.
    uint64_t payloadLength = 0;
};

class SignatureHeader {
public:
    // The signature tags read from the index.
    enum Tag : uint32_t {
        TagHeaderSignature = 268,    // OpenPGP signature over the main header
        TagSha1 = 269,               // hexadecimal SHA-1 text of the main header
        TagPackageSignature = 1002,  // OpenPGP signature over header and payload
        TagMd5 = 1004,               // MD5 of header and payload, 16 bytes
    };
    // The largest index the walk supports.
    static constexpr uint32_t MaxEntries = 255;

    // entries: the index (header.indexCount entries) followed by the store (header.dataSize bytes),
    // with the counts of header already in host order. Throws DataFormatException when an entry
    // that is used points outside the store or holds no OpenPGP signature of a document.
    SignatureHeader(const void* entries, const HeaderStructureHeader& header);
    SignatureHeader(const std::shared_ptr<char[]>& entries, const HeaderStructureHeader& header);
    // The signature header as the package reader decoded it.
    explicit SignatureHeader(SignatureHeaderData data);

    SignatureHeader(const SignatureHeader&) = delete;
    SignatureHeader& operator=(const SignatureHeader&) = delete;

    const char* Sha1Text() const { return sha1_; }
    const unsigned char* Md5Value() const { return md5_; }
    // The last tag-268 signature, or null.
    const PgpSignatureData* HeaderSignature() const;
    const std::vector<const PgpSignatureData*>& PackageSignatures() const { return packageSignatures_; }
    uint32_t EntryCount() const { return entryCount_; }
    uint32_t DataSize() const { return dataSize_; }
    // The hash the package digests are computed in: the header signature's, SHA-1 without one.
    soapWrap::HashAlgorithm DigestHash() const;

    // The ProcessingResult of the package, with the reason in message. The checks in their order:
    // the SHA-1 of the main header, the payload and the MD5 of header and payload, the header
    // signature, the header-and-payload signatures. The first that fails decides the verdict and its
    // message. Without a record the evaluation ends there; with one every check is made and
    // recorded, and a later check neither changes the verdict nor its message. The key is taken
    // from keys only when a signature is checked.
    int Evaluate(KeySource& keys, const PackageDigests& digests, std::string& message,
                 std::vector<RpmCheck>* checks) const;

    // One signature against signedData: its result, its text appended to message (a refused RSA
    // value's message starts "RSA signature is not valid. "), and in reason (when given) the
    // signature's own text of a failure.
    static int CheckSignature(const PgpSignatureData& signature, KeySource& keys, const DigestBase* signedData,
                              std::string& message, std::string* reason);

private:
    // What the evaluation reads: the digests against the values the header holds, and the signatures.
    PackageFindings Findings(KeySource& keys, const PackageDigests& digests) const;
    static SignatureFinding Finding(RpmCheck::Kind kind, const PgpSignatureData& signature, KeySource& keys,
                                    const DigestBase* digest);

    // How the index walk takes the value of a tag the classic policy reads (SignatureHeader.cpp).
    struct TagRule;
    static const TagRule& RuleFor(const struct SignatureTagRow& row);

    void ParseEntries(uint32_t entryCount);
    // The data store after the index.
    ByteCursor Store() const;
    // The value of entry, as long as rule makes it.
    ByteCursor ValueFor(const TagRule& rule, const HeaderEntry& entry);
    // The value of entry, checked to lie inside the store with at least length bytes; length is
    // counted against the bytes all values read so far may take.
    ByteCursor ValueOf(const HeaderEntry& entry, uint64_t length);
    void KeepHeaderSignature(const HeaderEntry& entry, const ByteCursor& value);
    void KeepSha1(const HeaderEntry& entry, const ByteCursor& value);
    void KeepPackageSignature(const HeaderEntry& entry, const ByteCursor& value);
    void KeepMd5(const HeaderEntry& entry, const ByteCursor& value);
    // The message holding the OpenPGP signature in entry's value.
    std::unique_ptr<PgpMessage> ParsePgpSignature(const HeaderEntry& entry, const ByteCursor& value);

    std::vector<HeaderEntry> entries_;
    std::vector<unsigned char> store_;
    uint32_t entryCount_;
    uint32_t dataSize_;
    uint64_t valueBytes_;  // bytes of the values read so far
    const char* sha1_;
    const unsigned char* md5_;
    // The messages that hold the signature packets, and the packets of header and payload.
    std::unique_ptr<PgpMessage> headerMessage_;
    std::vector<std::unique_ptr<PgpMessage>> packageMessages_;
    std::vector<const PgpSignatureData*> packageSignatures_;
};
