#pragma once
// The abstract base of signature objects: the digests a signature is checked against, kept by a
// small integer index whose meaning the derived class fixes, and additional binary items by index.
//
// Digest ownership follows the store's two states. While at most one digest was ever set it is
// only borrowed (one digest object can be lent to several signatures). Once a second one is set,
// every digest moves into a map that owns them and deletes them with the signature. Replacing an
// entry never deletes the digest it held: whoever replaces it deletes the old one first.

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "Base.h"
#include "DigestBase.h"
#include "ProcessingResult.h"
#include "soapWrap.h"

class Signature : public Base {
public:
    Signature();
    ~Signature() override;

    Signature(const Signature&) = delete;
    Signature& operator=(const Signature&) = delete;

    virtual int Verify(std::string& message) const = 0;
    virtual int Sign(soapWrap::Binary* out, const soapWrap::Binary* in, std::string& message) = 0;
    virtual soapWrap::HashAlgorithm GetHashAlgorithm() = 0;
    // 1 is RSA.
    virtual int GetPublicKeyAlgorithm() const;
    virtual void UpdateDigests();

    void SetDigest(int index, DigestBase* digest);
    // The digest stored under index, or null.
    DigestBase* GetDigest(int index) const;
    void SetAdditionalInfo(int index, soapWrap::Binary* info);
    soapWrap::Binary* GetAdditionalInfo(int index) const;
    // 256 for RSA; NotImplementedException for any other public-key algorithm.
    unsigned int GetSignedHashSize() const;

private:
    std::unique_ptr<std::map<int, DigestBase*>> digests_;  // the mapped state; owns its digests
    DigestBase* singleDigest_;                             // the single state; borrowed
    int singleIndex_;
    std::map<int, soapWrap::Binary*> additionalInfo_;  // not owned
};
