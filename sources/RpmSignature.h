#pragma once
// The signature header of an RPM package as a Signature of the framework: the parsed header
// (SignatureHeader.h), one PgpSignature over each of its OpenPGP packets, and the package digests
// in the numbered store (0: SHA-1 of the main header, 1: the main header in the header signature's
// hash, 2: SHA-1 of the main header when that hash is another, 3: MD5 of header and payload, 4:
// header and payload in the signature's hash, 5: their SHA-1 when that hash is another). Verify
// takes the key from the certificate manager. The static helpers are the building blocks of a
// signature-header writer.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "PgpSignature.h"
#include "RpmCheck.h"
#include "Signature.h"
#include "SignatureHeader.h"

class RpmSignature : public Signature {
public:
    // The signature tags this object picks out of the index.
    enum Tag : uint32_t {
        TagHeaderSignature = SignatureHeader::TagHeaderSignature,
        TagSha1 = SignatureHeader::TagSha1,
        TagPackageSignature = SignatureHeader::TagPackageSignature,
        TagMd5 = SignatureHeader::TagMd5,
    };
    // The largest index the signature-header walk supports.
    static constexpr uint32_t MaxEntries = SignatureHeader::MaxEntries;

    // entries: the index (header.indexCount entries) followed by the store (header.dataSize bytes),
    // with the counts of header already in host order. Throws DataFormatException when an entry
    // that is used points outside the store or holds no OpenPGP signature.
    RpmSignature(void* entries, const HeaderStructureHeader& header);
    RpmSignature(const std::shared_ptr<char[]>& entries, const HeaderStructureHeader& header);
    // The signature header as the package reader decoded it.
    explicit RpmSignature(SignatureHeaderData data);
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

    const char* GetSha1Value() const { return header_.Sha1Text(); }
    const unsigned char* GetMd5Value() const { return header_.Md5Value(); }
    PgpSignature* GetHeaderSignature() const { return headerSignature_.get(); }
    const std::vector<std::unique_ptr<PgpSignature>>& GetPackageSignatures() const { return packageSignatures_; }
    uint32_t GetEntryCount() const { return header_.EntryCount(); }
    uint32_t GetDataSize() const { return header_.DataSize(); }

    // Pads offset for the alignment of type (2, 4 or 8 bytes for types 3, 4, 5); returns the padding.
    static unsigned int BoundaryAlign(RpmDataType type, unsigned int& offset);
    static unsigned int GetEntryStorageSize(RpmDataType type, unsigned char* data, unsigned int count);
    // tag is stored as given (already in file order); type, offset and count are stored big-endian.
    static void CreateHeaderEntry(SignatureEntry* entry, unsigned int tag, unsigned int type, unsigned int offset,
                                  unsigned int count);
    static void CreateStorage(RpmDataType type, unsigned char* dest, unsigned char* src, unsigned int& size);

private:
    // One PgpSignature over each packet of the parsed header.
    void WrapParsedSignatures();

    SignatureHeader header_;
    unsigned long long payloadLength_;
    std::unique_ptr<PgpSignature> headerSignature_;
    std::vector<std::unique_ptr<PgpSignature>> packageSignatures_;
};
