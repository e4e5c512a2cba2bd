// rpm-verify: checks RPM package files against an OpenPGP public key with the module's own
// verifier, one line per package (every check with --verbose, JSON with --json).
//
// Exit status: 0 when every package is signed and valid, 1 otherwise, 2 on a usage error or a key
// that cannot be used.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
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
#include "PgpKey.h"
#include "RpmReport.h"
#include "Signature.h"
#include "VerifyReason.h"

namespace {

// Objects keep their keys in the order they were added: "file", "status", "message" first.
using json = nlohmann::ordered_json;

const char kProgram[] = "rpm-verify";

const char kHelp[] =
    "Usage: rpm-verify [OPTION]... --key=KEY PACKAGE...\n"
    "Verify the OpenPGP signatures and header digests of RPM packages against the publisher's\n"
    "public key, the way the installer's signing module does. A PACKAGE of - is read from\n"
    "standard input (a pipe will do).\n"
    "\n"
    "Each key file is read once, before any package: one that is missing, unreadable or in a form\n"
    "the verifier cannot use gets one line that names it and the reason, and exit status 2. Under\n"
    "the classic policy the packages are still judged with it, as the installer would; under\n"
    "current they are verified with the other files (without any, no package is verified).\n"
    "\n"
    "Options:\n"
    "  -k, --key=KEY      the publisher's OpenPGP public key file (armored or binary; a pipe will\n"
    "                     do, - is standard input); repeat it for more key files: a package\n"
    "                     passes with any of them, and the report names the key ID that verified\n"
    "                     it. Under the classic policy each file is judged as the installer judges\n"
    "                     it: one key per file (of a block of several keys, the key of the block's\n"
    "                     last signature packet; a file of several armor blocks cannot be used),\n"
    "                     with a note that says so; under current every key of every file counts.\n"
    "                     A file that the installer's check would refuse (a line with \"http://\")\n"
    "                     is named, with the line\n"
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
    "                     on every exit status: \"schemaVersion\", \"policy\", \"keys\" (one per key\n"
    "                     file: \"path\" and \"keys\", each with \"keyId\", \"algorithm\" and \"bits\",\n"
    "                     and a \"note\" on a file of several keys; or \"reason\", \"message\" and\n"
    "                     \"hint\" for a file that cannot be used), \"packages\", one object per\n"
    "                     package: \"file\", \"status\", \"message\" (the verifier's message),\n"
    "                     \"reason\" (a stable code, see below), \"detail\" (the verifier's own\n"
    "                     reason, or the one cause of a file that cannot be read), \"checks\" (the\n"
    "                     checks of --verbose: \"check\", \"result\", \"reason\", \"keyId\"), \"hint\"\n"
    "                     (where one helps) and \"keyId\" (the key that verified it); and \"error\",\n"
    "                     the usage error that ended the run\n"
    "  -j, --jobs=N       verify in N worker processes (default 1); the output keeps the order\n"
    "                     of the packages\n"
    "  -h, --help         display this help and exit\n"
    "  -V, --version      output version information and exit\n"
    "\n"
    "Without --verbose or --json each package gets one line: its verdict (\"FILE is signed.\",\n"
    "\"FILE is not signed.\", \"FILE has invalid signature. (REASON: why)\", \"FILE has invalid\n"
    "hash.\", or the reason it could not be verified, such as \"FILE: is a directory\"; the line of\n"
    "status 5 ends with its reason code, \"(REASON)\"); hints go to standard error.\n"
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
    "  2  a usage error, or a key file that cannot be used\n"
    "\n"
    "Examples:\n"
    "  rpm-verify --key=publisher.asc hello-1.0-1.noarch.rpm\n"
    "  rpm-verify --verbose --key publisher.asc *.rpm\n"
    "  rpm-verify --quiet --key old.asc --key new.asc *.rpm\n"
    "  rpm-verify --policy=current --key publisher.asc *.rpm\n"
    "  curl -s https://example.com/hello-1.0-1.noarch.rpm | rpm-verify --key publisher.asc -\n"
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

// The version of the JSON report's shape (docs/schemas/rpm-verify.schema.json).
const int kSchemaVersion = 1;

std::string Dump(const json& value) {
    return value.dump(2, ' ', false, json::error_handler_t::replace);
}

// The JSON report of a run that ends before any key is read, with why.
json ErrorReport(const Options& options, const std::string& error) {
    return {{"schemaVersion", kSchemaVersion},
            {"policy", options.policy == SigningPolicy::Current ? "current" : "classic"},
            {"keys", json::array()},
            {"packages", json::array()},
            {"error", error}};
}

int UsageError(const Options& options, const std::string& text) {
    if (options.json) std::printf("%s\n", Dump(ErrorReport(options, text)).c_str());
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
                if (*optarg == '\0') return UsageError(options, "no key file given (--key=KEY)");
                options.keys.emplace_back(optarg);
                break;
            case 'P':
                if (!ParseSigningPolicy(optarg, options.policy)) {
                    return UsageError(options, std::string("--policy wants classic or current, not '") + optarg + "'");
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
                    return UsageError(options,
                                      std::string("--jobs wants a number from 1 to 256, not '") + optarg + "'");
                }
                options.jobs = static_cast<unsigned int>(jobs);
                break;
            }
            case 'h': std::fputs(kHelp, stdout); return 0;
            case 'V': return cli::PrintVersion(kProgram);
            default: return UsageError(options, cli::OptionErrorText(option, argv));
        }
    }
    for (int i = optind; i < argc; ++i) options.packages.emplace_back(argv[i]);
    if (options.keys.empty()) return UsageError(options, "no key file given (--key=KEY)");
    if (options.packages.empty()) return UsageError(options, "no package file given");
    // Standard input is read once: for one key file, or for the packages given as "-".
    const auto standardInput = [](const std::vector<std::string>& files) {
        return std::count(files.begin(), files.end(), std::string("-"));
    };
    if (standardInput(options.keys) > 1 || (standardInput(options.keys) == 1 && standardInput(options.packages) > 0)) {
        return UsageError(options, "standard input is read once: give '-' for one key file or for the packages");
    }
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

