// Replays saved inputs through a fuzz target without libFuzzer:
//   replay_TARGET [-rss_limit_mb=N] PATH...
// A path is an input file or a folder whose regular files are replayed in name order (not
// recursively). Each input is handed over in a buffer of exactly its size, as libFuzzer does, so
// that the sanitizers see a read past its end. With -rss_limit_mb, the first input after which the
// peak resident memory exceeds N MB fails the run (an input that costs far more than its size).
// Exit status: 0 when every path could be read, at least one input was replayed and the memory
// stayed within the limit; a fault in the target ends the program the way it would end the
// fuzzer, after naming the input.
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
// Offered by the sanitizer runtimes; absent (null) in a build without them.
extern "C" void __sanitizer_set_death_callback(void (*callback)()) __attribute__((weak));

namespace {

const char* current = nullptr;  // the input being replayed

void NameCurrentInput() {
    if (current == nullptr) return;
    const char prefix[] = "replay: fault while replaying ";
    [[maybe_unused]] ssize_t written = write(STDERR_FILENO, prefix, sizeof prefix - 1);
    written = write(STDERR_FILENO, current, std::strlen(current));
    written = write(STDERR_FILENO, "\n", 1);
    current = nullptr;
}

void OnFatalSignal(int number) {
    NameCurrentInput();
    signal(number, SIG_DFL);
    raise(number);
}

bool Replay(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary | std::ios::ate);
    if (!file) return false;
    const std::streamoff size = file.tellg();
    if (size < 0) return false;
    std::unique_ptr<uint8_t[]> data(new uint8_t[static_cast<size_t>(size)]);
    file.seekg(0);
    if (!file.read(reinterpret_cast<char*>(data.get()), static_cast<std::streamsize>(size))) return false;
    const std::string name = path.string();
    current = name.c_str();
    LLVMFuzzerTestOneInput(data.get(), static_cast<size_t>(size));
    current = nullptr;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    // The sanitizers report through their own handlers; a build without them is told by signals.
    if (__sanitizer_set_death_callback != nullptr) {
        __sanitizer_set_death_callback(NameCurrentInput);
        signal(SIGABRT, OnFatalSignal);
    } else {
        for (int number : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) signal(number, OnFatalSignal);
    }
    int first = 1;
    long limitMb = 0;
    if (argc > 1 && std::strncmp(argv[1], "-rss_limit_mb=", 14) == 0) limitMb = std::atol(argv[first++] + 14);
    if (first >= argc) {
        std::fprintf(stderr, "usage: %s [-rss_limit_mb=N] FILE-OR-FOLDER...\n", argv[0]);
        return 2;
    }
    int status = 0;
    unsigned long replayed = 0;
    for (int index = first; index < argc; ++index) {
        const std::filesystem::path argument(argv[index]);
        std::error_code error;
        std::vector<std::filesystem::path> inputs;
        if (std::filesystem::is_directory(argument, error)) {
            for (std::filesystem::directory_iterator it(argument, error), end; !error && it != end;
                 it.increment(error)) {
                if (it->is_regular_file(error)) inputs.push_back(it->path());
            }
            std::sort(inputs.begin(), inputs.end());
        } else if (!error) {
            inputs.push_back(argument);
        }
        if (error) {
            std::fprintf(stderr, "replay: cannot read %s: %s\n", argv[index], error.message().c_str());
            status = 1;
            continue;
        }
        for (const std::filesystem::path& input : inputs) {
            if (Replay(input)) {
                ++replayed;
                rusage usage{};
                getrusage(RUSAGE_SELF, &usage);
                if (limitMb > 0 && usage.ru_maxrss / 1024 > limitMb) {
                    std::fprintf(stderr, "replay: %s took the peak memory to %ld MB, over the limit of %ld MB\n",
                                 input.c_str(), static_cast<long>(usage.ru_maxrss / 1024), limitMb);
                    return 1;
                }
            } else {
                std::fprintf(stderr, "replay: cannot read %s\n", input.c_str());
                status = 1;
            }
        }
    }
    std::printf("replay: %lu inputs replayed\n", replayed);
    if (replayed == 0) {
        std::fprintf(stderr, "replay: no input found\n");
        return 1;
    }
    return status;
}
