#pragma once
// The signature header of an RPM package, in memory: the entries that verification needs (the
// SHA-1 text of the main header, the MD5 of header and payload, the OpenPGP signature over the
// header and those over header and payload), the digests computed over the package, and the
// verdict. The static helpers are the building blocks of a signature-header writer.
//
// The index entries live in a buffer that the RpmSigner owns: the constructor converts their
// offsets, counts and types to host order in place, so one buffer serves exactly one object. Given
// as a shared buffer, the object keeps its share, so the buffer lives as long as either user.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ByteCursor.h"
#include "PgpMessage.h"
#include "PgpSignature.h"
#include "RpmCheck.h"
#include "Signature.h"

// The type field of an index entry, as stored in the file.
enum RpmDataType : uint32_t {
    RpmInt16 = 3,
    RpmInt32 = 4,
    RpmInt64 = 5,
    RpmString = 6,
    RpmBinary = 7,
};

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

class RpmSignature : public Signature {
public:
    // The signature tags this object picks out of the index.
    enum Tag : uint32_t {
        TagHeaderSignature = 268,    // OpenPGP signature over the main header
        TagSha1 = 269,               // hexadecimal SHA-1 text of the main header
        TagPackageSignature = 1002,  // OpenPGP signature over header and payload
        TagMd5 = 1004,               // MD5 of header and payload, 16 bytes
    };
    // The largest index the signature-header walk supports.
    static const uint32_t MaxEntries = 255;

    // entries: the index (header.indexCount entries) followed by the store (header.dataSize bytes),
    // with the counts of header already in host order. Throws DataFormatException when an entry
    // that is used points outside the store or holds no OpenPGP signature.
    RpmSignature(void* entries, const HeaderStructureHeader& header);
    RpmSignature(std::shared_ptr<char[]> entries, const HeaderStructureHeader& header);
    ~RpmSignature() override;

    // The ProcessingResult of the package, with the reason in message.
    int Verify(std::string& message) const override;
    // Verify, and with checks every check made, in order (the verdict and message stay Verify's).
    int Evaluate(std::string& message, std::vector<RpmCheck>* checks) const;
    int Sign(soapWrap::Binary* out, const soapWrap::Binary* in, std::string& message) override;
    // The hash algorithm of the header signature; NotDefinedException when there is none.
    soapWrap::HashAlgorithm GetHashAlgorithm() override;
    void UpdateDigests() override;

    void CleanUpPgpSignatures();
    void CreatePgpSignatures();
    // The number of bytes after the main header, as the package digests found them. A package
    // without payload is refused: nothing set means none.
    void SetPayloadLength(unsigned long long length) { payloadLength_ = length; }
    unsigned long long GetPayloadLength() const { return payloadLength_; }

    // Lends digest to pgp as its digest 0 and checks it; reason (when given) receives the
    // signature's own text of a failure.
    void VerifyPgpSignature(PgpSignature* pgp, DigestBase* digest, int& result, std::string& message,
                            std::string* reason = nullptr) const;

    const char* GetSha1Value() const { return sha1_; }
    const unsigned char* GetMd5Value() const { return md5_; }
    PgpSignature* GetHeaderSignature() const { return headerSignature_.get(); }
    const std::vector<std::unique_ptr<PgpSignature>>& GetPackageSignatures() const { return packageSignatures_; }
    uint32_t GetEntryCount() const { return entryCount_; }
    uint32_t GetDataSize() const { return dataSize_; }

    // Pads offset for the alignment of type (2, 4 or 8 bytes for types 3, 4, 5); returns the padding.
    static unsigned int BoundaryAlign(RpmDataType type, unsigned int& offset);
    static unsigned int GetEntryStorageSize(RpmDataType type, unsigned char* data, unsigned int count);
    // tag is stored as given (already in file order); type, offset and count are stored big-endian.
    static void CreateHeaderEntry(SignatureEntry* entry, unsigned int tag, unsigned int type, unsigned int offset,
                                  unsigned int count);
    static void CreateStorage(RpmDataType type, unsigned char* dest, unsigned char* src, unsigned int& size);

private:
    class Evaluation;
    bool CheckHeaderDigest(Evaluation& evaluation) const;
    bool CheckPackageDigest(Evaluation& evaluation) const;
    int CheckSignature(Evaluation& evaluation, RpmCheck::Kind kind, PgpSignature* signature, DigestBase* digest) const;
    bool CheckHeaderSignature(Evaluation& evaluation) const;
    void CheckPackageSignatures(Evaluation& evaluation) const;
    // The tags the index walk reads, how long their values are and where they are kept: one row
    // per tag (RpmSignature.cpp).
    enum class Extent;
    struct TagRule;
    static const TagRule kTagRules[];

    void ParseEntries();
    // The data store after the index.
    ByteCursor Store() const;
    // The value of entry, as long as rule makes it.
    ByteCursor ValueFor(const TagRule& rule, const SignatureEntry& entry);
    // The value of entry, checked to lie inside the store with at least length bytes; length is
    // counted against the bytes all values read so far may take.
    ByteCursor ValueOf(const SignatureEntry& entry, uint64_t length);
    void KeepHeaderSignature(const SignatureEntry& entry, const ByteCursor& value);
    void KeepSha1(const SignatureEntry& entry, const ByteCursor& value);
    void KeepPackageSignature(const SignatureEntry& entry, const ByteCursor& value);
    void KeepMd5(const SignatureEntry& entry, const ByteCursor& value);
    // The OpenPGP signature in entry's value, with the message that holds its packet.
    std::unique_ptr<PgpSignature> ParsePgpSignature(const SignatureEntry& entry, const ByteCursor& value,
                                                    std::unique_ptr<PgpMessage>& message);

    std::shared_ptr<char[]> share_;  // keeps a shared buffer alive; empty for a borrowed one
    SignatureEntry* entries_;        // not owned
    uint32_t entryCount_;
    uint32_t dataSize_;
    uint64_t valueBytes_;  // bytes of the values read so far
    unsigned long long payloadLength_;
    const char* sha1_;
    const unsigned char* md5_;
    std::unique_ptr<PgpSignature> headerSignature_;
    std::vector<std::unique_ptr<PgpSignature>> packageSignatures_;
    // The messages that hold the signature packets, one per signature above, in the same order.
    std::unique_ptr<PgpMessage> headerMessage_;
    std::vector<std::unique_ptr<PgpMessage>> packageMessages_;
};
