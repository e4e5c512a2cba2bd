#include "PgpKey.h"

#include <utility>

#include "Base.h"
#include "Exceptions.h"
#include "FileHelper.h"

PgpKey::PgpKey(std::unique_ptr<PgpMessage> message) : message_(std::move(message)) {
    const PgpPublicKey* key = message_->GetPublicKey();
    if (key == nullptr) {
        throw DataFormatException("PGP public key is not found");
    }
    const MPI* modulus = key->GetModulus();
    const MPI* exponent = key->GetExponent();
    csp_ = std::make_unique<RsaCsp>(modulus->GetValue(), static_cast<int>(modulus->GetLengthInBytes()),
                                    exponent->GetValue(), static_cast<int>(exponent->GetLengthInBytes()));
    const PgpSignatureData* signature = message_->GetSignatureData();
    public_.keyId = signature != nullptr ? Base::DumpBufferToString(signature->GetIssuerId(), 8, true) : "";
    public_.primaryId = public_.keyId;
    public_.algorithm = key->GetAlgorithm();
    public_.bits = static_cast<unsigned int>(modulus->GetLengthInBits());
    // The classic rule checks signatures with the RSA service above; no OpenSSL key is made for it.
}

std::unique_ptr<PgpKey> PgpKey::Parse(const char* data, unsigned int length) {
    static const char kNothing[1] = {0};
    return std::make_unique<PgpKey>(std::make_unique<PgpMessage>(length > 0 ? data : kNothing, length));
}

std::vector<char> PgpKey::ReadFile(const std::string& path) {
    // A local object, not a smart pointer: a failing close may throw from its destructor.
    FileHelper file(path);
    const uint32_t size = FileHelper::GetSize(file.GetPath());
    if (size > LargestFile) {
        throw DataFormatException("PGP public key file " + path + " holds " + std::to_string(size) +
                                  " bytes; a key file holds at most " + std::to_string(LargestFile));
    }
    // A file that shrank since its size was taken leaves zeros, never stale memory.
    std::vector<char> bytes(size ? size : 1);
    if (size > 0) {
        file.Read(bytes.data(), 0, size);
    }
    bytes.resize(size);
    return bytes;
}

KeySource::~KeySource() {}

const std::vector<char>& KeyFileBytes::Bytes() {
    if (!read_) {
        read_ = true;
        try {
            bytes_ = PgpKey::ReadFile(name_);
        } catch (...) {
            error_ = std::current_exception();
        }
    }
    if (error_) {
        std::rethrow_exception(error_);
    }
    return bytes_;
}

const PgpKey& KeyFromFile::Key() {
    if (!parsed_) {
        parsed_ = true;
        try {
            const std::vector<char>& bytes = file_.Bytes();
            key_ = PgpKey::Parse(bytes.data(), static_cast<unsigned int>(bytes.size()));
        } catch (...) {
            error_ = std::current_exception();
        }
    }
    if (error_) {
        std::rethrow_exception(error_);
    }
    return *key_;
}
