#include "Evaluation.h"

#include <algorithm>
#include <cctype>
#include <exception>

#include "OpenPgpAlgorithms.h"
#include "ProcessingResult.h"
#include "Verdict.h"

namespace {

// One evaluation: the steps of the policy over the findings, each failure given to one verdict.
class Evaluation {
public:
    Evaluation(const VerificationPolicy& policy, const PackageFindings& findings, std::string& message,
               std::vector<RpmCheck>* checks)
        : policy_(policy), findings_(findings), verdict_(message, checks, policy.firstFailureStops) {}

    int Run() {
        for (size_t i = 0; i < policy_.stepCount; ++i) {
            if (!Step(policy_.steps[i])) break;
        }
        return verdict_.Result();
    }

private:
    // Whether the evaluation goes on after the step.
    bool Step(EvaluationStep step) {
        switch (step) {
            case EvaluationStep::Structure:
                return findings_.structureFault.empty() ||
                       verdict_.Fail(ResultInvalidStructure, findings_.structureFault);
            case EvaluationStep::HeaderDigests: return Digests(findings_.headerDigests, policy_.sha1Failure);
            case EvaluationStep::PayloadDigests: return Digests(findings_.payloadDigests, nullptr);
            case EvaluationStep::Md5: return Md5();
            case EvaluationStep::HeaderSignatures:
                return Signatures(findings_.headerSignatures, policy_.headerSignatures, RpmCheck::HeaderSignature);
            case EvaluationStep::PackageSignatures:
                return Signatures(findings_.packageSignatures, policy_.packageSignatures, RpmCheck::PackageSignature);
            case EvaluationStep::Coverage: return verdict_.Decided() || Coverage();
        }
        return true;
    }

    bool Digests(const std::vector<DigestFinding>& digests, const char* failure) {
        for (const DigestFinding& digest : digests) {
            if (!Digest(digest, failure)) return false;
        }
        return true;
    }

    // A digest against the one computed; failure is the message of a mismatch (null: "Invalid value
    // of LABEL").
    bool Digest(const DigestFinding& digest, const char* failure) {
        const std::string text = failure != nullptr ? failure : "Invalid value of " + digest.label;
        if (!digest.present) {
            if (!policy_.digestsRequired) return true;
            verdict_.Record(RpmCheck{digest.kind, RpmCheck::NotFound, digest.label, "", ""});
            return verdict_.Fail(ResultInvalidHash, text);
        }
        if (!digest.flaw.empty()) {
            verdict_.Record(RpmCheck{digest.kind, RpmCheck::Bad, digest.label, digest.flaw, ""});
            return verdict_.Fail(ResultInvalidHash, text + ": " + digest.flaw);
        }
        if (!digest.computed) {
            verdict_.Record(RpmCheck{digest.kind, RpmCheck::Bad, digest.label, "the algorithm is not supported", ""});
            return verdict_.Fail(ResultInvalidHash, "Unsupported algorithm of the " + digest.label);
        }
        const bool good = digest.expected == digest.value;
        verdict_.Record(RpmCheck{digest.kind, good ? RpmCheck::Ok : RpmCheck::Bad, digest.label,
                                 good ? "" : "Expected " + digest.expected + " != " + digest.value, ""});
        return good || verdict_.Fail(ResultInvalidHash, text);
    }

    // The MD5 digest. Where the policy tells a package without payload here, that comes first: with
    // nothing after the main header, the digest of header and payload is the header's alone, and a
    // signature over the header would pass for one over the whole package.
    bool Md5() {
        const DigestFinding& md5 = findings_.md5;
        if (!policy_.payloadWithMd5 || findings_.payloadLength != 0) {
            return (!md5.present && !policy_.digestsRequired) || Digest(md5, policy_.md5Failure);
        }
        if (!verdict_.Fail(ResultInvalidHash, "The package has no payload")) return false;
        const bool good = md5.present && md5.expected == md5.value;
        verdict_.Record(RpmCheck{RpmCheck::Md5, md5.present ? RpmCheck::Bad : RpmCheck::NotFound, md5.label,
                                 "The package has no payload", ""});
        return good || verdict_.Fail(ResultInvalidHash, policy_.md5Failure);
    }

    // One signature's check, recorded. Under a policy that records check errors, an error is a
    // failed check, and ends the evaluation only while the verdict is open.
    SignatureOutcome Check(const SignatureFinding& signature) {
        RpmCheck record = signature.record;
        SignatureOutcome outcome{RpmCheck::Bad, ResultInternalError, ""};
        try {
            outcome = signature.check(verdict_.Text());
        } catch (const std::exception& e) {
            if (!policy_.checkErrorsRecorded) throw;
            record.state = RpmCheck::Bad;
            record.reason = e.what();
            verdict_.Record(std::move(record));
            if (!verdict_.Decided()) throw;
            return SignatureOutcome{RpmCheck::Bad, ResultInternalError, e.what()};
        }
        record.state = outcome.state;
        record.reason = outcome.state == RpmCheck::Ok ? "" : outcome.reason;
        verdict_.Record(std::move(record));
        return outcome;
    }

