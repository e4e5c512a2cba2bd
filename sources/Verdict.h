#pragma once
// The verdict of a package as its checks build it up, for both policies: the first failure decides
// the verdict and its message; later failures change neither. Each check made is recorded when the
// caller asked for a record. A policy whose first failure ends the evaluation (classic) stops
// there unless a record is kept; the other (current) makes every check.
#include <string>
#include <utility>
#include <vector>

#include "ProcessingResult.h"
#include "RpmCheck.h"

class Verdict {
public:
    Verdict(std::string& message, std::vector<RpmCheck>* checks, bool firstFailureStops)
        : message_(message), checks_(checks), stops_(firstFailureStops && checks == nullptr) {}

    // Takes result as the verdict unless one was taken (text, when given, as its message); says
    // whether the evaluation goes on.
    bool Fail(int result, const char* text = nullptr) {
        if (!decided_) {
            result_ = result;
            if (text != nullptr) message_ = text;
            decided_ = true;
        }
        return !stops_;
    }
    bool Fail(int result, const std::string& text) { return Fail(result, text.c_str()); }
    void Record(RpmCheck check) {
        if (checks_ != nullptr) checks_->push_back(std::move(check));
    }
    bool Decided() const { return decided_; }
    int Result() const { return result_; }
    // Where a check writes its text: the verdict's message while the verdict is open.
    std::string& Text() { return decided_ ? scratch_ : message_; }

private:
    std::string& message_;
    std::vector<RpmCheck>* checks_;
    bool stops_;
    std::string scratch_;
    int result_ = ResultSigned;
    bool decided_ = false;
};
