// rpm-verify: checks RPM package files against an OpenPGP public key with the module's own
// verifier, one line per package (every check with --verbose, JSON with --json).
//
// Exit status: 0 when every package is signed and valid, 1 otherwise, 2 on a usage error or a key
// that cannot be used.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "Exceptions.h"
#include "KeyDiagnosis.h"
#include "OpenPgpKeyring.h"
#include "RpmReport.h"
#include "Signature.h"

namespace {

// Objects keep their keys in the order they were added: "file", "status", "message" first.
using json = nlohmann::ordered_json;

const char kProgram[] = "rpm-verify";

const char kHelp[] =
    "Usage: rpm-verify [OPTION]... --key=KEY PACKAGE...\n"
    "Verify the OpenPGP signatures and header digests of RPM packages against the publisher's\n"
    "public key, the way the installer's signing module does.\n"
    "\n"
    "The key is read once, before any package: a key that is missing, unreadable or in a form the\n"
    "verifier cannot use ends the run with one line that names the key and the reason.\n"
    "\n"
    "Options:\n"
    "  -k, --key=KEY      the publisher's OpenPGP public key file (armored or binary; a pipe will\n"
    "                     do); repeat it for more keys. A file may hold several keys: a package\n"
    "                     passes with any of them, and the report names the key ID that verified\n"
    "                     it. A file that the installer's check would refuse (a line with\n"
    "                     \"http://\") is named, with the line\n"
    "      --policy=NAME  how packages are judged: classic (the default: the installer's verdicts\n"
    "                     as they have always been) or current (today's rpm, rpm 6.1, read\n"
    "                     safely: every digest and signature it reads must pass, one signature\n"
    "                     must verify, signatures it does not trust count for nothing; rpm 6\n"
    "                     packages, v4 and v6 keys, subkeys, several keys, packages of any size)\n"
    "  -q, --quiet        print only the packages that are not signed and valid (their verdicts and\n"
    "                     hints); the exit status says the rest\n"
    "  -v, --verbose      list every check of each package, the way rpmkeys -Kv does: header\n"
    "                     SHA1 digest, MD5 digest, header signature and each header-and-payload\n"
    "                     signature (version, algorithms, key ID), each OK, BAD (with the reason)\n"
    "                     or NOTFOUND; then the verdict and, where one helps, a hint\n"
    "      --json         print one JSON object (docs/schemas/rpm-verify.schema.json), the same shape\n"
    "                     on every exit status: \"schemaVersion\", \"policy\", \"key\" (\"path\" and\n"
    "                     \"keys\", each with \"keyId\", \"algorithm\" and \"bits\"; or \"reason\",\n"
    "                     \"message\" and \"hint\" for a key that cannot be used) and \"packages\",\n"
    "                     one object per package: \"file\", \"status\",\n"
    "                     \"message\" (the verifier's message), \"reason\" (a stable code, see\n"
    "                     below), \"detail\" (the verifier's own reason, when it gave one),\n"
    "                     \"checks\" (the checks of --verbose: \"check\", \"result\", \"reason\",\n"
    "                     \"keyId\") and \"hint\" (where one helps)\n"
    "  -j, --jobs=N       verify in N worker processes (default 1); the output keeps the order\n"
    "                     of the packages\n"
    "  -h, --help         display this help and exit\n"
    "  -V, --version      output version information and exit\n"
    "\n"
    "Without --verbose or --json each package gets one line: its verdict (\"FILE is signed.\",\n"
    "\"FILE is not signed.\", \"FILE has invalid signature.\", \"FILE has invalid hash.\", or the\n"
    "reason it could not be verified); hints go to standard error.\n"
    "\n"
    "Status (per package): 0 signed, 1 not signed, 2 invalid signature, 3 invalid hash, 4 invalid\n"
    "structure, 5 not an RPM file, unreadable, or an error.\n"
    "\n"
    "Reasons: signed, not-signed, not-trusted (no signature today's rpm trusts: a weak key or hash,\n"
    "a revoked key), header-only (signed over the header only), eddsa-signature\n"
    "(signed with an EdDSA key, which the classic policy does not read), wrong-key (signed by\n"
    "another key), bad-signature, digest-mismatch, invalid-structure, not-rpm, unreadable-file,\n"
    "too-large (2 GiB or more, beyond the classic policy), damaged, unreadable-key, unsupported-key.\n"
    "\n"
    "Exit status:\n"
    "  0  every package is signed and valid\n"
    "  1  some package is not\n"
    "  2  a usage error, or a key that cannot be used\n"
    "\n"
    "Examples:\n"
    "  rpm-verify --key=publisher.asc hello-1.0-1.noarch.rpm\n"
    "  rpm-verify --verbose --key publisher.asc *.rpm\n"
    "  rpm-verify --quiet --key old.asc --key new.asc *.rpm\n"
    "  rpm-verify --policy=current --key publisher.asc *.rpm\n"
    "  rpm-verify --json --jobs=2 --key publisher.asc *.rpm | jq '.packages[].status'\n";

struct Options {
    SigningPolicy policy = SigningPolicy::Classic;
    bool json = false;
    bool verbose = false;
    bool quiet = false;
    unsigned int jobs = 1;
    std::vector<std::string> keys;
    std::vector<std::string> packages;
};

int UsageError(const std::string& text) {
    return cli::UsageError(kProgram, text);
}

// -1 when the arguments are good, else the exit status to end with.
int ParseArguments(int argc, char** argv, Options& options) {
    static const struct option kLong[] = {{"key", required_argument, nullptr, 'k'},
                                          {"policy", required_argument, nullptr, 'P'},
                                          {"verbose", no_argument, nullptr, 'v'},
                                          {"json", no_argument, nullptr, 'J'},
                                          {"quiet", no_argument, nullptr, 'q'},
                                          {"jobs", required_argument, nullptr, 'j'},
                                          {"help", no_argument, nullptr, 'h'},
                                          {"version", no_argument, nullptr, 'V'},
                                          {nullptr, 0, nullptr, 0}};
    opterr = 0;
    for (int option; (option = getopt_long(argc, argv, ":k:vqj:hV", kLong, nullptr)) != -1;) {
        switch (option) {
            case 'k':
                if (*optarg == '\0') return UsageError("no key file given (--key=KEY)");
                options.keys.emplace_back(optarg);
                break;
            case 'P':
                if (!ParseSigningPolicy(optarg, options.policy)) {
                    return UsageError(std::string("--policy wants classic or current, not '") + optarg + "'");
                }
                break;
            case 'v': options.verbose = true; break;
            case 'q': options.quiet = true; break;
            case 'J': options.json = true; break;
            case 'j': {
                char* end = nullptr;
                errno = 0;
                const unsigned long jobs = std::strtoul(optarg, &end, 10);
                if (optarg[0] < '1' || optarg[0] > '9' || *end != '\0' || errno != 0 || jobs > 256) {
                    return UsageError(std::string("--jobs wants a number from 1 to 256, not '") + optarg + "'");
                }
                options.jobs = static_cast<unsigned int>(jobs);
                break;
            }
            case 'h': std::fputs(kHelp, stdout); return 0;
            case 'V': return cli::PrintVersion(kProgram);
            default: return cli::OptionError(kProgram, option, argv);
        }
    }
    for (int i = optind; i < argc; ++i) options.packages.emplace_back(argv[i]);
    if (options.keys.empty()) return UsageError("no key file given (--key=KEY)");
    if (options.packages.empty()) return UsageError("no package file given");
    return -1;
}

// ---------------------------------------------------------------------------------------------
// One package

const char* StateText(RpmCheck::State state) {
    switch (state) {
        case RpmCheck::Ok: return "OK";
        case RpmCheck::Bad: return "BAD";
        case RpmCheck::NoKey: return "NOKEY";
        case RpmCheck::NotTrusted: return "NOTTRUSTED";
        default: return "NOTFOUND";
    }
}

// The stable reason code of a verdict, from how far the verifier got and what it found.
std::string ReasonOf(const std::string& file, const RpmReport& report, const KeyBytes& key, const std::string& keyId,
                     SigningPolicy policy) {
    switch (report.stage) {
        case RpmStage::Unreadable: return "unreadable-file";
        case RpmStage::NotRpm: return "not-rpm";
        case RpmStage::Checked: break;
        default: {
            // The classic check refuses packages of 2 GiB and more (their size does not fit its reader).
            struct stat status;
            if (policy == SigningPolicy::Classic && stat(file.c_str(), &status) == 0 &&
                static_cast<unsigned long long>(status.st_size) >= 0x80000000ull) {
                return "too-large";
            }
            // The key was read before the first package: a verification that fails before its checks
            // is refused for the package, unless the key itself cannot be used.
            const KeyDiagnosis diagnosis = DiagnoseKeyBytes(key.bytes, policy);
            return diagnosis.usable ? "damaged" : diagnosis.reason;
        }
    }
    const bool notTrusted = std::any_of(report.checks.begin(), report.checks.end(),
                                        [](const RpmCheck& check) { return check.state == RpmCheck::NotTrusted; });
    switch (report.result) {
        case ResultSigned: return "signed";
        case ResultNotSigned: return notTrusted ? "not-trusted" : "not-signed";
        case ResultHeaderOnlySigned: return "header-only";
        case ResultInvalidHash: return "digest-mismatch";
        case ResultInvalidStructure: return "invalid-structure";
        case ResultInvalidSignature: {
            // Signed by another key when no signature that failed names the key given (under the
            // current policy: when none failed but for want of its key).
            for (const RpmCheck& check : report.checks) {
                if (check.state == RpmCheck::Bad && (policy == SigningPolicy::Current || check.keyId == keyId)) {
                    return "bad-signature";
                }
            }
            return "wrong-key";
        }
        default: return "damaged";
    }
}

std::string HintOf(const std::string& reason, const RpmReport& report, const KeyBytes& key, const std::string& keyId,
                   SigningPolicy policy) {
    if (reason == "header-only" && policy == SigningPolicy::Classic) {
        return "the package is signed over its header only (what rpmsign --addsign writes by default); the "
               "installer's classic check also needs a signature over header and payload: rpmsign --delsign "
               "PACKAGE, then rpmsign --addsign --rpmv3 PACKAGE (or verify with --policy=current, which takes the "
               "payload digest of the signed header instead)";
    }
    if (reason == "header-only") {
        return "the package is signed over its header only and its header holds no payload digest: rpmsign "
               "--delsign PACKAGE, then rpmsign --addsign --rpmv3 PACKAGE";
    }
    if (reason == "eddsa-signature") {
        return "the package is signed with an EdDSA key (tags 267 and 1005), which the installer's classic check "
               "does not read: verify with --policy=current, or re-sign it with an RSA key: rpmsign --delsign "
               "PACKAGE, then rpmsign --addsign --rpmv3 --define '_gpg_name RSAKEYID' PACKAGE";
    }
    if (reason == "too-large") {
        return "the installer's classic check reads packages under 2 GiB only: verify it with --policy=current";
    }
    if (reason == "not-signed") return "sign it with rpmsign --addsign --rpmv3";
    if (reason == "not-trusted") {
        // The first signature today's rpm does not trust says why, and what to re-sign with.
        for (const RpmCheck& check : report.checks) {
            if (check.state == RpmCheck::NotTrusted) {
                return "no signature of the package is trusted today: " + check.reason;
            }
        }
    }
    if (reason == "digest-mismatch") {
        return "the package was changed or damaged after it was signed: get it again from the publisher";
    }
    if (reason == "wrong-key") {
        std::string signers;
        for (const RpmCheck& check : report.checks) {
            if ((check.state == RpmCheck::Bad || check.state == RpmCheck::NoKey) && !check.keyId.empty() &&
                signers.find(check.keyId) == std::string::npos) {
                signers += (signers.empty() ? "" : ", ") + check.keyId;
            }
        }
        return "signed with key ID " + signers + ", but the key given is " + keyId +
               ": check it with the publisher's key, or re-sign it with that key";
    }
    if (reason == "unreadable-key" || reason == "unsupported-key") return DiagnoseKeyBytes(key.bytes, policy).hint;
    return "";
}

json Outcome(const std::string& file, const KeyBytes& key, const std::string& keyId, SigningPolicy policy) {
    RpmReport report;
    const RpmVerifyResult result = rpm_verify_report(file.c_str(), key, report, policy);
    json outcome = {{"file", file}, {"status", static_cast<int>(result.status)}};
    outcome["message"] = result.message != nullptr ? result.message : "";
    // The static text of a failed allocation is not the caller's to free.
    if (result.message != nullptr && std::strcmp(result.message, "Internal error.") != 0) std::free(result.message);
    std::string reason = ReasonOf(file, report, key, keyId, policy);
    outcome["reason"] = reason;  // its place among the keys; a signature the classic check skips may change it
    if (!report.detail.empty()) outcome["detail"] = report.detail;
    outcome["checks"] = json::array();
    for (const RpmCheck& check : report.checks) {
        json item = {{"check", check.label}, {"result", StateText(check.state)}};
        if (!check.reason.empty()) item["reason"] = check.reason;
        if (!check.keyId.empty()) item["keyId"] = check.keyId;
        outcome["checks"].push_back(item);
    }
    // The classic check reads RSA signatures only (tags 268 and 1002): the signatures it does not read
    // are named, as the current policy reads them, so that such a package is not just "not signed".
    if (policy == SigningPolicy::Classic && report.stage == RpmStage::Checked && report.result != ResultSigned) {
        RpmReport current;
        const RpmVerifyResult other = rpm_verify_report(file.c_str(), key, current, SigningPolicy::Current);
        if (other.message != nullptr && std::strcmp(other.message, "Internal error.") != 0) std::free(other.message);
        for (const RpmCheck& check : current.checks) {
            const bool signature = check.kind == RpmCheck::HeaderSignature || check.kind == RpmCheck::PackageSignature;
            if (!signature || check.label.find(" RSA/") != std::string::npos || check.state == RpmCheck::NotFound) {
                continue;
            }
            json item = {{"check", check.label},
                         {"result", "UNSUPPORTED"},
                         {"reason", "the classic policy reads RSA signatures only; --policy=current checks this one"}};
            if (!check.keyId.empty()) item["keyId"] = check.keyId;
            outcome["checks"].push_back(item);
            if (reason == "not-signed" && check.label.find(" EdDSA/") != std::string::npos) reason = "eddsa-signature";
        }
    }
    outcome["reason"] = reason;
    const std::string hint = HintOf(reason, report, key, keyId, policy);
    if (!hint.empty()) outcome["hint"] = hint;
    return outcome;
}

// ---------------------------------------------------------------------------------------------
// Keys

bool WriteAll(int fd, const void* data, size_t size);

// The version of the JSON report's shape (docs/schemas/rpm-verify.schema.json).
const int kSchemaVersion = 1;

// The key file as the report gives it: its keys, or why it cannot be used.
json KeyReport(const std::string& path, const KeyDiagnosis& key) {
    json report = {{"path", path}};
    if (!key.usable) {
        report["reason"] = key.reason;
        report["message"] = key.text;
        if (!key.hint.empty()) report["hint"] = key.hint;
        return report;
    }
    report["keys"] = json::array();
    for (const KeyDiagnosis::Key& each : key.keys) {
        report["keys"].push_back({{"keyId", each.keyId}, {"algorithm", each.algorithm}, {"bits", each.bits}});
    }
    return report;
}

// The keys a run verifies with, as values: classic checks a package with one key block at a time, so
// each block of the key files is a key file of its own; current reads every key of one key file, made
// of all the blocks given.
struct Keys {
    std::vector<KeyBytes> files;      // in the order given
    std::vector<std::string> keyIds;  // classic: the key ID of each file
    json reports = json::array();     // one per key file given
    std::string firstError;           // the stderr line of the first key that cannot be used
    int Unusable() const { return firstError.empty() ? 0 : 1; }
};

// The bytes of a key file, a pipe as well (at most 1 MiB and one byte, so that a larger file is told).
bool ReadKeyBytes(const std::string& path, std::string& bytes, std::string& error) {
    const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        // The verifier's own words for a key file it cannot open.
        error = "Cannot open file " + path + ": " + std::strerror(errno);
        try {
            rpm_read_key_file(path);
        } catch (const std::exception& e) {
            error = e.what();
        }
        return false;
    }
    char buffer[65536];
    for (ssize_t count; (count = read(descriptor, buffer, sizeof buffer)) != 0;) {
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 || bytes.size() > 1024 * 1024) {
            error = count < 0 ? "Cannot read file " + path + ": " + std::strerror(errno)
                              : "PGP public key file " + path + " holds more than 1048576 bytes";
            close(descriptor);
            return false;
        }
        bytes.append(buffer, static_cast<size_t>(count));
    }
    close(descriptor);
    if (bytes.size() > 1024 * 1024) {
        error = "PGP public key file " + path + " holds more than 1048576 bytes";
        return false;
    }
    return true;
}

