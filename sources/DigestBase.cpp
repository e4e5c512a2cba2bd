#include "DigestBase.h"

DigestBase::DigestBase(soapWrap::HashAlgorithm type) : type_(type) {}

DigestBase::~DigestBase() {}
