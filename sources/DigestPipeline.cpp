#include "DigestPipeline.h"

#include <pthread.h>
#include <sched.h>
#include <signal.h>

#include <algorithm>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "OpenPgpAlgorithms.h"

namespace {

// What the two threads share. Block i lives in slot i % kSlots; the reader may fill it once the
// worker has consumed block i - kSlots. Every field is read and written under the mutex; the block
// bytes are written before their block is published and read after, so the lock orders them too.
// A side that has to wait says so, and the other wakes it only then, and not at once: the reader,
// when the ring is full, waits for half of it to be free, the worker, when it is empty, for half of
// it to be filled (or the end), so that a side that is faster than the other is woken once per
// kSlots / 2 blocks, not once per block. (Each wake-up costs the sleeper's core the time to come
// back from idle, up to a tenth of a millisecond.)
struct Ring {
    struct Slot {
        std::unique_ptr<char[]> bytes;
        uint64_t position = 0;
        size_t count = 0;
    };

    explicit Ring(size_t blockSize) : slots(DigestPipeline::kSlots) {
        for (Slot& slot : slots) slot.bytes = std::make_unique<char[]>(blockSize);
    }

    std::vector<Slot> slots;
    std::mutex mutex;
    std::condition_variable forReader, forWorker;
    uint64_t published = 0;    // blocks handed to the worker
    uint64_t consumed = 0;     // blocks the worker is done with
    bool finished = false;     // no block will be published any more
    bool failed = false;       // the worker stopped on an exception (kept in error)
    bool readerWaits = false;  // the reader waits until consumed reaches readerNeeds
    uint64_t readerNeeds = 0;
    bool workerWaits = false;  // the worker waits until published reaches workerNeeds, or the end
    uint64_t workerNeeds = 0;
    std::exception_ptr error;
};

void Work(Ring& ring, const DigestPipeline::Consume& back) {
    for (uint64_t i = 0;; ++i) {
        {
            // When no block is there, wait until half of the ring is filled, or the end.
            std::unique_lock<std::mutex> lock(ring.mutex);
            if (ring.published <= i && !ring.finished) {
                // (Not at the start: there the reader has just begun to fill the ring.)
                ring.workerNeeds = i < DigestPipeline::kSlots ? i + 1 : i + DigestPipeline::kSlots / 2;
                ring.workerWaits = true;
                ring.forWorker.wait(lock, [&] { return ring.published >= ring.workerNeeds || ring.finished; });
                ring.workerWaits = false;
            }
            if (ring.published <= i) return;  // finished, and every block consumed
        }
        const Ring::Slot& slot = ring.slots[i % DigestPipeline::kSlots];
        try {
            back(slot.bytes.get(), slot.position, slot.count);
        } catch (...) {
            {
                const std::lock_guard<std::mutex> lock(ring.mutex);
                ring.error = std::current_exception();
                ring.failed = true;
            }
            ring.forReader.notify_one();
            return;
        }
        bool wake = false;
        {
            const std::lock_guard<std::mutex> lock(ring.mutex);
            ring.consumed = i + 1;
            wake = ring.readerWaits && ring.consumed >= ring.readerNeeds;
        }
        if (wake) ring.forReader.notify_one();
    }
}

// Ends the worker however the reader leaves: no more blocks, then join.
class WorkerThread {
public:
    // The thread starts with every signal blocked, so that the host's signal handlers run on the
    // host's own threads only.
    WorkerThread(Ring& ring, const DigestPipeline::Consume& back) : ring_(ring) {
        sigset_t all, before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
        try {
            thread_ = std::thread([&ring, &back] { Work(ring, back); });
        } catch (...) {
            pthread_sigmask(SIG_SETMASK, &before, nullptr);
            throw;
        }
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    WorkerThread(const WorkerThread&) = delete;
    WorkerThread& operator=(const WorkerThread&) = delete;
    ~WorkerThread() { Join(); }

    void Join() {
        if (!thread_.joinable()) return;
        {
            const std::lock_guard<std::mutex> lock(ring_.mutex);
            ring_.finished = true;
        }
        ring_.forWorker.notify_one();
        thread_.join();
    }

private:
    Ring& ring_;
    std::thread thread_;
};

uint64_t RunAlone(uint64_t position, size_t blockSize, const DigestPipeline::Read& read,
                  const DigestPipeline::More& more, const DigestPipeline::Consume& front,
                  const DigestPipeline::Consume& back) {
    std::unique_ptr<char[]> block = std::make_unique<char[]>(blockSize);
    for (;;) {
        const size_t count = read(block.get(), position, blockSize);
        front(block.get(), position, count);
        back(block.get(), position, count);
        position += count;
        if (!more(count, position)) return position;
    }
}

}  // namespace

double DigestPipeline::Cost(unsigned int hashId) {
    const OpenPgpHashRow* row = FindOpenPgpHash(hashId);
    if (row == nullptr) return 1.0;  // as MD5
    return sizeof(void*) == 4 ? row->cost32 : row->cost;
}

std::vector<bool> DigestPipeline::Share(const std::vector<double>& costs) {
    std::vector<size_t> order(costs.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return costs[a] > costs[b]; });
    std::vector<bool> second(costs.size(), false);
    if (costs.size() < 2) return second;
    double first = 0.25, other = 0;  // the calling thread reads
    for (const size_t i : order) {
        if (other < first) {
            second[i] = true;
            other += costs[i];
        } else {
            first += costs[i];
        }
    }
    return second;
}