// Adds a key file to verify with: data, under the name messages give it.
const KeyBytes& AddKeyFile(Keys& keys, const std::string& name, const void* data, size_t size) {
    const char* bytes = static_cast<const char*>(data);
    keys.files.push_back(KeyBytes{name, std::vector<char>(bytes, bytes + size)});
    return keys.files.back();
}

// The line of a key file that the installer's key screen refuses (it holds "http://"), or "".
std::string InstallerRefusal(const std::string& bytes) {
    size_t number = 1;
    for (size_t at = 0; at < bytes.size(); ++number) {
        const size_t end = std::min(bytes.find('\n', at), bytes.size());
        const std::string line = bytes.substr(at, end - at);
        if (line.find("http://") != std::string::npos) return "line " + std::to_string(number) + ": " + line;
        at = end + 1;
    }
    return "";
}

void AddKeyReport(Keys& keys, const std::string& given, const KeyDiagnosis& key, const std::string& refusal) {
    json report = KeyReport(given, key);
    if (!refusal.empty()) report["installerRefuses"] = refusal;
    if (!key.usable && keys.firstError.empty()) {
        keys.firstError =
            "cannot use the key " + given + ": " + key.text + (key.hint.empty() ? "" : "; hint: ") + key.hint;
    }
    keys.reports.push_back(std::move(report));
}

