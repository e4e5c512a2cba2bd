#include "MPI.h"

#include <cstring>

#include "Exceptions.h"

MPI::MPI(const char* data, unsigned long long bufferLength) : bits_(0), bytes_(0), value_(nullptr) {
    Read(data, bufferLength);
}

MPI::MPI(const char* data, unsigned long long bufferLength, unsigned long long available)
    : bits_(0), bytes_(0), value_(nullptr) {
    if (available < 2) {
        throw DataFormatException("Multi-precision integer is truncated");
    }
    const uint64_t bits = (uint64_t{static_cast<unsigned char>(data[0])} << 8) | static_cast<unsigned char>(data[1]);
    const uint64_t bytes = (bits + 7) >> 3;
    if (bytes <= bufferLength && 2 + bytes > available) {
        throw DataFormatException("Multi-precision integer is truncated");
    }
    Read(data, bufferLength);
}

MPI::~MPI() {}

void MPI::Read(const char* data, unsigned long long bufferLength) {
    bits_ = (uint64_t{static_cast<unsigned char>(data[0])} << 8) | static_cast<unsigned char>(data[1]);
    bytes_ = (bits_ + 7) >> 3;
    if (bytes_ > bufferLength) {
        throw DataFormatException("Size of the multi-precision integers is greater than the buffer length");
    }
    value_ = std::make_unique<unsigned char[]>(bytes_ ? bytes_ : 1);
    std::memcpy(value_.get(), data + 2, bytes_);
}
