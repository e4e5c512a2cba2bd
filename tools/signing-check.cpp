// signing-check: runs the module's prerequisite check the way the installer does. It reads a
// session file, loads libsigning.so with dlopen (this program exports the host functions the
// module imports), calls signing_validate_package_list and reports the prerequisite lists.
//
// Exit status: the check's return value (0 or 1); 2 on a usage error or when the session or the
// module cannot be loaded.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "CommandLine.h"
#include "HostSession.h"

namespace {

const char kProgram[] = "signing-check";

const char kHelp[] =
    "Usage: signing-check [OPTION]... SESSION.json\n"
    "Load the signing module and run its prerequisite check on the installation session described\n"
    "by SESSION.json, the way the host installer does. The module's log goes to standard error;\n"
    "the prerequisite lists go to standard output.\n"
    "\n"
    "Options:\n"
    "  -m, --module=PATH      the module to load (default: libsigning.so beside this program, else\n"
    "                         the installed module)\n"
    "  -s, --set=KEY=VALUE    set a session variable after the session file is read (repeatable)\n"
    "      --policy=NAME      the verification policy, classic (the default) or current: sets the\n"
    "                         session variable signing_policy, which the module reads\n"
    "      --json             print one JSON object (docs/schemas/signing-check.schema.json):\n"
    "                         \"schemaVersion\", \"policy\", \"result\" (the check's return value),\n"
    "                         \"key\" (the key the check used: \"path\", \"source\" and why; or\n"
    "                         why it had none), \"packages\" (for each component in session order:\n"
    "                         \"id\", \"package\", and \"status\", \"message\" and \"reason\" of its\n"
    "                         verification as the module logged them, or \"status\" null and why\n"
    "                         it was not verified) and \"variables\" (every final session variable);\n"
    "                         on exit status 2, \"schemaVersion\" and \"error\" (why) instead\n"
    "  -h, --help             display this help and exit\n"
    "  -V, --version          output version information and exit\n"
    "\n"
    "A session file holds \"variables\", named \"environments\" and \"products\", each with an\n"
    "\"environment\" and \"components\" (\"id\", \"folder\", \"file\", \"type\"); ${NAME} in a folder\n"
    "and in SIGNING_LOCAL_PUBLIC_KEY is expanded from the session variables, and SESSION_DIR is\n"
    "the session file's folder.\n"
    "\n"
    "Exit status:\n"
    "  0  the check passed\n"
    "  1  the check failed\n"
    "  2  a usage error, or the session or the module cannot be loaded\n"
    "\n"
    "Examples:\n"
    "  signing-check --set signature=$PWD/keys/publisher.asc session.json\n"
    "  signing-check --policy=current session.json\n"
    "  signing-check --json --set=TEMP_FOLDER=$HOME/.cache/signing session.json\n";

const char* const kReported[] = {"operation_progress", "SIGNIFICANCE", "SHORT_DESC", "FULL_DESC"};

typedef int (*CheckFunction)(session_t*);

struct Options {
    std::string module;
    std::vector<std::pair<std::string, std::string>> settings;
    bool json = false;
    std::string session;
};

// With --json, a run that ends with exit status 2 prints why as its report: {"schemaVersion": 1,
// "error": TEXT}.
void PrintErrorReport(const Options& options, const std::string& text) {
    if (!options.json) return;
    const nlohmann::ordered_json report = {{"schemaVersion", 1}, {"error", text}};
    std::printf("%s\n", report.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
}

int Fail(const Options& options, const std::string& text) {
    PrintErrorReport(options, text);
    std::fprintf(stderr, "%s: %s\n", kProgram, text.c_str());
    return 2;
}

int UsageError(const Options& options, const std::string& text) {
    PrintErrorReport(options, text);
    return cli::UsageError(kProgram, text);
}

std::string ExecutableFolder() {
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0) return ".";
    path[length] = '\0';
    char* slash = std::strrchr(path, '/');
    if (slash != nullptr) *slash = '\0';
    return path;
}

// The module beside this program (a build folder), else the one installed for it.
std::string DefaultModule() {
    const std::string beside = ExecutableFolder() + "/libsigning.so";
#ifdef SIGNING_INSTALLED_MODULE
    if (access(beside.c_str(), F_OK) != 0) return ExecutableFolder() + "/" + SIGNING_INSTALLED_MODULE;
#endif
    return beside;
}

// -1 when the arguments are good, else the exit status to end with.
int ParseArguments(int argc, char** argv, Options& options) {
    static const struct option kLong[] = {{"module", required_argument, nullptr, 'm'},
                                          {"set", required_argument, nullptr, 's'},
                                          {"json", no_argument, nullptr, 'J'},
                                          {"help", no_argument, nullptr, 'h'},
                                          {"policy", required_argument, nullptr, 'P'},
                                          {"version", no_argument, nullptr, 'V'},
                                          {nullptr, 0, nullptr, 0}};
    opterr = 0;
    for (int option; (option = getopt_long(argc, argv, ":m:s:hV", kLong, nullptr)) != -1;) {
        switch (option) {
            case 'm': options.module = optarg; break;
            case 's': {
                const std::string value = optarg;
                const size_t equals = value.find('=');
                if (equals == std::string::npos || equals == 0)
                    return UsageError(options, "--set wants KEY=VALUE, not '" + value + "'");
                options.settings.emplace_back(value.substr(0, equals), value.substr(equals + 1));
                break;
            }
            case 'J': options.json = true; break;
            case 'P': {
                const std::string policy = optarg;
                if (policy != "classic" && policy != "current") {
                    return UsageError(options, "--policy wants classic or current, not '" + policy + "'");
                }
                options.settings.emplace_back("signing_policy", policy);
                break;
            }
            case 'h': std::fputs(kHelp, stdout); return 0;
            case 'V': return cli::PrintVersion(kProgram);
            default: return UsageError(options, cli::OptionErrorText(option, argv));
        }
    }
    if (optind >= argc) return UsageError(options, "no session file given");
    if (optind + 1 < argc) return UsageError(options, "only one session file, please");
    options.session = argv[optind];
    if (options.module.empty()) options.module = DefaultModule();
    return -1;
}

// What the check did with each component, in session order, read back from the lines the module
// logged: "_signing_validate_file: signing validation result N (0 is success) for PATH package
// [MESSAGE]" for a verified package, "component 'ID' is not verified because it is not available"
// for one that was passed over.
nlohmann::ordered_json ComponentOutcomes(session_t& session) {
    static const std::string kResult = "_signing_validate_file: signing validation result ";
    nlohmann::ordered_json components = nlohmann::ordered_json::array();
    for (const Product* product : session.Products()) {
        for (const Component* component : product->components()) {
            const std::string package =
                expand_operand(&session, component->packageFolder(), true) + "/" + component->packageFile();
            nlohmann::ordered_json outcome = {{"id", component->id()},
                                              {"package", package},
                                              {"status", nullptr},
                                              {"message", "not verified: the check ended before it"}};
            const std::string passed =
                "component '" + component->id() + "' is not verified because it is not available";
            const std::string verified = " (0 is success) for " + package + " package [";
            for (const std::string& line : session.log) {
                const size_t at = line.find(verified);
                if (line.find(passed) != std::string::npos) {
                    outcome["message"] = "not verified: not available";
                } else if (line.compare(0, kResult.size(), kResult) == 0 && at != std::string::npos &&
                           line.back() == ']') {
                    outcome["status"] = std::atoi(line.c_str() + kResult.size());
                    const size_t start = at + verified.size();
                    outcome["message"] = line.substr(start, line.size() - start - 1);
                } else {
                    continue;
                }
                break;
            }
            components.push_back(std::move(outcome));
        }
    }
    return components;
}

// The stable reason code of a component's status (null: not verified).
const char* ReasonOf(const nlohmann::ordered_json& status, const std::string& message) {
    if (status.is_null()) return message == "not verified: not available" ? "not-available" : "not-reached";
    switch (status.get<int>()) {
        case 0: return "signed";
        case 1: return "not-signed";
        case 2: return "invalid-signature";
        case 3: return "digest-mismatch";
        case 4: return "invalid-structure";
        default: return "error";
    }
}

// The key the check used, read back from its line "packages are checked with the key specified by
// user [PATH]", "... with the downloaded key [PATH]" (", no local key being set: REASON"), "... with
// the local key [PATH]: REASON"; without one, why the check found no key.
nlohmann::ordered_json KeyReport(const session_t& session) {
    static const std::string kUsed = "signing_validate_package_list: packages are checked with the ";
    for (const std::string& line : session.log) {
        if (line.compare(0, kUsed.size(), kUsed) != 0) continue;
        const size_t open = line.find(" [", kUsed.size()), close = line.rfind(']');
        if (open == std::string::npos || close == std::string::npos || close < open) break;
        const std::string kind = line.substr(kUsed.size(), open - kUsed.size());
        nlohmann::ordered_json key = {{"path", line.substr(open + 2, close - open - 2)},
                                      {"source", kind == "downloaded key" ? "downloaded"
                                                 : kind == "local key"    ? "local"
                                                                          : "user"}};
        const size_t reason = line.find(": ", close);
        if (reason != std::string::npos) key["because"] = line.substr(reason + 2);
        return key;
    }
    for (const std::string& line : session.log) {
        if (line == "signing_validate_package_list: unable to obtain public key location") {
            return {{"reason", "no-key"}, {"message", "no key could be obtained"}};
        }
        if (line == "signing_validate_package_list: public key is not valid") {
            return {{"reason", "invalid-key"}, {"message", "the key failed the screen"}};
        }
    }
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    options.json = cli::AsksForJson(argc, argv, {"-m", "--module", "-s", "--set", "--policy"});
    const int early = ParseArguments(argc, argv, options);
    if (early >= 0) return early;

    std::unique_ptr<session_t> session;
    try {
        session = host::LoadSessionFile(options.session);
    } catch (const std::exception& e) {
        return Fail(options, e.what());
    }
    for (const auto& setting : options.settings) session->variables[setting.first] = setting.second;

    void* module = dlopen(options.module.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) return Fail(options, std::string("cannot load the module: ") + dlerror());
    auto check = reinterpret_cast<CheckFunction>(dlsym(module, "signing_validate_package_list"));
    if (check == nullptr) {
        dlclose(module);
        return Fail(options, "the module " + options.module + " has no signing_validate_package_list");
    }

    host::SetLogRecord(&session->log);
    const int result = check(session.get());
    host::SetLogRecord(nullptr);
    dlclose(module);

    if (options.json) {
        // Session values are bytes: one that is not UTF-8 is shown with U+FFFD in its place.
        nlohmann::ordered_json packages = ComponentOutcomes(*session);
        for (auto& package : packages) package["reason"] = ReasonOf(package["status"], package["message"]);
        const auto policy = session->variables.find("signing_policy");
        const nlohmann::ordered_json report = {
            {"schemaVersion", 1},
            {"policy", policy != session->variables.end() && policy->second == "current" ? "current" : "classic"},
            {"result", result},
            {"key", KeyReport(*session)},
            {"packages", packages},
            {"variables", session->variables}};
        std::printf("%s\n", report.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    } else {
        std::printf("signing-check: the check returned %d\n", result);
        for (const char* key : kReported) {
            const auto found = session->variables.find(key);
            std::printf("%s=%s\n", key, found == session->variables.end() ? "" : found->second.c_str());
        }
    }
    return result == 0 ? 0 : 1;
}