    bool Signatures(const std::vector<SignatureFinding>& group, const SignatureRule& rule, RpmCheck::Kind kind) {
        if (group.empty()) {
            verdict_.Record(RpmCheck{
                kind, RpmCheck::NotFound,
                kind == RpmCheck::HeaderSignature ? "Header signature" : "Header and payload signature", "", ""});
            return rule.missing == ResultSigned || verdict_.Fail(rule.missing, rule.missingMessage);
        }
        const bool anyOne = rule.anyOne;
        bool anyGood = false, anyFailed = false;
        int failure = ResultSigned;
        std::string firstReason;
        for (const SignatureFinding& signature : group) {
            const SignatureOutcome outcome = Check(signature);
            anyGood = anyGood || outcome.state == RpmCheck::Ok;
            if (outcome.state == RpmCheck::NotTrusted) {
                if (notTrusted_.empty()) notTrusted_ = outcome.reason;
                continue;
            }
            if (outcome.state != RpmCheck::Ok && !anyFailed) {
                anyFailed = true;
                failure = outcome.result;
                firstReason = outcome.reason;
            }
        }
        // A group of signatures that are not trusted does not fail, and signs nothing.
        const bool good = anyOne ? anyGood : !anyFailed;
        (kind == RpmCheck::HeaderSignature ? headerSigned_ : packageSigned_) = good && anyGood;
        if (good) return true;
        if (rule.deferred) {
            if (pending_.empty()) pending_ = firstReason;
            return true;
        }
        if (!verdict_.Decided()) verdict_.Text() = rule.failurePrefix + verdict_.Text();
        return verdict_.Fail(anyOne ? ResultInvalidSignature : failure);
    }

    // What the signatures that verified cover: a signature failure waits until here; then a
    // package needs a signature, a payload, and a signature over it (a header signature covers the
    // payload through the payload digest that the main header holds).
    bool Coverage() {
        if (!pending_.empty()) {
            return verdict_.Fail(ResultInvalidSignature, policy_.packageSignatures.failurePrefix + pending_);
        }
        if (!headerSigned_ && !packageSigned_ && !notTrusted_.empty()) {
            return verdict_.Fail(ResultNotSigned, "The package holds no trusted signature: " + notTrusted_);
        }
        if (!headerSigned_ && !packageSigned_) return verdict_.Fail(ResultNotSigned, "The package holds no signature");
        if (findings_.payloadLength == 0) return verdict_.Fail(ResultInvalidHash, "The package has no payload");
        if (!packageSigned_ && findings_.payloadDigests.empty()) {
            return verdict_.Fail(ResultHeaderOnlySigned,
                                 "The package is signed over its header only, and its header holds no payload digest");
        }
        return !policy_.digestCoverage || DigestCoverage();
    }

    // The header and the payload each covered by a digest (those that did not match failed before).
    bool DigestCoverage() {
        const bool header =
            std::any_of(findings_.headerDigests.begin(), findings_.headerDigests.end(),
                        [](const DigestFinding& digest) { return digest.kind == RpmCheck::HeaderDigest; });
        if (!header) {
            return verdict_.Fail(ResultInvalidHash, "The package holds no SHA256 or SHA3-256 digest of its header");
        }
        return !findings_.payloadDigests.empty() ||
               verdict_.Fail(ResultInvalidHash, "The package holds no digest of its payload");
    }

    const VerificationPolicy& policy_;
    const PackageFindings& findings_;
    Verdict verdict_;
    bool headerSigned_ = false, packageSigned_ = false;
    std::string pending_;     // the first reason of a deferred signature failure
    std::string notTrusted_;  // why the first signature that is not trusted is not
};

}  // namespace

RpmCheck SignatureRecord(const VerificationPolicy& policy, RpmCheck::Kind kind, unsigned int version,
                         unsigned int keyAlgorithm, unsigned int hashAlgorithm, const std::string& issuer) {
    std::string shortId = issuer.size() == 16 ? issuer.substr(8) : "";
    for (char& c : shortId) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const std::string label =
        std::string(kind == RpmCheck::HeaderSignature ? "Header " : "") + "V" + std::to_string(version) + " " +
        OpenPgpAlgorithmName(keyAlgorithm, policy.classicAlgorithms) + "/" +
        OpenPgpHashName(hashAlgorithm, policy.classicAlgorithms) + " Signature, key ID " + shortId;
    return RpmCheck{kind, RpmCheck::Ok, label, "", issuer};
}

int EvaluatePackage(const VerificationPolicy& policy, const PackageFindings& findings, std::string& message,
                    std::vector<RpmCheck>* checks) {
    return Evaluation(policy, findings, message, checks).Run();
}
