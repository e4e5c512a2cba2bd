#pragma once
// Session values and messages as they go into the host's log.
#include <string>

// A session value as it goes into a log line: control characters are written escaped ("\n",
// "\x1b"), so one line stays one line.
std::string LogText(const std::string& value);
