#pragma once
// A reference-host session for tests, and a shell runner.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <string>

#include "HostSession.h"
#include "TestSupport.h"

// A session whose check's log lines are kept in it, not echoed.
class ScopedSession {
public:
    ScopedSession() {
        host::SetLogEcho(false);
        host::SetLogRecord(&session_.log);
    }
    ~ScopedSession() { host::SetLogRecord(nullptr); }
    session_t* operator->() { return &session_; }
    session_t* get() { return &session_; }
    std::string& operator[](const std::string& key) { return session_.variables[key]; }
    // The values that key was set to, in order.
    std::vector<std::string> History(const std::string& key) const {
        std::vector<std::string> values;
        for (const auto& assignment : session_.assignments) {
            if (assignment.first == key) values.push_back(assignment.second);
        }
        return values;
    }

private:
    session_t session_;
};

// Runs command with /bin/sh: its exit status (-1 when it did not exit) and its standard output.
inline std::pair<int, std::string> Shell(const std::string& command) {
    std::pair<int, std::string> output(-1, "");
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) return output;
    char buffer[4096];
    for (size_t count; (count = fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.second.append(buffer, count);
    const int status = pclose(pipe);
    if (WIFEXITED(status)) output.first = WEXITSTATUS(status);
    return output;
}

// The key service of tests/support/key_service.py on 127.0.0.1 and a free port, serving folder
// (and /trickle); its request log is kept in log.
struct LoopbackServer {
    LoopbackServer(const std::string& folder, const std::string& log)
        : pipe(
              popen(("echo $$; exec python3 -u " SIGNING_TEST_DATA "/../support/key_service.py " + folder + " 2>" + log)
                        .c_str(),
                    "r")) {
        char line[256] = {};  // the pid, then "Serving HTTP on 127.0.0.1 port 40123"
        if (pipe != nullptr && fgets(line, sizeof line, pipe) != nullptr) pid = atoi(line);
        if (pid > 0 && fgets(line, sizeof line, pipe) != nullptr) sscanf(line, "Serving HTTP on %*s port %d", &port);
    }
    ~LoopbackServer() {
        if (pid > 0) kill(pid, SIGTERM);
        if (pipe != nullptr) pclose(pipe);
    }
    LoopbackServer(const LoopbackServer&) = delete;
    LoopbackServer& operator=(const LoopbackServer&) = delete;
    std::string Address() const { return "http://127.0.0.1:" + std::to_string(port); }
    FILE* pipe;
    int pid = 0, port = 0;
};
