#include "LogText.h"

namespace {

// The length of the UTF-8 sequence that starts text[at] (1 to 4), or 0 when the bytes there are not
// one (a stray continuation byte, an overlong form, a surrogate, a cut sequence).
size_t Utf8SequenceLength(const std::string& text, size_t at, unsigned long& codePoint) {
    const auto byte = [&text](size_t index) { return static_cast<unsigned char>(text[index]); };
    const unsigned char lead = byte(at);
    size_t length = 0;
    unsigned long lowest = 0;
    if (lead >= 0xc2 && lead <= 0xdf) {
        length = 2, lowest = 0x80, codePoint = lead & 0x1fu;
    } else if (lead >= 0xe0 && lead <= 0xef) {
        length = 3, lowest = 0x800, codePoint = lead & 0x0fu;
    } else if (lead >= 0xf0 && lead <= 0xf4) {
        length = 4, lowest = 0x10000, codePoint = lead & 0x07u;
    } else {
        return 0;
    }
    if (text.size() - at < length) return 0;
    for (size_t next = 1; next < length; ++next) {
        if ((byte(at + next) & 0xc0u) != 0x80) return 0;
        codePoint = (codePoint << 6) | (byte(at + next) & 0x3fu);
    }
    const bool surrogate = codePoint >= 0xd800 && codePoint <= 0xdfff;
    return codePoint < lowest || codePoint > 0x10ffff || surrogate ? 0 : length;
}

}  // namespace

std::string LogText(const std::string& value) {
    static const char kHex[] = "0123456789abcdef";
    std::string text;
    text.reserve(value.size());
    auto escape = [&text](unsigned char octet) {
        switch (octet) {
            case '\n': text += "\\n"; break;
            case '\r': text += "\\r"; break;
            case '\t': text += "\\t"; break;
            default: text += {'\\', 'x', kHex[octet >> 4], kHex[octet & 0x0f]};
        }
    };
    for (size_t at = 0; at < value.size();) {
        const auto octet = static_cast<unsigned char>(value[at]);
        if (octet < 0x80) {
            // C0 controls and DEL escaped, the rest of ASCII as it is.
            if (octet < 0x20 || octet == 0x7f) {
                escape(octet);
            } else {
                text += value[at];
            }
            ++at;
            continue;
        }
        // Beyond ASCII: UTF-8 text as it is, except the C1 controls (U+0080..U+009F, NEL and CSI
        // among them) and the line and paragraph separators; every other byte escaped.
        unsigned long codePoint = 0;
        const size_t length = Utf8SequenceLength(value, at, codePoint);
        const bool control = (codePoint >= 0x80 && codePoint <= 0x9f) || codePoint == 0x2028 || codePoint == 0x2029;
        if (length == 0 || control) {
            for (size_t end = at + (length == 0 ? 1 : length); at < end; ++at) {
                escape(static_cast<unsigned char>(value[at]));
            }
        } else {
            text.append(value, at, length);
            at += length;
        }
    }
    return text;
}