bool DigestPipeline::Worthwhile(uint64_t size) {
    if (size < kThreadedFrom) return false;
    // The cores this process may run on (a host pinned to one core gains nothing from a thread).
    cpu_set_t cores;
    if (sched_getaffinity(0, sizeof cores, &cores) == 0) return CPU_COUNT(&cores) >= 2;
    return std::thread::hardware_concurrency() >= 2;
}

uint64_t DigestPipeline::Run(uint64_t start, size_t blockSize, bool threaded, const Read& read, const More& more,
                             const Consume& front, const Consume& back) {
    if (!threaded) return RunAlone(start, blockSize, read, more, front, back);
    Ring ring(blockSize);
    uint64_t position = start;
    {
        std::unique_ptr<WorkerThread> worker;  // joined when this block is left, by a throw as well
        try {
            worker = std::make_unique<WorkerThread>(ring, back);
        } catch (const std::system_error&) {
            // No thread to be had (a limit of the host's, such as its address space): the calling
            // thread does it all, as for a small package.
            return RunAlone(start, blockSize, read, more, front, back);
        }
        for (uint64_t i = 0;; ++i) {
            Ring::Slot& slot = ring.slots[i % kSlots];
            {
                // Slot i is free once block i - kSlots is consumed; when it is not, wait until half
                // of the ring is.
                std::unique_lock<std::mutex> lock(ring.mutex);
                if (ring.consumed + kSlots <= i && !ring.failed) {
                    ring.readerNeeds = i + 1 - kSlots + kSlots / 2;
                    ring.readerWaits = true;
                    ring.forReader.wait(lock, [&] { return ring.consumed >= ring.readerNeeds || ring.failed; });
                    ring.readerWaits = false;
                }
                if (ring.failed) break;
            }
            const size_t count = read(slot.bytes.get(), position, blockSize);
            front(slot.bytes.get(), position, count);
            slot.position = position;
            slot.count = count;
            bool wake = false;
            {
                const std::lock_guard<std::mutex> lock(ring.mutex);
                ring.published = i + 1;
                wake = ring.workerWaits && ring.published >= ring.workerNeeds;
            }
            if (wake) ring.forWorker.notify_one();
            position += count;
            if (!more(count, position)) break;
        }
        worker->Join();
    }
    if (ring.error) std::rethrow_exception(ring.error);
    return position;
}
