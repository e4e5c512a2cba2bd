#include "CertificateManager.h"

#include <cstring>

#include "Base64.h"
#include "Exceptions.h"
#include "FileHelper.h"

namespace {

// Frees the manager when the module (or the program) is unloaded.
struct ManagerReaper {
    ~ManagerReaper() { CertificateManager::Destroy(); }
} reaper;

}  // namespace

CertificateManager::CertificateManager() {}

CertificateManager::~CertificateManager() {
    certificates_.clear();
    binaries_.clear();
}

void CertificateManager::SetPgpPublicKeyFilePath(const std::string& path) {
    pgpPublicKeyPath_ = path;
}

Certificate* CertificateManager::LoadPgpPublicKey() {
    return LoadCertificateFromFile(pgpPublicKeyPath_, soapWrap::PgpPublicKey);
}

Certificate* CertificateManager::LoadCertificateFromFile(const std::string& path,
                                                         soapWrap::CertificateFileFormat format) {
    const std::vector<char> bytes = PgpKey::ReadFile(path);
    static const char kNothing[1] = {0};
    return CreateCertificate(bytes.empty() ? kNothing : bytes.data(), static_cast<unsigned int>(bytes.size()), format);
}

Certificate* CertificateManager::CreateCertificate(const char* data, unsigned int length,
                                                   soapWrap::CertificateFileFormat format) {
    if (format != soapWrap::PgpPublicKey) {
        throw NotImplementedException("Not implemented certificate format");
    }
    std::unique_ptr<Certificate>& slot = certificates_[format];
    slot = std::make_unique<PgpCertificate>(std::make_unique<PgpMessage>(data, length));
    return slot.get();
}

Certificate* CertificateManager::GetCertificate(soapWrap::CertificateFileFormat format) const {
    const auto found = certificates_.find(format);
    return found == certificates_.end() ? nullptr : found->second.get();
}

const PgpKey& ManagerKey::Key() {
    const PgpCertificate* certificate =
        dynamic_cast<PgpCertificate*>(CertificateManager::Instance()->LoadPgpPublicKey());
    if (certificate == nullptr) {
        throw DataFormatException("PGP public key is not found");
    }
    return certificate->GetKey();
}

// The buffer is taken by value, as the interface hands it over.
std::shared_ptr<binary> der_to_pem(std::shared_ptr<binary> der) {  // NOLINT(performance-unnecessary-value-param)
    static const char kBegin[] = "-----BEGIN CERTIFICATE-----\n";
    static const char kEnd[] = "-----END CERTIFICATE-----\n";
    soapWrap::Binary input{der && !der->empty() ? der->data() : nullptr, der ? static_cast<uint32_t>(der->size()) : 0};
    const std::string text = input.length ? Base64::Encode(&input) : std::string();

    const size_t lines = text.size() / 64, rest = text.size() % 64;
    auto pem = std::make_shared<binary>();
    pem->reserve(lines * 65 + (rest ? rest + 1 : 0) + 54);
    pem->insert(pem->end(), kBegin, kBegin + sizeof kBegin - 1);
    for (size_t offset = 0; offset < text.size(); offset += 64) {
        const size_t count = std::min<size_t>(64, text.size() - offset);
        pem->insert(pem->end(), text.begin() + static_cast<long>(offset),
                    text.begin() + static_cast<long>(offset + count));
        pem->push_back('\n');
    }
    pem->insert(pem->end(), kEnd, kEnd + sizeof kEnd - 1);
    return pem;
}
