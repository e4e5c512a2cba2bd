// rpm-verify: checks package files against an OpenPGP public key, one line per package.
//
//   rpm-verify [--json] [--verbose] --key KEY PACKAGE...
//
// Exit status: 0 when every package is signed and valid, 1 otherwise, 2 on a usage error.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "rpmutil.h"

namespace {

const char kUsage[] =
    "usage: rpm-verify [--json] [--verbose] --key KEY PACKAGE...\n"
    "\n"
    "Verifies the OpenPGP signatures and the header digests of RPM package files against the public\n"
    "key in KEY (armored or binary) and prints one line per package.\n"
    "\n"
    "  --key KEY    the publisher's OpenPGP public key file\n"
    "  --json       print a JSON array of {\"file\", \"status\", \"message\"} objects instead\n"
    "  --verbose    add the verifier's detailed reason to each failure\n"
    "  --help       show this text\n"
    "\n"
    "Status: 0 signed, 1 not signed, 2 invalid signature, 3 invalid hash, 4 invalid structure,\n"
    "5 not an RPM file or an error. Exit status: 0 when every package has status 0, 1 otherwise,\n"
    "2 on a usage error.\n";

struct Options {
    bool json = false;
    bool verbose = false;
    const char* key = nullptr;
    std::vector<const char*> packages;
};

int UsageError(const std::string& text) {
    std::fprintf(stderr, "rpm-verify: %s\n%s", text.c_str(), kUsage);
    return 2;
}

// text as a JSON string; bytes that are not UTF-8 become U+FFFD.
std::string JsonString(const std::string& text) {
    return nlohmann::json(text).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// Returns -1 when the arguments are good, else the exit status to end with.
int ParseArguments(int argc, char** argv, Options& options) {
    bool onlyPackages = false;
    for (int i = 1; i < argc; ++i) {
        const char* argument = argv[i];
        if (onlyPackages || argument[0] != '-' || std::strcmp(argument, "-") == 0) {
            options.packages.push_back(argument);
        } else if (std::strcmp(argument, "--") == 0) {
            onlyPackages = true;
        } else if (std::strcmp(argument, "--help") == 0 || std::strcmp(argument, "-h") == 0) {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (std::strcmp(argument, "--json") == 0) {
            options.json = true;
        } else if (std::strcmp(argument, "--verbose") == 0) {
            options.verbose = true;
        } else if (std::strcmp(argument, "--key") == 0) {
            if (i + 1 >= argc) return UsageError("--key needs a key file");
            options.key = argv[++i];
        } else if (std::strncmp(argument, "--key=", 6) == 0) {
            options.key = argument + 6;
        } else {
            return UsageError(std::string("unknown option ") + argument);
        }
    }
    if (options.key == nullptr || options.key[0] == '\0') return UsageError("no key file given (--key KEY)");
    if (options.packages.empty()) return UsageError("no package file given");
    return -1;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    const int early = ParseArguments(argc, argv, options);
    if (early >= 0) return early;

    bool allSigned = true;
    if (options.json) std::fputs("[", stdout);
    for (size_t i = 0; i < options.packages.size(); ++i) {
        std::string detail;
        const RpmVerifyResult result = rpm_verify_detailed(options.packages[i], options.key, detail);
        const std::string message = result.message != nullptr ? result.message : "";
        if (result.message != nullptr && std::strcmp(result.message, "Internal error.") != 0) {
            std::free(result.message);
        }
        allSigned = allSigned && result.status == RPM_STATUS_SIGNED;
        const bool showDetail = options.verbose && result.status != RPM_STATUS_SIGNED && !detail.empty();
        if (options.json) {
            std::printf("%s\n  {\"file\": %s, \"status\": %d, \"message\": %s", i == 0 ? "" : ",",
                        JsonString(options.packages[i]).c_str(), static_cast<int>(result.status),
                        JsonString(message).c_str());
            if (showDetail) std::printf(", \"detail\": %s", JsonString(detail).c_str());
            std::fputs("}", stdout);
        } else {
            // Some messages ("Unknown error", the reasons of status 5) do not name the file.
            std::string line = message.find(options.packages[i]) == std::string::npos
                                   ? std::string(options.packages[i]) + ": " + message
                                   : message;
            if (showDetail) line += " (" + detail + ")";
            std::printf("%s\n", line.c_str());
        }
    }
    if (options.json) std::fputs("\n]\n", stdout);
    return allSigned ? 0 : 1;
}
