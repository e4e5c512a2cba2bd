#include "MPI.h"

#include <cstring>

#include "ByteCursor.h"
#include "Exceptions.h"

namespace {

const char kInteger[] = "Multi-precision integer";  // "... is truncated"

}  // namespace

MPI::MPI(const char* data, unsigned long long bufferLength) : bits_(0), bytes_(0), value_(nullptr) {
    Read(data, bufferLength);
}

MPI::MPI(const char* data, unsigned long long bufferLength, unsigned long long available)
    : bits_(0), bytes_(0), value_(nullptr) {
    ByteCursor cursor(data, available, kInteger);
    ReadFrom(cursor, bufferLength);
}

MPI::MPI(ByteCursor& data, unsigned long long bufferLength) : bits_(0), bytes_(0), value_(nullptr) {
    ReadFrom(data, bufferLength);
}

MPI::~MPI() {}

void MPI::Read(const char* data, unsigned long long bufferLength) {
    bits_ = (uint64_t{static_cast<unsigned char>(data[0])} << 8) | static_cast<unsigned char>(data[1]);
    bytes_ = (bits_ + 7) >> 3;
    if (bytes_ > bufferLength) {
        throw DataFormatException("Size of the multi-precision integers is greater than the buffer length");
    }
    const size_t bytes = static_cast<size_t>(bytes_);  // at most 8192: the bit count has 16 bits
    value_ = std::make_unique<unsigned char[]>(bytes ? bytes : 1);
    std::memcpy(value_.get(), data + 2, bytes);
}

// The caller's bound is judged first, with its own message (Read); an integer within it must also
// lie within the bytes really there.
void MPI::ReadFrom(ByteCursor& data, unsigned long long bufferLength) {
    ByteCursor integer = data;
    const uint16_t bits = integer.ReadUInt16(kInteger);
    const uint64_t bytes = (uint64_t{bits} + 7) >> 3;
    if (bytes <= bufferLength) {
        integer.Need(bytes, kInteger);
    }
    Read(reinterpret_cast<const char*>(data.Here()), bufferLength);
    integer.Skip(bytes);
    data = integer;
}
