#pragma once
// What both tools share on their command line (parsed with getopt_long, option string led by ':'):
// a usage error in one line with where to look for help, and the version line help2man reads.
#include <getopt.h>

#include <cstdio>
#include <initializer_list>
#include <string>

namespace cli {

// "PROGRAM: TEXT" and the pointer to --help on standard error; the exit status of a usage error.
inline int UsageError(const char* program, const std::string& text) {
    std::fprintf(stderr, "%s: %s\nTry '%s --help' for more information.\n", program, text.c_str(), program);
    return 2;
}

// What getopt_long refused: ':' an option without its value, else an unknown one.
inline std::string OptionErrorText(int option, char** argv) {
    const std::string given = argv[optind - 1];
    if (option == ':') return "option '" + given + "' needs a value";
    return "unknown option '" + (optopt != 0 ? std::string("-") + char(optopt) : given) + "'";
}

// The usage error for what getopt_long refused.
inline int OptionError(const char* program, int option, char** argv) {
    return UsageError(program, OptionErrorText(option, argv));
}

// Whether the command line asks for --json, looked at before it is parsed, so that a usage error
// found on the way is reported in JSON too: an argument "--json" before "--" that is not the value
// of an option written apart from it (valueOptions: "--key", "-k", ...).
inline bool AsksForJson(int argc, char** argv, std::initializer_list<const char*> valueOptions) {
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--") return false;
        if (argument == "--json") return true;
        for (const char* option : valueOptions) {
            if (argument == option) ++i;
        }
    }
    return false;
}

inline int PrintVersion(const char* program) {
    std::printf("%s (signing) %s\n", program, SIGNING_VERSION);
    return 0;
}

}  // namespace cli
