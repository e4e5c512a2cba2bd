#pragma once
// What both tools share on their command line (parsed with getopt_long, option string led by ':'):
// a usage error in one line with where to look for help, and the version line help2man reads.
#include <getopt.h>

#include <cstdio>
#include <string>

namespace cli {

// "PROGRAM: TEXT" and the pointer to --help on standard error; the exit status of a usage error.
inline int UsageError(const char* program, const std::string& text) {
    std::fprintf(stderr, "%s: %s\nTry '%s --help' for more information.\n", program, text.c_str(), program);
    return 2;
}

// The usage error for what getopt_long refused: ':' an option without its value, else an unknown one.
inline int OptionError(const char* program, int option, char** argv) {
    const std::string given = argv[optind - 1];
    if (option == ':') return UsageError(program, "option '" + given + "' needs a value");
    return UsageError(program, "unknown option '" + (optopt != 0 ? std::string("-") + char(optopt) : given) + "'");
}

inline int PrintVersion(const char* program) {
    std::printf("%s (signing) %s\n", program, SIGNING_VERSION);
    return 0;
}

}  // namespace cli
