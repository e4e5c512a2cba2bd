// differential-verdicts: the verdict and the report of the core for every case of a case list, under
// the classic and the current policy, one line each, so that the outputs of two builds of the core
// compare line by line.
//
//   differential-verdicts [--jobs=N] CASES
//
// CASES holds one case a line: PACKAGE<TAB>KEY (differential-mutate writes it). For each case and
// policy (classic first) one line:
//
//   NUMBER<TAB>POLICY<TAB>STATUS<TAB>MESSAGE<TAB>STAGE<TAB>RESULT<TAB>DETAIL<TAB>CHECKS
//
// NUMBER is the case's line in CASES (from 1); CHECKS is each check as KIND/STATE/LABEL/REASON/KEYID,
// joined by '|'. Tabs, line ends, backslashes and bytes outside printable ASCII are escaped (\t, \n,
// \r, \\, \xNN), and so are '/' and '|' inside a check's fields, so that every line stands for one
// report and two reports that differ give two lines that differ. With N jobs the cases are
// verified on N threads; the lines come out in case order all the same.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "RpmReport.h"

namespace {

struct Case {
    std::string package, key;
};

void Escape(const std::string& text, bool checkField, std::string& out) {
    static const char kDigits[] = "0123456789abcdef";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        switch (c) {
            case '\t': out += "\\t"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\\': out += "\\\\"; break;
            default:
                if (byte < 0x20 || byte >= 0x7F || (checkField && (c == '/' || c == '|'))) {
                    out += "\\x";
                    out += kDigits[byte >> 4];
                    out += kDigits[byte & 15];
                } else {
                    out += c;
                }
        }
    }
}

const char* StageName(RpmStage stage) {
    switch (stage) {
        case RpmStage::NotStarted: return "NotStarted";
        case RpmStage::Unreadable: return "Unreadable";
        case RpmStage::NotRpm: return "NotRpm";
        case RpmStage::Failed: return "Failed";
        case RpmStage::Checked: return "Checked";
    }
    return nullptr;
}

const char* KindName(RpmCheck::Kind kind) {
    switch (kind) {
        case RpmCheck::HeaderSha1: return "HeaderSha1";
        case RpmCheck::Md5: return "Md5";
        case RpmCheck::HeaderSignature: return "HeaderSignature";
        case RpmCheck::PackageSignature: return "PackageSignature";
        case RpmCheck::HeaderDigest: return "HeaderDigest";
        case RpmCheck::PayloadDigest: return "PayloadDigest";
    }
    return nullptr;
}

const char* StateName(RpmCheck::State state) {
    switch (state) {
        case RpmCheck::Ok: return "Ok";
        case RpmCheck::Bad: return "Bad";
        case RpmCheck::NotFound: return "NotFound";
        case RpmCheck::NoKey: return "NoKey";
        // Named by value: a core from before it knew signatures that count for nothing has no
        // enumerator for it, and verdicts.cpp builds against such cores too.
        default: return static_cast<int>(state) == 4 ? "NotTrusted" : nullptr;
    }
}

// The name, or the number of a value the names above do not know.
std::string Name(const char* name, int value) {
    return name != nullptr ? name : "#" + std::to_string(value);
}

std::string Line(size_t number, SigningPolicy policy, const Case& c) {
    RpmReport report;
    const RpmVerifyResult result = rpm_verify_report(c.package.c_str(), c.key.c_str(), report, policy);
    std::string line = std::to_string(number);
    line += policy == SigningPolicy::Classic ? "\tclassic\t" : "\tcurrent\t";
    line += std::to_string(static_cast<int>(result.status));
    line += '\t';
    if (result.message != nullptr) {
        Escape(result.message, false, line);
        // The one message that is not allocated (when allocating the message failed) stays.
        if (std::strcmp(result.message, "Internal error.") != 0) std::free(result.message);
    } else {
        line += "(null)";
    }
    line += '\t';
    line += Name(StageName(report.stage), static_cast<int>(report.stage));
    line += '\t';
    line += std::to_string(report.result);
    line += '\t';
    Escape(report.detail, false, line);
    line += '\t';
    for (size_t i = 0; i < report.checks.size(); ++i) {
        const RpmCheck& check = report.checks[i];
        if (i > 0) line += '|';
        line += Name(KindName(check.kind), static_cast<int>(check.kind));
        line += '/';
        line += Name(StateName(check.state), static_cast<int>(check.state));
        line += '/';
        Escape(check.label, true, line);
        line += '/';
        Escape(check.reason, true, line);
        line += '/';
        Escape(check.keyId, true, line);
    }
    line += '\n';
    return line;
}

bool ReadCases(const char* path, std::vector<Case>& cases) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "differential-verdicts: cannot read %s\n", path);
        return false;
    }
    std::string line;
    while (std::getline(in, line)) {
        const size_t tab = line.find('\t');
        if (tab == std::string::npos) {
            std::fprintf(stderr, "differential-verdicts: %s:%zu: no tab between package and key\n", path,
                         cases.size() + 1);
            return false;
        }
        cases.push_back({line.substr(0, tab), line.substr(tab + 1)});
    }
    return true;
}

int Usage() {
    std::fprintf(stderr, "usage: differential-verdicts [--jobs=N] CASES\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    unsigned jobs = 1;
    const char* list = nullptr;
    for (int i = 1; i < argc; ++i) {
        const char* argument = argv[i];
        const char* value = nullptr;
        if (std::strncmp(argument, "--jobs=", 7) == 0) {
            value = argument + 7;
        } else if (std::strcmp(argument, "--jobs") == 0 || std::strcmp(argument, "-j") == 0) {
            if (i + 1 == argc) return Usage();
            value = argv[++i];
        } else if (list == nullptr && argument[0] != '-') {
            list = argument;
            continue;
        } else {
            return Usage();
        }
        char* end = nullptr;
        const unsigned long n = std::strtoul(value, &end, 10);
        if (*value == '\0' || *end != '\0' || n == 0 || n > 256) return Usage();
        jobs = static_cast<unsigned>(n);
    }
    if (list == nullptr) return Usage();
    std::vector<Case> cases;
    if (!ReadCases(list, cases)) return 2;

    // The cases go in blocks: the threads take the cases of a block one by one, and the block's
    // lines are written in order once it is done.
    const size_t kBlock = 512;
    std::vector<std::string> lines(kBlock);
    for (size_t first = 0; first < cases.size(); first += kBlock) {
        const size_t count = std::min(kBlock, cases.size() - first);
        std::atomic<size_t> next(0);
        auto work = [&] {
            for (size_t i = next++; i < count; i = next++) {
                const Case& c = cases[first + i];
                lines[i] =
                    Line(first + i + 1, SigningPolicy::Classic, c) + Line(first + i + 1, SigningPolicy::Current, c);
            }
        };
        std::vector<std::thread> threads;
        for (unsigned t = 1; t < jobs; ++t) threads.emplace_back(work);
        work();
        for (std::thread& thread : threads) thread.join();
        for (size_t i = 0; i < count; ++i) std::fputs(lines[i].c_str(), stdout);
        std::fflush(stdout);
    }
    if (std::ferror(stdout) || std::fflush(stdout) != 0) {
        std::fprintf(stderr, "differential-verdicts: cannot write the verdicts\n");
        return 2;
    }
    return 0;
}
