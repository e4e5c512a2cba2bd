#pragma once
// A certificate made from an OpenPGP public key block: the RSA verification service built from the
// key packet, and the message it came from (whose last signature packet names the key's issuer).

#include <cstdint>
#include <memory>

#include "PgpMessage.h"
#include "RsaCsp.h"

// The base of certificates kept by the certificate manager.
class Certificate {
public:
    virtual ~Certificate();
};

class PgpCertificate : public Certificate {
public:
    // Takes ownership of message, also when it throws. A null message is an ArgumentException; a
    // message without a public-key packet is a DataFormatException "PGP public key is not found".
    explicit PgpCertificate(std::unique_ptr<PgpMessage> message);
    // The same for a message handed over as a plain pointer.
    explicit PgpCertificate(PgpMessage* message);
    ~PgpCertificate() override;

    PgpCertificate(const PgpCertificate&) = delete;
    PgpCertificate& operator=(const PgpCertificate&) = delete;

    RsaCsp* GetCsp() const { return csp_.get(); }
    PgpMessage* GetMessage() const { return message_.get(); }
    uint64_t GetKeyLength() const { return keyLength_; }

private:
    std::unique_ptr<RsaCsp> csp_;
    std::unique_ptr<PgpMessage> message_;
    uint64_t keyLength_;
};
