#pragma once
// A certificate made from an OpenPGP public key block: the RSA verification service built from the
// key packet, and the message it came from (whose last signature packet names the key's issuer).

#include <cstdint>

#include "PgpMessage.h"
#include "RsaCsp.h"

// The base of certificates kept by the certificate manager.
class Certificate {
public:
    virtual ~Certificate();
};

class PgpCertificate : public Certificate {
public:
    // Takes ownership of message. A null message is an ArgumentException; a message without a
    // public-key packet is a DataFormatException "PGP public key is not found".
    explicit PgpCertificate(PgpMessage* message);
    ~PgpCertificate() override;

    PgpCertificate(const PgpCertificate&) = delete;
    PgpCertificate& operator=(const PgpCertificate&) = delete;

    RsaCsp* GetCsp() const { return csp_; }
    PgpMessage* GetMessage() const { return message_; }
    uint64_t GetKeyLength() const { return keyLength_; }

private:
    RsaCsp* csp_;
    PgpMessage* message_;
    uint64_t keyLength_;
};
