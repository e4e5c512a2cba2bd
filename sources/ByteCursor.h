#pragma once
// A bounds-checked reader over bytes in memory: a view (its first byte and its size) and a position
// in it. Every read is checked against the end of the view before a byte is touched. A read that
// would pass the end moves nothing and throws DataFormatException "WHAT is truncated", where WHAT
// names the part being read: the cursor's own name, or the one the call gives. Integers are read
// big-endian, as every format the module reads stores them.
//
// Positions and counts are 64-bit, and a count is only ever compared with what remains, never added
// to the position first: no count, however large, can wrap past the end.

#include <cstdint>

class ByteCursor {
public:
    // A view of size bytes from data, at position 0; what names the bytes in the failure text.
    ByteCursor(const void* data, uint64_t size, const char* what)
        : data_(static_cast<const unsigned char*>(data)), size_(size), position_(0), what_(what) {}

    uint64_t Size() const { return size_; }
    uint64_t Position() const { return position_; }
    uint64_t Remaining() const { return size_ - position_; }
    // Whether count bytes remain from the position.
    bool Has(uint64_t count) const { return count <= Remaining(); }
    // Whether count bytes lie at offset from the position, inside the view.
    bool HasAt(uint64_t offset, uint64_t count) const { return Has(offset) && count <= Remaining() - offset; }
    // The byte at the position (one past the last byte at the end): for readers bounded by Remaining().
    const unsigned char* Here() const { return data_ + position_; }

    // Throws unless count bytes remain: for fields that must all be there before any is judged.
    void Need(uint64_t count, const char* what = nullptr) const {
        if (!Has(count)) Refuse(what);
    }
    // The next count bytes, without moving.
    const unsigned char* Peek(uint64_t count, const char* what = nullptr) const {
        Need(count, what);
        return Here();
    }
    uint8_t ReadUInt8(const char* what = nullptr) { return static_cast<uint8_t>(ReadBigEndian(1, what)); }
    uint16_t ReadUInt16(const char* what = nullptr) { return static_cast<uint16_t>(ReadBigEndian(2, what)); }
    uint32_t ReadUInt32(const char* what = nullptr) { return ReadBigEndian(4, what); }
    // Copies the next count bytes to out and moves past them.
    void Read(void* out, uint64_t count, const char* what = nullptr);
    void Skip(uint64_t count, const char* what = nullptr) {
        Need(count, what);
        position_ += count;
    }
    // The next count bytes as a view of their own (under this cursor's name); moves past them.
    ByteCursor Take(uint64_t count, const char* what = nullptr) {
        const unsigned char* first = Peek(count, what);
        position_ += count;
        return ByteCursor(first, count, what_);
    }

private:
    uint32_t ReadBigEndian(unsigned int count, const char* what);
    [[noreturn]] void Refuse(const char* what) const;

    const unsigned char* data_;
    uint64_t size_;
    uint64_t position_;
    const char* what_;
};
