#pragma once
// A certificate made from an OpenPGP public key block: the key (PgpKey.h) as the certificate
// manager keeps it.

#include <cstdint>
#include <memory>

#include "PgpKey.h"
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

    RsaCsp* GetCsp() const { return &key_->Csp(); }
    PgpMessage* GetMessage() const { return const_cast<PgpMessage*>(&key_->Message()); }
    uint64_t GetKeyLength() const { return key_->Public().bits; }
    const PgpKey& GetKey() const { return *key_; }

private:
    std::unique_ptr<PgpKey> key_;
};
