#pragma once
// The keys a host accepts, pinned by fingerprint in the session: a key file is used only when every
// primary key it holds is one of them. Fingerprints are those of RFC 4880 (version 4, SHA-1, 40
// hexadecimal digits) and RFC 9580 (version 6, SHA-256, 64 digits).
#include <string>
#include <vector>

struct KeyPins {
    // The list as the session gave it: fingerprints separated by ',', ';' or line breaks; spaces
    // inside one are read past ("ABCD 1234 ..." as gpg prints them); case does not matter.
    static KeyPins Parse(const std::string& text);

    bool Empty() const { return fingerprints.empty() && fault.empty(); }
    // Why the key file at path is not accepted: "" when every primary key it holds is pinned. A list
    // with a malformed entry accepts no key; neither does a file whose keys cannot be read.
    std::string Refusal(const std::string& path) const;

    std::vector<std::string> fingerprints;  // upper-case hexadecimal
    std::string fault;                      // the first entry that is no fingerprint, described
};

// The fingerprints (upper-case hexadecimal) of the primary keys of a key file, armored or binary, in
// the order they stand; DataFormatException when the file cannot be read as key blocks.
std::vector<std::string> PrimaryKeyFingerprints(const std::vector<char>& bytes);
