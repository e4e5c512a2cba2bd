#pragma once
// Commands run under a deadline (the key download), and the clock they are timed by.
#include <string>

// Milliseconds of the monotonic clock.
long long MonotonicMilliseconds();

// Runs command with /bin/sh -f -c (no pathname expansion) in a process group of its own, its file
// size limited to bytes, HOME set to home (unless empty), and kills the group when it runs past
// milliseconds (then *stopped is true). Returns the wait status (as pclose would), or -1 when the
// command could not be run or waited for.
int _signing_run_command(const std::string& command, long long milliseconds, unsigned long long bytes,
                         const std::string& home, bool* stopped = nullptr);
