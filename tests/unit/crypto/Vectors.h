#pragma once
// Rows of tests/data/vectors/NAME.vec: "operation | argument | ... => expected" ("#" starts a comment).
// Fields are trimmed; \s is a blank, \n \r \t, \xHH a byte, \| a bar, \\ a backslash. A row's result is
// the operation's answer as text, or "!Class: what()" for what it threw; it is compared whole.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>

#include "Base.h"
#include "TestKeys.h"

typedef std::vector<std::string> Args;
typedef std::map<std::string, std::function<std::string(const Args&)>> Operations;

inline std::string Hex(const unsigned char* data, size_t size) {
    return Base::DumpBufferToString(data, size, false);
}
inline std::string Text(const Bytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

inline Bytes Unhex(const std::string& hex) {  // blanks between octets are skipped
    Bytes bytes;
    for (size_t i = hex.find_first_not_of(' '); i < hex.size(); i = hex.find_first_not_of(' ', i + 2))
        bytes.push_back(static_cast<unsigned char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
    return bytes;
}

inline std::string Unescape(const std::string& text) {
    const size_t first = text.find_first_not_of(' '), last = text.find_last_not_of(' ');
    std::string out;
    for (size_t i = first; first != std::string::npos && i <= last; ++i) {
        const size_t name = text[i] == '\\' ? std::string("sntrx").find(text[++i]) : std::string::npos;
        if (name == 4) out += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16)), i += 2;
        else out += name != std::string::npos ? " \n\t\r"[name] : text[i];
    }
    return out;
}
// What action returns, or "!Class: what()" for what it throws (a mangled global class name is
// its length and its name).
template <typename F>
std::string Outcome(F action) {
    try {
        return action();
    } catch (const std::exception& e) {
        const std::string type = typeid(e).name();
        return "!" + type.substr(type.find_first_not_of("0123456789")) + ": " + e.what();
    }
}
// Runs every row of the file through its operation; a row without "=>" expects an empty answer.
inline void RunVectors(const std::string& name, const Operations& ops) {
    std::ifstream file(std::string(SIGNING_TEST_DATA) + "/vectors/" + name);
    std::string line;
    int number = 0, rows = 0;
    while (std::getline(file, line) && ++number) {
        if (line.empty() || line[0] == '#') continue;
        ++rows;
        const size_t end = std::min(line.find(" => "), line.size());
        Args fields;
        for (size_t start = 0, bar = 0; start <= end; start = ++bar) {
            for (; bar < end && line[bar] != '|'; ++bar) bar += line[bar] == '\\';
            fields.push_back(Unescape(line.substr(start, bar - start)));
        }
        const std::string result = Outcome([&] { return ops.at(fields[0])({fields.begin() + 1, fields.end()}); });
        EXPECT_EQ(result, end == line.size() ? "" : Unescape(line.substr(end + 4))) << name << ":" << number;
    }
    EXPECT_GT(rows, 0) << name;
}