// The first key ID of a list "A, B".
std::string FirstKeyId(const std::string& ids) {
    return ids.substr(0, ids.find(','));
}

// The rpmsign command that signs a package over header and payload with a key. It names the key
// itself, so that it runs where no %_gpg_name is configured, and gpg by its path (Debian's rpm 4.18
// names /usr/bin/gpg2, which Debian does not ship).
std::string SignCommand(const std::string& keyId) {
    return "rpmsign --addsign --rpmv3 --define '_gpg_name " + (keyId.empty() ? "<KEYID>" : keyId) +
           "' --define '__gpg /usr/bin/gpg' PACKAGE";
}

// The hint for a reason. keyId: the key ID the file given checks with; given: those of every key
// file given ("A, B"), which a package should be signed with.
std::string HintOf(const std::string& reason, const RpmReport& report, const KeyBytes& key, const std::string& given,
                   SigningPolicy policy) {
    // A header-only package is re-signed with the key of its header signature.
    std::string signer = FirstKeyId(given);
    for (const RpmCheck& check : report.checks) {
        if (check.state == RpmCheck::Ok && !check.keyId.empty()) signer = check.keyId;
    }
    const std::string resign = "rpmsign --delsign PACKAGE, then " + SignCommand(signer);
    if (reason == "header-only" && policy == SigningPolicy::Classic) {
        return "the package is signed over its header only (what rpmsign --addsign writes by default); the "
               "installer's classic check also needs a signature over header and payload: " +
               resign +
               " (or verify with --policy=current, which takes the payload digest of the signed header instead)";
    }
    if (reason == "header-only") {
        return "the package is signed over its header only and its header holds no payload digest: " + resign;
    }
    if (reason == "eddsa-signature") {
        return "the package is signed with an EdDSA key (tags 267 and 1005), which the installer's classic check "
               "does not read: verify with --policy=current, or re-sign it with an RSA key: rpmsign --delsign "
               "PACKAGE, then " +
               SignCommand(FirstKeyId(given));
    }
    if (reason == "too-large") {
        return "the installer's classic check reads packages under 2 GiB only: verify it with --policy=current";
    }
    if (reason == "not-signed") return "sign it with " + SignCommand(FirstKeyId(given));
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
        // The verdict line names the keys; the hint says what to do.
        return "check it with the publisher's key, or re-sign it with the key given: rpmsign --delsign PACKAGE, "
               "then " +
               SignCommand(FirstKeyId(given));
    }
    if (reason == "unreadable-key" || reason == "unsupported-key") return DiagnoseKeyBytes(key.bytes, policy).hint;
    return "";
}