// Reads every key file given and writes the files verification reads.
void PrepareKeys(const Options& options, Keys& keys) {
    std::vector<unsigned char> keyring;  // current: every key block, binary
    for (const std::string& given : options.keys) {
        std::string bytes, error;
        if (!ReadKeyBytes(given, bytes, error)) {
            KeyDiagnosis unreadable;
            unreadable.reason = "unreadable-key";
            unreadable.text = error;
            AddKeyReport(keys, given, unreadable, "");
            continue;
        }
        const std::string refusal = InstallerRefusal(bytes);
        std::vector<std::vector<unsigned char>> blocks;
        try {
            blocks = OpenPgpKeyring::SplitKeys(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
        } catch (const std::exception&) {
            blocks.clear();  // the diagnosis of the bytes as given tells why
        }
        if (options.policy == SigningPolicy::Current) {
            AddKeyReport(keys, given, DiagnoseKeyBytes(std::vector<char>(bytes.begin(), bytes.end()), options.policy),
                         refusal);
            for (const auto& block : blocks) keyring.insert(keyring.end(), block.begin(), block.end());
            continue;
        }
        if (blocks.size() <= 1) {
            // One key block (or one that cannot be split): the bytes as given.
            const KeyDiagnosis key = DiagnoseKeyBytes(AddKeyFile(keys, given, bytes.data(), bytes.size()).bytes);
            keys.keyIds.push_back(key.keyId);
            AddKeyReport(keys, given, key, refusal);
            continue;
        }
        KeyDiagnosis all;
        all.usable = true;
        for (size_t block = 0; block < blocks.size() && all.usable; ++block) {
            const std::string place = "key " + std::to_string(block + 1) + " of " + std::to_string(blocks.size());
            const KeyBytes& file =
                AddKeyFile(keys, given + " (" + place + ")", blocks[block].data(), blocks[block].size());
            const KeyDiagnosis key = DiagnoseKeyBytes(file.bytes);
            keys.keyIds.push_back(key.keyId);
            if (!key.usable) {
                all = key;
                all.text = place + ": " + key.text;
            } else {
                all.keys.insert(all.keys.end(), key.keys.begin(), key.keys.end());
            }
        }
        AddKeyReport(keys, given, all, refusal);
    }
    if (options.policy == SigningPolicy::Current && keys.firstError.empty()) {
        AddKeyFile(keys, "the keys given", keyring.data(), keyring.size());
        std::string ids;
        for (const json& key : keys.reports) {
            for (const json& each : key["keys"]) ids += (ids.empty() ? "" : ", ") + each["keyId"].get<std::string>();
        }
        keys.keyIds.push_back(ids);
    }
}

// The outcome of a package with the keys: the first key that verifies it, else the first key's.
json Outcome(const std::string& file, const Keys& keys, SigningPolicy policy) {
    json first;
    for (size_t i = 0; i < keys.files.size(); ++i) {
        const std::string keyId = i < keys.keyIds.size() ? keys.keyIds[i] : "";
        json outcome = Outcome(file, keys.files[i], keyId, policy);
        if (outcome["status"] == 0) {
            std::string verified = keyId;
            for (const json& check : outcome["checks"]) {
                if (check["result"] == "OK" && check.contains("keyId")) verified = check["keyId"].get<std::string>();
            }
            if (!verified.empty()) outcome["keyId"] = verified;
            return outcome;
        }
        if (i == 0) first = std::move(outcome);
    }
    return first;
}

// ---------------------------------------------------------------------------------------------
// Worker processes: the packages are cut into N blocks in their order; the parent verifies the first
// block itself while each worker verifies one of the others and sends its outcomes, when all are
// made, through a pipe as length-prefixed CBOR. The parent then reads them back block by block.

bool WriteAll(int fd, const void* data, size_t size) {
    const char* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = write(fd, bytes, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        bytes += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

bool ReadAll(int fd, void* data, size_t size) {
    char* bytes = static_cast<char*>(data);
    while (size > 0) {
        const ssize_t got = read(fd, bytes, size);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        bytes += got;
        size -= static_cast<size_t>(got);
    }
    return true;
}

void AppendOutcome(std::vector<std::uint8_t>& frames, const json& outcome) {
    const std::vector<std::uint8_t> frame = json::to_cbor(outcome);
    const uint32_t size = static_cast<uint32_t>(frame.size());
    const auto* sizeBytes = reinterpret_cast<const std::uint8_t*>(&size);
    frames.insert(frames.end(), sizeBytes, sizeBytes + sizeof size);
    frames.insert(frames.end(), frame.begin(), frame.end());
}

bool ReceiveOutcome(int fd, json& outcome) {
    uint32_t size = 0;
    if (!ReadAll(fd, &size, sizeof size)) return false;
    std::vector<std::uint8_t> frame(size);
    if (!ReadAll(fd, frame.data(), size)) return false;
    outcome = json::from_cbor(frame, true, false);
    return !outcome.is_discarded();
}

struct Worker {
    pid_t pid;
    int fd;        // -1: not started, the parent verifies the block itself
    size_t begin;  // the block's first package
};

// Starts a worker for each block after the first.
std::vector<Worker> StartWorkers(const Options& options, const Keys& keys) {
    const size_t packages = options.packages.size();
    const size_t count = std::min<size_t>(options.jobs, packages);
    std::vector<Worker> workers;
    std::fflush(nullptr);
    for (size_t block = 1; block < count; ++block) {
        const size_t begin = block * packages / count, end = (block + 1) * packages / count;
        int ends[2] = {-1, -1};
        const pid_t pid = pipe(ends) == 0 ? fork() : -1;
        if (pid == 0) {
            close(ends[0]);
            for (const Worker& other : workers) close(other.fd);
            std::vector<std::uint8_t> frames;
            for (size_t i = begin; i < end; ++i)
                AppendOutcome(frames, Outcome(options.packages[i], keys, options.policy));
            _exit(WriteAll(ends[1], frames.data(), frames.size()) ? 0 : 1);
        }
        if (ends[1] >= 0) close(ends[1]);
        if (pid < 0 && ends[0] >= 0) close(ends[0]);
        workers.push_back({pid, pid < 0 ? -1 : ends[0], begin});
    }
    return workers;
}

// ---------------------------------------------------------------------------------------------
// Output

std::string Text(const json& value) {
    return value.get<std::string>();
}

// The verdict line: the message, led by the file name when the message does not name it.
std::string VerdictLine(const json& outcome, bool withDetail) {
    const std::string file = Text(outcome["file"]), message = Text(outcome["message"]);
    std::string line = message.compare(0, file.size(), file) == 0 ? message : file + ": " + message;
    if (withDetail && outcome["status"] != 0 && outcome.contains("detail"))
        line += " (" + Text(outcome["detail"]) + ")";
    return line;
}

void PrintText(const json& outcome, bool verbose, bool quiet) {
    if (quiet && outcome["status"] == 0) return;
    if (verbose) {
        std::printf("%s:\n", Text(outcome["file"]).c_str());
        for (const json& check : outcome["checks"]) {
            std::printf("    %s: %s", Text(check["check"]).c_str(), Text(check["result"]).c_str());
            if (check.contains("reason")) std::printf(" (%s)", Text(check["reason"]).c_str());
            std::fputs("\n", stdout);
        }
    }
    std::printf("%s\n", VerdictLine(outcome, verbose).c_str());
    // The hint goes to standard error after its package's verdict, also when both streams are one.
    std::fflush(stdout);
    if (outcome.contains("hint")) {
        if (verbose) {
            std::printf("    Hint: %s\n", Text(outcome["hint"]).c_str());
        } else {
            std::fprintf(stderr, "%s: %s: hint: %s\n", kProgram, Text(outcome["file"]).c_str(),
                         Text(outcome["hint"]).c_str());
        }
    }
}

std::string Dump(const json& value) {
    return value.dump(2, ' ', false, json::error_handler_t::replace);
}

}  // namespace

namespace {

// Tells on stderr what the keys read say before any package: the key files the installer's check
// would refuse, the first key that cannot be used; with -v (text), every key. False when a key
// cannot be used.
bool ReportKeys(const Options& options, const Keys& keys, const json& report) {
    for (const json& key : keys.reports) {
        if (key.contains("installerRefuses")) {
            std::fprintf(stderr, "%s: note: the installer's check would refuse the key file %s (%s)\n", kProgram,
                         Text(key["path"]).c_str(), Text(key["installerRefuses"]).c_str());
        }
    }
    if (keys.Unusable() != 0) {
        std::fprintf(stderr, "%s: %s\n", kProgram, keys.firstError.c_str());
        if (options.json) std::printf("%s\n", Dump(report).c_str());
        return false;
    }
    if (options.verbose && !options.json) {
        for (const json& key : keys.reports) {
            for (const json& each : key["keys"]) {
                std::printf("Key %s: key ID %s, %s %llu bits\n", Text(key["path"]).c_str(), Text(each["keyId"]).c_str(),
                            Text(each["algorithm"]).c_str(), each["bits"].get<unsigned long long>());
            }
        }
    }
    return true;
}

// Verifies every package given, in order (blocks of them in worker processes with --jobs), and
// prints or collects the outcomes; true when all are signed.
bool VerifyPackages(const Options& options, const Keys& keys, json& outcomes) {
    const std::vector<Worker> workers = options.jobs > 1 ? StartWorkers(options, keys) : std::vector<Worker>();
    bool allSigned = true;
    const Worker* worker = nullptr;  // the worker of the package at hand; null: the parent's own
    for (size_t i = 0, next = 0; i < options.packages.size(); ++i) {
        if (next < workers.size() && i >= workers[next].begin) worker = &workers[next++];
        json outcome;
        if (worker == nullptr || worker->fd < 0) {
            outcome = Outcome(options.packages[i], keys, options.policy);
        } else if (!ReceiveOutcome(worker->fd, outcome)) {
            outcome = {{"file", options.packages[i]},
                       {"status", 5},
                       {"message", "Internal error occured while verifying " + options.packages[i]},
                       {"reason", "damaged"},
                       {"detail", "the worker process verifying it ended unexpectedly"},
                       {"checks", json::array()}};
        }
        allSigned = allSigned && outcome["status"] == 0;
        if (options.json) {
            outcomes.push_back(std::move(outcome));
        } else {
            PrintText(outcome, options.verbose, options.quiet);
        }
    }
    for (const Worker& started : workers) {
        if (started.fd >= 0) close(started.fd);
        if (started.pid > 0) waitpid(started.pid, nullptr, 0);
    }
    return allSigned;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    const int early = ParseArguments(argc, argv, options);
    if (early >= 0) return early;

    // The keys, read once before any package.
    Keys keys;
    try {
        PrepareKeys(options, keys);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s: %s\n", kProgram, e.what());
        return 2;
    }
    json report = {{"schemaVersion", kSchemaVersion},
                   {"policy", options.policy == SigningPolicy::Current ? "current" : "classic"},
                   {"keys", keys.reports},
                   {"packages", json::array()}};
    if (!ReportKeys(options, keys, report)) return 2;
    const bool allSigned = VerifyPackages(options, keys, report["packages"]);
    if (options.json) std::printf("%s\n", Dump(report).c_str());
    return allSigned ? 0 : 1;
}
