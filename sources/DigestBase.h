#pragma once
// The abstract running hash: feed bytes, then take the value once.

#include <string>
#include <vector>

#include "soapWrap.h"

class DigestBase {
public:
    explicit DigestBase(soapWrap::HashAlgorithm type);
    virtual ~DigestBase();

    DigestBase(const DigestBase&) = delete;
    DigestBase& operator=(const DigestBase&) = delete;

    // A new, independent object with the same running state (not the cached value); caller owns it.
    virtual DigestBase* Copy() const = 0;
    // Feeds bytes; returns 1.
    virtual int Update(const void* data, unsigned int length) = 0;
    virtual unsigned int GetLength() const = 0;
    // Finishes the hash into out (room for GetLength() bytes); returns the bytes written.
    virtual unsigned int GetValue(unsigned char* out) = 0;
    // The value, computed on first use and cached; owned by this object.
    virtual unsigned char* GetValue() = 0;

    soapWrap::HashAlgorithm GetType() const { return type_; }
    // The type's entries in the hash catalogue (Digest::GetTypeName, Digest::GetAlgorithmIdentifier);
    // defined with the catalogue, in Digest.cpp.
    std::string GetTypeName() const;
    const char* GetAlgorithmIdentifier() const;

protected:
    soapWrap::HashAlgorithm type_;
    std::vector<unsigned char> value_;  // cached result of GetValue(); empty until it is computed
};