json Outcome(const std::string& file, const KeyBytes& key, const std::string& given, SigningPolicy policy) {
    RpmReport report;
    const RpmVerifyResult result = rpm_verify_report(file.c_str(), key, report, policy);
    json outcome = {{"file", file}, {"status", static_cast<int>(result.status)}};
    outcome["message"] = result.message != nullptr ? result.message : "";
    // The static text of a failed allocation is not the caller's to free.
    if (result.message != nullptr && std::strcmp(result.message, "Internal error.") != 0) std::free(result.message);
    // The classic check reads RSA signatures only (tags 268 and 1002): the signatures it does not read
    // are named, as the current policy reads them, so that such a package is not just "not signed".
    const bool unread =
        policy == SigningPolicy::Classic && report.stage == RpmStage::Checked && report.result != ResultSigned;
    RpmReport current;
    if (unread) rpm_free_message(rpm_verify_report(file.c_str(), key, current, SigningPolicy::Current).message);
    // The module's reason code: the one the C interface gives for the same verification.
    KeyFileBytes keyFile(key.name, key.bytes);
    const std::string reason = ReasonName(ReasonOf(file, report, keyFile, policy, unread ? &current : nullptr));
    outcome["reason"] = reason;
    if (!report.detail.empty()) outcome["detail"] = report.detail;
    outcome["checks"] = json::array();
    for (const RpmCheck& check : report.checks) {
        json item = {{"check", check.label}, {"result", StateText(check.state)}};
        if (!check.reason.empty()) item["reason"] = check.reason;
        if (!check.keyId.empty()) item["keyId"] = check.keyId;
        outcome["checks"].push_back(item);
    }
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
    }
    const std::string hint = HintOf(reason, report, key, given, policy);
    if (!hint.empty()) outcome["hint"] = hint;
    return outcome;
}

// ---------------------------------------------------------------------------------------------
// Keys

bool WriteAll(int fd, const void* data, size_t size);

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

// The keys a run verifies with, as values. Classic checks a package with each key file as the
// installer reads it, the file whole (one key: the installer takes one key file); current reads
// every key of one key file, made of all the blocks of the usable files given.
struct Keys {
    std::vector<KeyBytes> files;      // the usable ones, in the order given
    std::vector<std::string> keyIds;  // the key ID each file checks signatures with (current: all)
    json reports = json::array();     // one per key file given
    std::vector<std::string> errors;  // the stderr line of each key file that cannot be used
    // The key IDs of every usable file, for the texts that name the keys given.
    std::string Given() const {
        std::string ids;
        for (const std::string& id : keyIds) ids += (ids.empty() || id.empty() ? "" : ", ") + id;
        return ids;
    }
};

// Why a file cannot be read as a file: "is a directory", the system's text of the error opening it,
// or "" when it opens and is no directory.
std::string FileProblem(const std::string& path) {
    const int descriptor = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0) return std::strerror(errno);
    struct stat status;
    const bool directory = fstat(descriptor, &status) == 0 && S_ISDIR(status.st_mode);
    close(descriptor);
    return directory ? "is a directory" : "";
}

// The bytes of a key file, a pipe as well, "-" standard input (at most 1 MiB and one byte, so that
// a larger file is told). error: one short cause.
bool ReadKeyBytes(const std::string& path, std::string& bytes, std::string& error) {
    const bool standardInput = path == "-";
    error = standardInput ? "" : FileProblem(path);
    const int descriptor = standardInput ? 0 : error.empty() ? open(path.c_str(), O_RDONLY | O_CLOEXEC) : -1;
    if (descriptor < 0) {
        if (error.empty()) error = std::strerror(errno);
        return false;
    }
    char buffer[65536];
    for (ssize_t count; (count = read(descriptor, buffer, sizeof buffer)) != 0;) {
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 || bytes.size() > 1024 * 1024) {
            error = count < 0 ? std::strerror(errno) : "the file holds more than 1048576 bytes";
            break;
        }
        bytes.append(buffer, static_cast<size_t>(count));
    }
    if (!standardInput) close(descriptor);
    if (error.empty() && bytes.size() > 1024 * 1024) error = "the file holds more than 1048576 bytes";
    return error.empty();
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
    if (!key.note.empty()) report["note"] = key.note;
    if (!refusal.empty()) report["installerRefuses"] = refusal;
    if (!key.usable) {
        keys.errors.push_back("cannot use the key " + given + ": " + key.text + (key.hint.empty() ? "" : "; hint: ") +
                              key.hint);
    }
    keys.reports.push_back(std::move(report));
}

