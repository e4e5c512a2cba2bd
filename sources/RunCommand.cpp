#include "RunCommand.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

long long MonotonicMilliseconds() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<long long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

int _signing_run_command(const std::string& command, long long milliseconds, unsigned long long bytes,
                         const std::string& home, bool* stopped) {
    if (stopped != nullptr) *stopped = false;
    // Everything the child needs is prepared before fork: between fork and exec it only makes
    // calls that are safe there.
    const int devNull = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (devNull < 0) return -1;
    // -f: no pathname expansion. The "?" of the address ("?id=") or of a path would otherwise be
    // a pattern that files made by another user could match.
    const char* const arguments[] = {"sh", "-f", "-c", command.c_str(), nullptr};
    // The environment of this process, with HOME set to home: the tools keep their files there
    // (wget's HSTS list) and read no configuration of the user's (~/.wgetrc, ~/.curlrc).
    std::vector<std::string> variables;
    for (char** variable = environ; variable != nullptr && *variable != nullptr; ++variable) {
        if (home.empty() || std::strncmp(*variable, "HOME=", 5) != 0) variables.emplace_back(*variable);
    }
    if (!home.empty()) variables.push_back("HOME=" + home);
    std::vector<const char*> environment;
    environment.reserve(variables.size() + 1);
    for (const std::string& variable : variables) environment.push_back(variable.c_str());
    environment.push_back(nullptr);
    const struct rlimit fileSize = {static_cast<rlim_t>(bytes), static_cast<rlim_t>(bytes)};
    const long long deadline = MonotonicMilliseconds() + milliseconds;
    const pid_t child = fork();
    if (child == 0) {
        setpgid(0, 0);
        setrlimit(RLIMIT_FSIZE, &fileSize);  // a write past the limit ends the tool (SIGXFSZ)
        struct sigaction defaults = {};
        defaults.sa_handler = SIG_DFL;
        sigaction(SIGXFSZ, &defaults, nullptr);
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        dup2(devNull, STDIN_FILENO);
        dup2(devNull, STDOUT_FILENO);
        execve("/bin/sh", const_cast<char* const*>(arguments), const_cast<char* const*>(environment.data()));
        _exit(127);
    }
    close(devNull);
    if (child < 0) return -1;
    setpgid(child, child);  // also here, so that the group exists whichever side runs first

    int status = 0;
    for (;;) {
        const pid_t done = waitpid(child, &status, WNOHANG);
        if (done == child) return status;
        if (done < 0 && errno != EINTR) return -1;
        if (MonotonicMilliseconds() >= deadline) break;
        const struct timespec pause = {0, 10L * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
    // Past the deadline: the shell and everything it started go.
    kill(-child, SIGKILL);
    if (stopped != nullptr) *stopped = true;
    while (waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return status;
}
