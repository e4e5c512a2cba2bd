#pragma once
// A publisher's OpenPGP key under the classic key rule, read and parsed once: one key block, whose
// last public-key packet is an RSA key (OpenPgpKey.h), named by the issuer of the block's last
// signature packet; the key block's packets and the RSA service the framework checks with. A verification takes its key
// from a KeySource, so it never depends on where the key is kept nor on state shared with other verifications.

#include <cstdint>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "OpenPgpKey.h"
#include "PgpMessage.h"
#include "RsaCsp.h"

class PgpKey {
public:
    // Takes ownership of message. A message without a public-key packet is a DataFormatException
    // "PGP public key is not found".
    explicit PgpKey(std::unique_ptr<PgpMessage> message);
    // The key block in data (armored or binary); the bytes are not kept.
    static std::unique_ptr<PgpKey> Parse(const char* data, unsigned int length);
    // The whole file at path, read once. A publisher's key takes a few KiB; a file larger than
    // LargestFile is refused (DataFormatException) before anything is allocated for it.
    static const uint32_t LargestFile = 1024 * 1024;
    static std::vector<char> ReadFile(const std::string& path);

    PgpKey(const PgpKey&) = delete;
    PgpKey& operator=(const PgpKey&) = delete;

    const PgpMessage& Message() const { return *message_; }
    RsaCsp& Csp() const { return *csp_; }
    // The key: its key ID is the issuer of the block's last signature packet (empty when the block
    // holds no signature packet), its bits those of the RSA modulus; its OpenSSL key stays null, as
    // the classic rule checks with Csp().
    const OpenPgpPublicKey& Public() const { return public_; }

private:
    std::unique_ptr<PgpMessage> message_;
    std::unique_ptr<RsaCsp> csp_;
    OpenPgpPublicKey public_;
};

// Where a verification gets its key. Key() throws what reading or parsing the key threw.
class KeySource {
public:
    virtual ~KeySource();
    virtual const PgpKey& Key() = 0;
};

// The key file of one verification: its bytes, read from its path at the first Bytes() (after which
// every call gives the same bytes, or throws the same error, whatever happens to the file
// meanwhile), or given as a value under a name. One object serves one verification on one thread.
class KeyFileBytes {
public:
    explicit KeyFileBytes(std::string path) : name_(std::move(path)) {}
    KeyFileBytes(std::string name, std::vector<char> bytes)
        : name_(std::move(name)), bytes_(std::move(bytes)), read_(true) {}
    // The path, or the name the bytes were given under: what messages call the key file.
    const std::string& Name() const { return name_; }
    const std::vector<char>& Bytes();

private:
    std::string name_;
    std::vector<char> bytes_;
    bool read_ = false;
    std::exception_ptr error_;
};

// The key of a key file, parsed at the first Key(); afterwards every call gives the same key or
// throws the same error.
class KeyFromFile : public KeySource {
public:
    explicit KeyFromFile(std::string path) : owned_(std::make_unique<KeyFileBytes>(std::move(path))), file_(*owned_) {}
    explicit KeyFromFile(KeyFileBytes& file) : file_(file) {}
    const PgpKey& Key() override;
    const std::string& Path() const { return file_.Name(); }

private:
    std::unique_ptr<KeyFileBytes> owned_;
    KeyFileBytes& file_;
    bool parsed_ = false;
    std::unique_ptr<PgpKey> key_;
    std::exception_ptr error_;
};
