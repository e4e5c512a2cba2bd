#include "Base.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>

#include "Exceptions.h"

Base::~Base() {}

uint32_t Base::AlignUp(uint32_t value, uint32_t alignment) {
    return (value + alignment - 1u) & (0u - alignment);
}

uint32_t Base::RoundUp(uint32_t value, unsigned char bits) {
    uint32_t mask;
    switch (bits) {
        case 1: mask = 0x1; break;
        case 2: mask = 0x3; break;
        case 3: mask = 0x7; break;
        case 4: mask = 0xF; break;
        case 12: mask = 0xFFF; break;
        case 13: mask = 0x1FFF; break;
        case 14: mask = 0x3FFF; break;
        case 15: mask = 0x7FFF; break;
        default: throw NotImplementedException("Not supported value to round up to a power of 2.");
    }
    if ((value & mask) == 0) {
        return value;
    }
    return (value + mask + 1u) & ~mask;
}

int32_t Base::RFind(const char* buffer, uint32_t length, const char* pattern, uint32_t patternLength) {
    if (patternLength == 0) {
        return -1;
    }
    for (int32_t i = static_cast<int32_t>(length - patternLength); i >= 1; --i) {
        if (std::memcmp(buffer + i, pattern, patternLength) == 0) {
            return i;
        }
    }
    return -1;
}

void Base::SwapEndian(unsigned char* buffer, uint32_t length) {
    if (length >= 2) {
        std::reverse(buffer, buffer + length);
    }
}

std::string Base::StrTrim(std::string text) {
    auto isSpace = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    auto first = std::find_if_not(text.begin(), text.end(), isSpace);
    auto last = std::find_if_not(text.rbegin(), text.rend(), isSpace).base();
    return first < last ? std::string(first, last) : std::string();
}

std::string& Base::Replace(std::string& text, uint32_t /*start*/, uint32_t end, const std::string& from,
                           const std::string& to) {
    const uint32_t growth = static_cast<uint32_t>(to.size()) - static_cast<uint32_t>(from.size());
    std::string::size_type found = text.find(from, 0);
    // When to ends with from, the resumed search finds the tail of each replacement again at
    // p + growth, and the loop only ends once end, grown by growth each time, wraps past 2^32.
    // Refuse the cases that would run out of memory (or, with equal lengths, never end).
    if (found != std::string::npos && found < end && to.size() >= from.size() &&
        to.compare(to.size() - from.size(), from.size(), from) == 0) {
        const uint64_t untilWrap = (uint64_t{1} << 32) - end;
        const uint64_t kMaxGrowth = uint64_t{1} << 20;
        if (growth == 0 || untilWrap > kMaxGrowth) {
            throw ArgumentException(
                "Base::Replace: the replacement ends with the searched text, so it would never end");
        }
    }
    while (found != std::string::npos && found < end) {
        text.replace(found, from.size(), to);
        end += growth;
        found = text.find(from, static_cast<uint32_t>(static_cast<uint32_t>(found) + growth));
    }
    return text;
}

std::string Base::DumpBufferToString(const unsigned char* buffer, unsigned long long length, bool upperCase) {
    const char* digits = upperCase ? "0123456789ABCDEF" : "0123456789abcdef";
    std::string text;
    text.reserve(static_cast<std::string::size_type>(length) * 2);
    for (unsigned long long i = 0; i < length; ++i) {
        text += digits[buffer[i] >> 4];
        text += digits[buffer[i] & 0x0F];
    }
    return text;
}

void Base::DumpBuffer(const unsigned char* buffer, unsigned long long length) {
    for (unsigned long long i = 0; i < length; ++i) {
        std::printf("%02X ", buffer[i]);
        if ((i + 1) % 16 == 0) {
            std::printf("\n");
        }
    }
    std::printf("\n");
}
