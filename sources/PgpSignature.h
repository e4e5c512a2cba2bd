#pragma once
// The Signature of one OpenPGP signature packet. Digest 0 holds the hash of the signed data;
// Verify checks the packet (PgpVerification.h) against the key the certificate manager loads.

#include "PgpPacket.h"
#include "Signature.h"

class PgpSignature : public Signature {
public:
    // data is not owned.
    explicit PgpSignature(PgpSignatureData* data);
    ~PgpSignature() override;

    // A copy of digest 0 fed with the signature's hashed fields (and the version 4 trailer); the
    // caller deletes it.
    DigestBase* UpdateHash() const;
    // 1 when the signature is good; 2 with the reason appended to message when it is not. A value
    // that RSA refuses leaves by std::logic_error "basic_string::_S_construct NULL not valid".
    int Verify(std::string& message) const override;
    // Writes a signature packet around the RSA value in `in` to out. When out->data is null, it goes
    // into a new[] array of GetSize() bytes that the caller owns (a std::unique_ptr<unsigned char[]>).
    int Sign(soapWrap::Binary* out, const soapWrap::Binary* in, std::string& message) override;
    soapWrap::HashAlgorithm GetHashAlgorithm() override;
    virtual unsigned int GetSignedSize();

    // Size of the packet Sign writes.
    unsigned int GetSize() const;
    static unsigned int GetSize(PgpSignatureVersion version, unsigned int keyBits);
    // OpenPGP hash ids and the module's algorithms; refused values throw NotSupportedException.
    static soapWrap::HashAlgorithm GetHashAlgorithm(int pgpHashId);
    static PgpHashAlgorithm GetPgpHashAlgorithm(soapWrap::HashAlgorithm algorithm);

    PgpSignatureData* GetSignatureData() const { return data_; }

private:
    // Write the packet body after its 3-octet header into p.
    void WriteVersion3Body(unsigned char* p, const unsigned char* left16, unsigned int keyBits,
                           const unsigned char* value) const;
    void WriteVersion4Body(unsigned char* p, const unsigned char* left16, unsigned int keyBits,
                           const unsigned char* value) const;

    PgpSignatureData* data_;
};
