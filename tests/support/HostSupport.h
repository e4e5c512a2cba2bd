#pragma once
// A reference-host session for tests, and a shell runner.
#include <stdio.h>
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
