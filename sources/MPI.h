#pragma once
// An OpenPGP multi-precision integer: a two-octet big-endian bit count, then (bits + 7) / 8 octets
// of big-endian magnitude (RFC 4880, 3.2).

#include <cstdint>
#include <memory>

#include "Base.h"

class ByteCursor;

class MPI : public Base {
public:
    // bufferLength is the bound the caller allows for the value bytes ("Size of the multi-precision
    // integers is greater than the buffer length" when exceeded; equal is accepted).
    MPI(const char* data, unsigned long long bufferLength);
    // The same, where available also counts the bytes really present from data on (the bit count
    // included): an integer running past them is refused as truncated.
    MPI(const char* data, unsigned long long bufferLength, unsigned long long available);
    // The same over the bytes that remain in data, from its position; moves data past the integer.
    MPI(ByteCursor& data, unsigned long long bufferLength);
    ~MPI() override;

    MPI(const MPI&) = delete;
    MPI& operator=(const MPI&) = delete;

    const unsigned char* GetValue() const { return value_.get(); }
    uint64_t GetLengthInBits() const { return bits_; }
    uint64_t GetLengthInBytes() const { return bytes_; }

private:
    void Read(const char* data, unsigned long long bufferLength);
    void ReadFrom(ByteCursor& data, unsigned long long bufferLength);

    uint64_t bits_;
    uint64_t bytes_;
    std::unique_ptr<unsigned char[]> value_;  // bytes_ octets, at least one allocated
};
