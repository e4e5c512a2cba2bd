// PgpMessage over arbitrary bytes (armored or binary); a key it yields is made into a certificate.
#include <memory>
#include <stdexcept>

#include "PgpCertificate.h"
#include "PgpMessage.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const unsigned int length = static_cast<unsigned int>(size);
    try {
        std::unique_ptr<PgpMessage> message(new PgpMessage(reinterpret_cast<const char*>(data), length));
        if (message->GetPublicKey() != nullptr) {
            PgpCertificate certificate(message.release());
            certificate.GetKeyLength();
        }
    } catch (const std::exception&) {
    }
    return 0;
}
