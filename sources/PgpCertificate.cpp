#include "PgpCertificate.h"

#include <memory>
#include <utility>

#include "Exceptions.h"

Certificate::~Certificate() {}

PgpCertificate::PgpCertificate(std::unique_ptr<PgpMessage> message) {
    if (message == nullptr) {
        throw ArgumentException("Function PgpCertificate::PgpCertificate does not allow NULL value as an argument");
    }
    key_ = std::make_unique<PgpKey>(std::move(message));
}

PgpCertificate::PgpCertificate(PgpMessage* message) : PgpCertificate(std::unique_ptr<PgpMessage>(message)) {}

PgpCertificate::~PgpCertificate() {}
