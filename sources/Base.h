#pragma once
// The common root of the module's polymorphic classes and the home of its small byte and string
// utilities. All widths are 32-bit unless the signature says otherwise.

#include <cstdint>
#include <string>

class Base {
public:
    virtual ~Base();

    // (value + alignment - 1) & -alignment; alignment is taken to be a power of two.
    static uint32_t AlignUp(uint32_t value, uint32_t alignment);

    // Rounds value up to a multiple of 2^bits. Only bits 1-4 and 12-15 are accepted; any other
    // count (5 to 11 included) throws NotImplementedException.
    static uint32_t RoundUp(uint32_t value, unsigned char bits);

    // Index of the last occurrence of pattern in buffer, or -1. Index 0 is never examined, so a
    // pattern found only at the very start is reported as absent.
    static int32_t RFind(const char* buffer, uint32_t length, const char* pattern, uint32_t patternLength);

    // Reverses length bytes in place.
    static void SwapEndian(unsigned char* buffer, uint32_t length);

    // Removes leading and trailing characters for which isspace() is true.
    static std::string StrTrim(std::string text);

    // Replaces occurrences of from by to that begin before end. The search always starts at 0
    // (start is accepted and ignored) and resumes at p + to.length() - from.length() after a
    // replacement at p. A replacement that ends with the searched text makes that resumed search
    // find its own output again; where that would never end (or only after gigabytes of growth)
    // it is refused with ArgumentException.
    static std::string& Replace(std::string& text, uint32_t start, uint32_t end, const std::string& from,
                                const std::string& to);

    // Two hexadecimal digits per byte, no separators.
    static std::string DumpBufferToString(const unsigned char* buffer, unsigned long long length, bool upperCase);

    // Writes the bytes to standard output: "XX " per byte, a line end after every 16th byte and
    // one more at the end.
    static void DumpBuffer(const unsigned char* buffer, unsigned long long length);
};
