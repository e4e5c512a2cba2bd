#pragma once
// The check of one OpenPGP signature packet against a key: the hash of the signed data is finished
// over the packet's hashed fields (and the version 4 trailer), then the quick-check bits, the
// issuer and the RSA value are checked. Everything the check needs comes in as arguments.

#include <memory>
#include <string>

#include "DigestBase.h"
#include "PgpKey.h"
#include "PgpPacket.h"
#include "soapWrap.h"

// The module's hash algorithm for an OpenPGP hash id; refused ids throw NotSupportedException.
soapWrap::HashAlgorithm HashAlgorithmOf(int pgpHashId);

// A copy of signedData fed with the signature's hashed fields and, for version 4, its trailer.
std::unique_ptr<DigestBase> FinishSignatureHash(const PgpSignatureData& signature, const DigestBase& signedData);

// 1 (ResultSigned) when the signature is good; 2 with the reason appended to message when it is
// not. signedData is the hash of the signed data (an ArgumentException when null); the key is
// taken from keys only once the hash is finished. A value that RSA refuses leaves by
// std::logic_error "basic_string::_S_construct NULL not valid".
int CheckPgpSignature(const PgpSignatureData& signature, KeySource& keys, const DigestBase* signedData,
                      std::string& message);
