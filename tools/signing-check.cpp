// signing-check: runs the module's prerequisite check the way the installer does. It reads a
// session file, loads libsigning.so with dlopen (this program exports the host functions the
// module imports), calls signing_validate_package_list and reports the prerequisite lists.
//
//   signing-check [--module PATH] [--set KEY=VALUE]... [--json] SESSION.json
//
// Exit status: the check's return value (0 or 1); 2 when the session or the module cannot be loaded.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "HostSession.h"

namespace {

const char kUsage[] =
    "usage: signing-check [--module PATH] [--set KEY=VALUE]... [--json] SESSION.json\n"
    "\n"
    "Loads the signing module and runs its prerequisite check on the session described by\n"
    "SESSION.json. The module's log goes to standard error; the prerequisite lists go to\n"
    "standard output.\n"
    "\n"
    "  --module PATH    the module to load (default: libsigning.so beside this program)\n"
    "  --set KEY=VALUE  set a session variable after the session file is read (repeatable)\n"
    "  --json           print the final session variables as one JSON object\n"
    "  --help           show this text\n"
    "\n"
    "Exit status: 0 when the check passed, 1 when it failed, 2 when the session or the module\n"
    "cannot be loaded or the arguments are wrong.\n";

const char* const kReported[] = {"operation_progress", "SIGNIFICANCE", "SHORT_DESC", "FULL_DESC"};

typedef int (*CheckFunction)(session_t*);

struct Options {
    std::string module;
    std::vector<std::pair<std::string, std::string>> settings;
    bool json = false;
    std::string session;
};

int Fail(const std::string& text) {
    std::fprintf(stderr, "signing-check: %s\n", text.c_str());
    return 2;
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

// -1 when the arguments are good, else the exit status to end with.
int ParseArguments(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--help" || argument == "-h") {
            std::fputs(kUsage, stdout);
            return 0;
        } else if (argument == "--json") {
            options.json = true;
        } else if (argument == "--module" || argument == "--set") {
            if (i + 1 >= argc) return Fail(argument + " needs a value\n" + kUsage);
            const std::string value = argv[++i];
            if (argument == "--module") {
                options.module = value;
            } else {
                const size_t equals = value.find('=');
                if (equals == std::string::npos || equals == 0) return Fail("--set wants KEY=VALUE, not " + value);
                options.settings.emplace_back(value.substr(0, equals), value.substr(equals + 1));
            }
        } else if (argument.size() > 1 && argument[0] == '-') {
            return Fail("unknown option " + argument + "\n" + kUsage);
        } else if (!options.session.empty()) {
            return Fail("only one session file, please\n" + std::string(kUsage));
        } else {
            options.session = argument;
        }
    }
    if (options.session.empty()) return Fail(std::string("no session file given\n") + kUsage);
    if (options.module.empty()) options.module = ExecutableFolder() + "/libsigning.so";
    return -1;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    const int early = ParseArguments(argc, argv, options);
    if (early >= 0) return early;

    std::unique_ptr<session_t> session;
    try {
        session = host::LoadSessionFile(options.session);
    } catch (const std::exception& e) {
        return Fail(e.what());
    }
    for (const auto& setting : options.settings) session->variables[setting.first] = setting.second;

    void* module = dlopen(options.module.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module == nullptr) return Fail(std::string("cannot load the module: ") + dlerror());
    auto check = reinterpret_cast<CheckFunction>(dlsym(module, "signing_validate_package_list"));
    if (check == nullptr) {
        dlclose(module);
        return Fail("the module " + options.module + " has no signing_validate_package_list");
    }

    const int result = check(session.get());
    dlclose(module);

    if (options.json) {
        // Session values are bytes: one that is not UTF-8 is shown with U+FFFD in its place.
        nlohmann::json variables(session->variables);
        std::printf("%s\n", variables.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
    } else {
        std::printf("signing-check: the check returned %d\n", result);
        for (const char* key : kReported) {
            const auto found = session->variables.find(key);
            std::printf("%s=%s\n", key, found == session->variables.end() ? "" : found->second.c_str());
        }
    }
    return result == 0 ? 0 : 1;
}
