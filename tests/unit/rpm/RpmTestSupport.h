#pragma once
// Packages written by the test writer, run through the signer and through rpm_verify.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "Exceptions.h"
#include "RpmSigner.h"
#include "RpmWriter.h"
#include "TestSupport.h"
#include "rpmutil.h"

using namespace rpm;

// The test key's block; its self-signature names the issuer of the writer's signatures by default.
inline std::string KeyFile(const TempFolder& temp, const Bytes& issuer = pgp::SignatureOptions().issuer) {
    return temp.Write("key" + std::to_string(issuer[0]) + ".asc", pgp::Armor(pgp::KeyBlock(TestKey(2048), issuer)));
}

// rpm_verify_detailed as one text: "STATUS MESSAGE | DETAIL" (without " | " when there is no
// detail), the message freed.
inline std::string Verify(const std::string& path, const std::string& keyPath) {
    std::string detail;
    RpmVerifyResult result = rpm_verify_detailed(path.c_str(), keyPath.c_str(), detail);
    const std::string text =
        std::to_string(result.status) + " " + result.message + (detail.empty() ? "" : " | " + detail);
    std::free(result.message);
    return text;
}

// A signer over a file, ready for ParseSignature or Process.
inline std::unique_ptr<RpmSigner> SignerFor(const std::string& path) {
    std::unique_ptr<RpmSigner> signer(new RpmSigner(0));
    signer->SetInputFile(new FileHelper(path));
    return signer;
}

// The rows ("input => expected") of a file in tests/data/vectors, and its definitions ("NAME = text").
struct Vectors {
    std::vector<std::pair<std::string, std::string>> rows;
    std::map<std::string, std::string> names;
};
inline Vectors ReadVectors(const std::string& file) {
    Vectors vectors;
    std::ifstream in(std::string(SIGNING_TEST_DATA) + "/vectors/" + file);
    for (std::string line; std::getline(in, line);) {
        const size_t arrow = line.find(" => "), equals = line.find(" = ");
        if (line.empty() || line[0] == '#') continue;
        if (arrow != std::string::npos) vectors.rows.emplace_back(line.substr(0, arrow), line.substr(arrow + 4));
        if (arrow == std::string::npos) vectors.names[line.substr(0, equals)] = line.substr(equals + 3);
    }
    EXPECT_GT(vectors.rows.size(), 5u) << file;
    return vectors;
}

// Bytes written as in rpm-structures.vec: hexadecimal, HEX*N, "TEXT", #N (cut), $NAME.
inline std::string Decode(const std::string& text, const std::map<std::string, std::string>& names) {
    std::string bytes;
    std::istringstream in(text);
    for (std::string token; in >> token;) {
        if (token[0] == '#') bytes.resize(std::stoul(token.substr(1)));  // and nothing is added
        const size_t star = token.find('*');
        const int times = star == std::string::npos ? 1 : std::stoi(token.substr(star + 1));
        token = token.substr(0, star);
        std::string one = token[0] == '"' ? token.substr(1, token.size() - 2) : "";
        if (token[0] == '$') one = Decode(names.at(token.substr(1)), names);
        for (size_t i = 0; std::isxdigit(token[0]) && i < token.size(); i += 2) {
            one += static_cast<char>(std::stoi(token.substr(i, 2), nullptr, 16));
        }
        for (int i = 0; i < times; ++i) bytes += one;
    }
    return bytes;
}
