#include "Signature.h"

#include <set>

#include "Exceptions.h"

Signature::Signature() : singleDigest_(nullptr), singleIndex_(0) {}

Signature::~Signature() {
    if (digests_) {
        // The same object may stand under two indices: delete each one once.
        std::set<DigestBase*> owned;
        for (const auto& entry : *digests_) owned.insert(entry.second);
        for (DigestBase* digest : owned) delete digest;
        digests_.reset();
    }
    additionalInfo_.clear();
}

int Signature::GetPublicKeyAlgorithm() const {
    return 1;
}

void Signature::UpdateDigests() {}

void Signature::SetDigest(int index, DigestBase* digest) {
    if (!digests_) {
        if (singleDigest_ == nullptr) {
            singleIndex_ = index;
            singleDigest_ = digest;
            return;
        }
        digests_ = std::make_unique<std::map<int, DigestBase*>>();
        (*digests_)[singleIndex_] = singleDigest_;
        singleDigest_ = nullptr;
    }
    (*digests_)[index] = digest;
}

DigestBase* Signature::GetDigest(int index) const {
    if (!digests_) {
        return singleIndex_ == index ? singleDigest_ : nullptr;
    }
    const auto found = digests_->find(index);
    return found == digests_->end() ? nullptr : found->second;
}

void Signature::SetAdditionalInfo(int index, soapWrap::Binary* info) {
    additionalInfo_[index] = info;
}

soapWrap::Binary* Signature::GetAdditionalInfo(int index) const {
    const auto found = additionalInfo_.find(index);
    return found == additionalInfo_.end() ? nullptr : found->second;
}

unsigned int Signature::GetSignedHashSize() const {
    if (GetPublicKeyAlgorithm() == 1) {
        return 256;
    }
    throw NotImplementedException("");
}
