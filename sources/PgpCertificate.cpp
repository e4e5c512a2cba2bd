#include "PgpCertificate.h"

#include <memory>

#include "Exceptions.h"

Certificate::~Certificate() {}

PgpCertificate::PgpCertificate(PgpMessage* message) : csp_(nullptr), message_(nullptr), keyLength_(0) {
    if (message == nullptr) {
        throw ArgumentException("Function PgpCertificate::PgpCertificate does not allow NULL value as an argument");
    }
    std::unique_ptr<PgpMessage> owned(message);
    const PgpPublicKey* key = message->GetPublicKey();
    if (key == nullptr) {
        throw DataFormatException("PGP public key is not found");
    }
    keyLength_ = key->GetModulus()->GetLengthInBits();
    const MPI* modulus = key->GetModulus();
    const MPI* exponent = key->GetExponent();
    csp_ = new RsaCsp(modulus->GetValue(), static_cast<int>(modulus->GetLengthInBytes()), exponent->GetValue(),
                      static_cast<int>(exponent->GetLengthInBytes()));
    message_ = owned.release();
}

PgpCertificate::~PgpCertificate() {
    delete csp_;
    delete message_;
}
