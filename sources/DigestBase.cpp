#include "DigestBase.h"

#include "Digest.h"

DigestBase::DigestBase(soapWrap::HashAlgorithm type) : type_(type), value_(nullptr) {}

DigestBase::~DigestBase() {
    delete[] value_;
}

std::string DigestBase::GetTypeName() const {
    return Digest::GetTypeName(type_);
}

const char* DigestBase::GetAlgorithmIdentifier() const {
    return Digest::GetAlgorithmIdentifier(type_);
}
