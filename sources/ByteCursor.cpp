#include "ByteCursor.h"

#include <cstring>
#include <string>

#include "Exceptions.h"

void ByteCursor::Read(void* out, uint64_t count, const char* what) {
    const unsigned char* first = Peek(count, what);
    // An empty view may have no first byte at all; a count within the view fits in memory sizes.
    if (count != 0) {
        std::memcpy(out, first, static_cast<size_t>(count));
    }
    position_ += count;
}

uint32_t ByteCursor::ReadBigEndian(unsigned int count, const char* what) {
    const unsigned char* first = Peek(count, what);
    uint32_t value = 0;
    for (unsigned int i = 0; i < count; ++i) {
        value = (value << 8) | first[i];
    }
    position_ += count;
    return value;
}

void ByteCursor::Refuse(const char* what) const {
    throw DataFormatException(std::string(what != nullptr ? what : what_) + " is truncated");
}
