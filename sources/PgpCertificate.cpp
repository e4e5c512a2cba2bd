#include "PgpCertificate.h"

#include <memory>
#include <utility>

#include "Exceptions.h"

Certificate::~Certificate() {}

PgpCertificate::PgpCertificate(std::unique_ptr<PgpMessage> message) : keyLength_(0) {
    if (message == nullptr) {
        throw ArgumentException("Function PgpCertificate::PgpCertificate does not allow NULL value as an argument");
    }
    const PgpPublicKey* key = message->GetPublicKey();
    if (key == nullptr) {
        throw DataFormatException("PGP public key is not found");
    }
    keyLength_ = key->GetModulus()->GetLengthInBits();
    const MPI* modulus = key->GetModulus();
    const MPI* exponent = key->GetExponent();
    csp_ = std::make_unique<RsaCsp>(modulus->GetValue(), static_cast<int>(modulus->GetLengthInBytes()),
                                    exponent->GetValue(), static_cast<int>(exponent->GetLengthInBytes()));
    message_ = std::move(message);
}

PgpCertificate::PgpCertificate(PgpMessage* message) : PgpCertificate(std::unique_ptr<PgpMessage>(message)) {}

PgpCertificate::~PgpCertificate() {}
