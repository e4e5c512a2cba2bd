#pragma once
// A reference-host session for tests, and a PATH that holds only the tools a test allows.

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

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
    bool Logged(const std::string& line) const {
        return std::find(session_.log.begin(), session_.log.end(), line) != session_.log.end();
    }
    size_t CountLogged(const std::string& prefix) const {
        return std::count_if(session_.log.begin(), session_.log.end(),
                             [&](const std::string& line) { return line.rfind(prefix, 0) == 0; });
    }

private:
    session_t session_;
};

// PATH set to a folder that holds links to the named tools only, restored at the end.
class ScopedPath {
public:
    explicit ScopedPath(const std::vector<std::string>& tools) : saved_(getenv("PATH") ? getenv("PATH") : "") {
        for (const std::string& tool : tools) {
            for (const char* folder : {"/usr/bin/", "/bin/", "/usr/local/bin/"}) {
                const std::string target = folder + tool;
                if (access(target.c_str(), X_OK) == 0) {
                    symlink(target.c_str(), (folder_ / tool).c_str());
                    break;
                }
            }
        }
        setenv("PATH", folder_.Path().c_str(), 1);
    }
    ~ScopedPath() { setenv("PATH", saved_.c_str(), 1); }

private:
    TempFolder folder_;
    std::string saved_;
};
