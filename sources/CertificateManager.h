#pragma once
// The process-wide store of key material: it reads the public-key file named by its path when a
// signature check asks for the key, and keeps the certificate it made last for each format.

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "PgpCertificate.h"
#include "soapWrap.h"

// One instance of T per process, created on first use. _Count counts the uses; nothing decrements
// it. The instance lives until Destroy() (the module calls it when it is unloaded). Creating,
// counting and destroying are guarded, so threads that ask at once share one instance; what the
// instance holds is its own callers' to share.
template <typename T>
class Singleton {
public:
    virtual ~Singleton() {
        const std::lock_guard<std::mutex> lock(guard_);
        if (_Self != nullptr && static_cast<Singleton*>(_Self) == this) _Self = nullptr;
    }

    static T* Instance() {
        const std::lock_guard<std::mutex> lock(guard_);
        if (_Self == nullptr) {
            _Self = new T();
        }
        ++_Count;
        return _Self;
    }
    static bool HasInstance() {
        const std::lock_guard<std::mutex> lock(guard_);
        return _Self != nullptr;
    }
    static unsigned int Count() {
        const std::lock_guard<std::mutex> lock(guard_);
        return _Count;
    }
    static void Destroy() {
        T* self = nullptr;
        {
            const std::lock_guard<std::mutex> lock(guard_);
            self = _Self;
            _Self = nullptr;
        }
        delete self;
    }

protected:
    Singleton() {}

    static inline T* _Self = nullptr;
    static inline unsigned int _Count = 0;
    static inline std::mutex guard_;
};

// A byte buffer that owns its bytes, as der_to_pem takes and returns it.
using binary = std::vector<unsigned char>;

class CertificateManager : public Singleton<CertificateManager> {
public:
    CertificateManager();
    ~CertificateManager() override;

    CertificateManager(const CertificateManager&) = delete;
    CertificateManager& operator=(const CertificateManager&) = delete;

    // Records the path; nothing is read until a key is loaded.
    void SetPgpPublicKeyFilePath(const std::string& path);
    const std::string& GetPgpPublicKeyFilePath() const { return pgpPublicKeyPath_; }
    // Reads the key file again on every call and returns a new certificate made from it. A
    // certificate stays valid until the next one of its format is made, which frees it.
    Certificate* LoadPgpPublicKey();
    Certificate* LoadCertificateFromFile(const std::string& path, soapWrap::CertificateFileFormat format);
    // Only PgpPublicKey is supported; the data is copied, the caller keeps it.
    Certificate* CreateCertificate(const char* data, unsigned int length, soapWrap::CertificateFileFormat format);
    // The certificate last made for a format, or null.
    Certificate* GetCertificate(soapWrap::CertificateFileFormat format) const;

private:
    std::string pgpPublicKeyPath_;
    // The last certificate of each format. Callers use a certificate only until they load the
    // next one, so a replaced certificate is freed at once: the manager's memory stays one
    // certificate however many verifications the process runs.
    std::map<soapWrap::CertificateFileFormat, std::unique_ptr<Certificate>> certificates_;
    std::map<soapWrap::CertificateFileFormat, soapWrap::Binary*> binaries_;  // never filled here
};

// The key of the manager's key file, loaded (read again) at every call: the key source of the
// framework's signature objects.
class ManagerKey : public KeySource {
public:
    const PgpKey& Key() override;
};

// A DER certificate as PEM text: the BEGIN line, the Base64 text in lines of 64, the END line.
std::shared_ptr<binary> der_to_pem(std::shared_ptr<binary> der);
