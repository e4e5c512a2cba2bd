// Base64 and Radix-64 decoding of arbitrary text; what decodes must encode back to a text that
// decodes to the same bytes.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "Base64.h"

namespace {

template <typename Codec>
void RoundTrip(const char* text, unsigned int length) {
    unsigned int decodedLength = 0;
    std::unique_ptr<char[]> decoded;
    try {
        decoded.reset(Codec::Decode(text, length, decodedLength));
    } catch (const std::exception&) {
        return;
    }
    if (!decoded) return;
    unsigned int encodedLength = 0, againLength = 0;
    std::unique_ptr<char[]> encoded(Codec::Encode(decoded.get(), decodedLength, encodedLength));
    std::unique_ptr<char[]> again(Codec::Decode(encoded.get(), encodedLength, againLength));
    if (!again || againLength != decodedLength || std::memcmp(again.get(), decoded.get(), decodedLength) != 0) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* text = reinterpret_cast<const char*>(data);
    const unsigned int length = static_cast<unsigned int>(size);
    RoundTrip<Base64>(text, length);
    RoundTrip<Radix64>(text, length);
    return 0;
}