// Reads every key file given; the files that cannot be used are reported (and, under the current
// policy, left out).
void PrepareKeys(const Options& options, Keys& keys) {
    std::vector<unsigned char> keyring;  // current: every key block of the usable files, binary
    for (const std::string& given : options.keys) {
        std::string bytes, error;
        if (!ReadKeyBytes(given, bytes, error)) {
            KeyDiagnosis unreadable;
            unreadable.reason = "unreadable-key";
            unreadable.text = error;
            AddKeyReport(keys, given, unreadable, "");
            continue;
        }
        const KeyDiagnosis key = DiagnoseKeyBytes(std::vector<char>(bytes.begin(), bytes.end()), options.policy);
        AddKeyReport(keys, given, key, InstallerRefusal(bytes));
        // Classic judges packages with a key file it cannot use all the same, as the installer would
        // (a package that is not signed is still "not signed"); current leaves it out.
        if (options.policy == SigningPolicy::Classic) {
            keys.files.push_back(KeyBytes{given, std::vector<char>(bytes.begin(), bytes.end())});
            keys.keyIds.push_back(key.keyId);
            continue;
        }
        if (!key.usable) continue;
        try {
            for (const auto& block :
                 OpenPgpKeyring::SplitKeys(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size())) {
                keyring.insert(keyring.end(), block.begin(), block.end());
            }
        } catch (const std::exception&) {
            // The diagnosis read the file: its blocks split as well.
        }
        for (const KeyDiagnosis::Key& each : key.keys) keys.keyIds.push_back(each.keyId);
    }
    if (options.policy == SigningPolicy::Current && !keyring.empty()) {
        const std::string ids = keys.Given();
        keys.files.push_back(KeyBytes{"the keys given", std::vector<char>(keyring.begin(), keyring.end())});
        keys.keyIds.assign(1, ids);
    }
}

// The outcome of a package with the keys: the first key file that verifies it, else the first
// file's (each as the installer would judge the package with that file).
json Outcome(const std::string& file, const Keys& keys, SigningPolicy policy) {
    json first;
    for (size_t i = 0; i < keys.files.size(); ++i) {
        const std::string& keyId = keys.keyIds[i];
        json outcome = Outcome(file, keys.files[i], keys.Given(), policy);
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
// Packages from standard input

// A package given as "-" is read from standard input. The module reads a package by path with
// positioned reads, which a pipe does not take: a stream is copied into a temporary file without a
// name (O_TMPFILE; else mkstemp, unlinked at once), read through /proc/self/fd. Standard input that
// is a regular file is read in place.
struct StandardInput {
    std::string path;     // what the package is verified as
    std::string problem;  // why it cannot be: "" when it can
    std::string reason;   // the reason code of problem
};

// The most a package copied from standard input may hold: what the classic policy reads (under
// 2 GiB), and for the current policy, which reads packages of any size, 64 GiB.
uint64_t StandardInputBound(SigningPolicy policy) {
    return policy == SigningPolicy::Classic ? 0x7FFFFFFFull : 64ull << 30;
}

int TemporaryFile() {
    const char* folder = std::getenv("TMPDIR");
    const std::string base = folder != nullptr && *folder != '\0' ? folder : "/tmp";
    int descriptor = open(base.c_str(), O_TMPFILE | O_RDWR | O_EXCL | O_CLOEXEC, 0600);
    if (descriptor >= 0) return descriptor;
    std::string name = base + "/rpm-verify.XXXXXX";
    descriptor = mkostemp(&name[0], O_CLOEXEC);
    if (descriptor >= 0) unlink(name.c_str());
    return descriptor;
}

StandardInput ReadStandardInput(SigningPolicy policy) {
    StandardInput input;
    struct stat status;
    if (fstat(0, &status) == 0 && S_ISREG(status.st_mode)) {
        input.path = "/proc/self/fd/0";
        return input;
    }
    const int copy = TemporaryFile();
    if (copy < 0) {
        input.problem = std::string("cannot make a temporary file for standard input: ") + std::strerror(errno);
        input.reason = "unreadable-file";
        return input;
    }
    const uint64_t bound = StandardInputBound(policy);
    uint64_t size = 0;
    char buffer[65536];
    for (ssize_t count; input.problem.empty() && (count = read(0, buffer, sizeof buffer)) != 0;) {
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 || !WriteAll(copy, buffer, static_cast<size_t>(count))) {
            input.problem = std::strerror(errno);
            input.reason = "unreadable-file";
        } else if ((size += static_cast<uint64_t>(count)) > bound) {
            input.problem = policy == SigningPolicy::Classic
                                ? "holds 2 GiB or more, more than the classic policy reads"
                                : "holds more than 64 GiB, more than rpm-verify copies from standard input";
            input.reason = "too-large";
        }
    }
    input.path = "/proc/self/fd/" + std::to_string(copy);
    return input;
}

// Every text of an outcome with the name the package was read under replaced by the one given.
void Rename(json& outcome, const std::string& from, const std::string& to) {
    auto replace = [&](json& value) {
        std::string text = value.get<std::string>();
        for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
            text.replace(at, from.size(), to);
        }
        value = text;
    };
    outcome["file"] = to;
    replace(outcome["message"]);
    if (outcome.contains("detail")) replace(outcome["detail"]);
    for (json& check : outcome["checks"]) {
        if (check.contains("reason")) replace(check["reason"]);
    }
}

