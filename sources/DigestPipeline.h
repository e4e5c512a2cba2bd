#pragma once
// One pass over a stretch of a package (the main header and the payload) in blocks, each block handed
// to two consumers: the digests of the calling thread, which also reads, and those of a second
// thread, so that a large package is hashed on two cores. A small stretch, or a process that may
// run on one core only, is done on the calling thread alone, the two consumers one after the other.
//
// The second thread lives for one Run: it is started there and joined before Run returns or throws.
// Blocks travel through a ring of kSlots buffers, so memory stays at kSlots blocks whatever the size.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

class DigestPipeline {
public:
    // Blocks in flight between the two threads: 8 of 64 KiB.
    static constexpr unsigned int kSlots = 8;
    // Stretches of at least this many bytes are hashed on two threads (bench/threshold: from here
    // on two threads take two thirds of one thread's time; below 256 KiB starting and ending the
    // thread costs more than it saves).
    static constexpr uint64_t kThreadedFrom = uint64_t{512} * 1024;

    // Reads up to size bytes at position into block; returns the count read. Throws on errors.
    using Read = std::function<size_t(char* block, uint64_t position, size_t size)>;
    // After a block of count bytes that ends at end: whether to read another.
    using More = std::function<bool(size_t count, uint64_t end)>;
    // Takes a block of count bytes that starts at position.
    using Consume = std::function<void(const char* block, uint64_t position, size_t count)>;

    // Whether a stretch of size bytes is worth a second thread here.
    static bool Worthwhile(uint64_t size);

    // Rough time per byte of a hash over a stretch, by its OpenPGP id, against MD5's, with today's
    // x86 libcrypto (the cost columns of OpenPgpAlgorithms.cpp); an unknown id costs as MD5.
    static double Cost(unsigned int hashId);
    // Which of the hashes of the given costs go to the second thread: the costliest first, each to
    // the thread with less work so far, the calling thread starting with the reading (a quarter of
    // MD5). None when there is one hash or none.
    static std::vector<bool> Share(const std::vector<double>& costs);

    // Reads blocks of blockSize bytes from start on, while more says so, and hands each to front
    // (on the calling thread, in order) and to back (in order; on a second thread when threaded).
    // Returns the position after the last block. An exception of read, front or back ends the pass
    // and is rethrown here once the second thread has ended.
    static uint64_t Run(uint64_t start, size_t blockSize, bool threaded, const Read& read, const More& more,
                        const Consume& front, const Consume& back);
};