// An outcome the module did not give: a package that could not be handed to it.
json RefusedOutcome(const std::string& file, const std::string& message, const std::string& reason,
                    const std::string& hint) {
    json outcome = {{"file", file}, {"status", 5}, {"message", message}, {"reason", reason}};
    outcome["checks"] = json::array();
    if (!hint.empty()) outcome["hint"] = hint;
    return outcome;
}

// The outcome of a package given on the command line ("-": standard input). A file that cannot be
// read as one gets the module's status and message, and the one cause as its detail.
json PackageOutcome(const std::string& file, const Keys& keys, SigningPolicy policy, const StandardInput& input) {
    if (file == "-" && !input.problem.empty()) {
        RpmReport none;
        return RefusedOutcome(file, input.problem, input.reason,
                              HintOf(input.reason, none, keys.files[0], keys.Given(), policy));
    }
    const std::string path = file == "-" ? input.path : file;
    const std::string problem = FileProblem(path);
    json outcome = Outcome(path, keys, policy);
    if (!problem.empty()) {
        json unreadable = {
            {"file", outcome["file"]},     {"status", outcome["status"]}, {"message", outcome["message"]},
            {"reason", "unreadable-file"}, {"detail", problem},           {"checks", json::array()}};
        outcome = std::move(unreadable);
    }
    if (file == "-") Rename(outcome, path, file);
    return outcome;
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
std::vector<Worker> StartWorkers(const Options& options, const Keys& keys, const StandardInput& input) {
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
                AppendOutcome(frames, PackageOutcome(options.packages[i], keys, options.policy, input));
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

// Why a signature check failed, for the verdict line: the reason code and what it means.
std::string SignatureFailure(const json& outcome, const std::string& given) {
    const std::string reason = Text(outcome["reason"]);
    if (reason == "wrong-key") {
        std::string signers;
        for (const json& check : outcome["checks"]) {
            const bool failed = check["result"] == "BAD" || check["result"] == "NOKEY";
            if (failed && check.contains("keyId") && signers.find(Text(check["keyId"])) == std::string::npos) {
                signers += (signers.empty() ? "" : ", ") + Text(check["keyId"]);
            }
        }
        const bool several = given.find(',') != std::string::npos;
        return "wrong-key: signed with key ID " + signers +
               (several ? ", the keys given are " : ", the key given is ") + given;
    }
    for (const json& check : outcome["checks"]) {
        if (check["result"] != "BAD") continue;
        const std::string why = check.contains("reason") ? ": " + Text(check["reason"]) : "";
        if (check.contains("keyId")) {
            return reason + ": the signature by key ID " + Text(check["keyId"]) + " does not verify" + why;
        }
        return reason + ": " + Text(check["check"]) + why;
    }
    return reason;
}

// The verdict line: the message, led by the file name when the message does not name it; a file
// that cannot be read gets its one cause instead, an invalid signature the reason after the message.
std::string VerdictLine(const json& outcome, const std::string& given, bool withDetail) {
    const std::string file = Text(outcome["file"]), message = Text(outcome["message"]);
    if (outcome["reason"] == "unreadable-file" && outcome.contains("detail")) {
        return file + ": " + Text(outcome["detail"]);
    }
    std::string line = message.compare(0, file.size(), file) == 0 ? message : file + ": " + message;
    if (outcome["status"] == 2) {
        line += " (" + SignatureFailure(outcome, given) + ")";
    } else if (outcome["status"] == 5) {
        // The installer's message for status 5 seldom says why: the reason code does.
        line += " (" + Text(outcome["reason"]);
        if (withDetail && outcome.contains("detail")) line += ": " + Text(outcome["detail"]);
        line += ")";
    } else if (withDetail && outcome["status"] != 0 && outcome.contains("detail")) {
        line += " (" + Text(outcome["detail"]) + ")";
    }
    return line;
}

void PrintText(const json& outcome, const std::string& given, bool verbose, bool quiet) {
    if (quiet && outcome["status"] == 0) return;
    if (verbose) {
        std::printf("%s:\n", Text(outcome["file"]).c_str());
        for (const json& check : outcome["checks"]) {
            std::printf("    %s: %s", Text(check["check"]).c_str(), Text(check["result"]).c_str());
            if (check.contains("reason")) std::printf(" (%s)", Text(check["reason"]).c_str());
            std::fputs("\n", stdout);
        }
    }
    std::printf("%s\n", VerdictLine(outcome, given, verbose).c_str());
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

}  // namespace

namespace {

// Tells on stderr what the keys read say before any package: the key files the installer's check
// would refuse, what it does with a file of several keys, each key file that cannot be used; with
// -v (text), every key. False when no key file can be used.
bool ReportKeys(const Options& options, const Keys& keys, const json& report) {
    for (const json& key : keys.reports) {
        const std::string path = Text(key["path"]);
        if (key.contains("installerRefuses")) {
            std::fprintf(stderr, "%s: note: the installer's check would refuse the key file %s (%s)\n", kProgram,
                         path.c_str(), Text(key["installerRefuses"]).c_str());
        }
        if (key.contains("note")) {
            std::fprintf(stderr, "%s: note: the key file %s %s\n", kProgram, path.c_str(), Text(key["note"]).c_str());
        }
    }
    for (const std::string& error : keys.errors) std::fprintf(stderr, "%s: %s\n", kProgram, error.c_str());
    if (keys.files.empty()) {
        if (options.json) std::printf("%s\n", Dump(report).c_str());
        return false;
    }
    if (options.verbose && !options.json) {
        for (const json& key : keys.reports) {
            if (!key.contains("keys")) continue;
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
bool VerifyPackages(const Options& options, const Keys& keys, const StandardInput& input, json& outcomes) {
    const std::vector<Worker> workers = options.jobs > 1 ? StartWorkers(options, keys, input) : std::vector<Worker>();
    bool allSigned = true;
    const Worker* worker = nullptr;  // the worker of the package at hand; null: the parent's own
    for (size_t i = 0, next = 0; i < options.packages.size(); ++i) {
        if (next < workers.size() && i >= workers[next].begin) worker = &workers[next++];
        json outcome;
        if (worker == nullptr || worker->fd < 0) {
            outcome = PackageOutcome(options.packages[i], keys, options.policy, input);
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
            PrintText(outcome, keys.Given(), options.verbose, options.quiet);
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
    options.json = cli::AsksForJson(argc, argv, {"-k", "--key", "--policy", "-j", "--jobs"});
    const int early = ParseArguments(argc, argv, options);
    if (early >= 0) return early;

    // The keys, read once before any package. A key file that cannot be used makes exit status 2 at
    // the end; classic judges packages with it all the same, current leaves it out (without any key
    // file left, no package is verified).
    Keys keys;
    try {
        PrepareKeys(options, keys);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s: %s\n", kProgram, e.what());
        if (options.json) std::printf("%s\n", Dump(ErrorReport(options, e.what())).c_str());
        return 2;
    }
    json report = ErrorReport(options, "");
    report.erase("error");
    report["keys"] = keys.reports;
    if (!ReportKeys(options, keys, report)) return 2;
    StandardInput input;
    if (std::find(options.packages.begin(), options.packages.end(), "-") != options.packages.end()) {
        input = ReadStandardInput(options.policy);
    }
    const bool allSigned = VerifyPackages(options, keys, input, report["packages"]);
    if (options.json) std::printf("%s\n", Dump(report).c_str());
    if (!keys.errors.empty()) return 2;
    return allSigned ? 0 : 1;
}
