// The pass over main header and payload: every block reaches both consumers, in order, on one thread
// or on two; the pass ends where its caller says; a failure on either side ends it with that
// failure, and the second thread is gone when Run returns.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "DigestPipeline.h"

namespace {

const size_t kBlock = 1000;

struct Pass {
    std::string front, back;
    bool backOnOtherThread = false;
    uint64_t end = 0;
};

// Hands data to Run in blocks of kBlock bytes; the pass ends at the first short block, as the
// classic reader's does. failAt: the block at which read, front or back throws (none when -1).
Pass RunPass(const std::string& data, bool threaded, const std::string& failing = "", long failAt = -1) {
    Pass pass;
    const std::thread::id caller = std::this_thread::get_id();
    long reads = 0, fronts = 0, backs = 0;
    auto fail = [&](const std::string& side, long& calls) {
        if (side == failing && calls++ == failAt) throw std::runtime_error(side + " failed");
    };
    pass.end = DigestPipeline::Run(
        0, kBlock, threaded,
        [&](char* block, uint64_t position, size_t size) {
            fail("read", reads);
            const auto at = static_cast<size_t>(position);
            const size_t count = at < data.size() ? std::min(size, data.size() - at) : 0;
            data.copy(block, count, at);
            return count;
        },
        [](size_t count, uint64_t) { return count == kBlock; },
        [&](const char* block, uint64_t position, size_t count) {
            fail("front", fronts);
            EXPECT_EQ(position, pass.front.size());
            pass.front.append(block, count);
        },
        [&](const char* block, uint64_t position, size_t count) {
            fail("back", backs);
            EXPECT_EQ(position, pass.back.size());
            pass.back.append(block, count);
            if (std::this_thread::get_id() != caller) pass.backOnOtherThread = true;
        });
    return pass;
}

}  // namespace

TEST(DigestPipeline, EveryBlockReachesBothSidesInOrder) {
    // Sizes around a block and around the ring of kSlots blocks, and many times round it.
    const size_t ring = DigestPipeline::kSlots * kBlock;
    for (const size_t size :
         {size_t{0}, size_t{1}, kBlock - 1, kBlock, kBlock + 1, ring - 1, ring, ring + 1, 25 * ring + 7}) {
        std::string data(size, 0);
        for (size_t i = 0; i < size; ++i) data[i] = static_cast<char>(i % 253);
        for (const bool threaded : {false, true}) {
            const Pass pass = RunPass(data, threaded);
            EXPECT_EQ(pass.front, data) << size << " " << threaded;
            EXPECT_EQ(pass.back, data) << size << " " << threaded;
            EXPECT_EQ(pass.end, size) << size << " " << threaded;
            EXPECT_EQ(pass.backOnOtherThread, threaded) << size;
        }
    }
}

TEST(DigestPipeline, AFailureOnEitherSideEndsThePassWithIt) {
    const std::string data(40 * kBlock, 'x');
    for (const bool threaded : {false, true}) {
        for (const std::string side : {"read", "front", "back"}) {
            for (const long at : {0L, 1L, 9L, 39L}) {  // 9: after the ring is full once
                try {
                    RunPass(data, threaded, side, at);
                    ADD_FAILURE() << side << " " << at << " did not fail";
                } catch (const std::runtime_error& e) {
                    EXPECT_EQ(std::string(e.what()), side + " failed") << threaded << " " << at;
                }
            }
        }
    }
}

// A second thread for large stretches only, and only where the process may run on two cores: a
// thread pinned to one core keeps the work.
TEST(DigestPipeline, ASecondThreadOnlyForLargeStretchesAndTwoCores) {
    cpu_set_t allowed;
    ASSERT_EQ(sched_getaffinity(0, sizeof allowed, &allowed), 0);
    EXPECT_FALSE(DigestPipeline::Worthwhile(DigestPipeline::kThreadedFrom - 1));
    EXPECT_EQ(DigestPipeline::Worthwhile(DigestPipeline::kThreadedFrom), CPU_COUNT(&allowed) >= 2);
    cpu_set_t one;
    CPU_ZERO(&one);
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &allowed)) {
            CPU_SET(cpu, &one);
            break;
        }
    }
    ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
    EXPECT_FALSE(DigestPipeline::Worthwhile(DigestPipeline::kThreadedFrom));
    ASSERT_EQ(sched_setaffinity(0, sizeof allowed, &allowed), 0);
}

// The second thread takes none of the host's signals; the caller's signal mask is as it was.
TEST(DigestPipeline, TheSecondThreadTakesNoSignals) {
    sigset_t before, inWorker, after;
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &before), 0);
    sigemptyset(&inWorker);
    const std::string data(20 * kBlock, 's');
    DigestPipeline::Run(
        0, kBlock, true,
        [&](char* block, uint64_t position, size_t size) {
            const auto at = static_cast<size_t>(position);
            const size_t count = at < data.size() ? std::min(size, data.size() - at) : 0;
            data.copy(block, count, at);
            return count;
        },
        [](size_t count, uint64_t) { return count == kBlock; }, [](const char*, uint64_t, size_t) {},
        [&](const char*, uint64_t position, size_t) {
            if (position == 0) pthread_sigmask(SIG_SETMASK, nullptr, &inWorker);
        });
    for (const int signal : {SIGINT, SIGTERM, SIGCHLD, SIGUSR1, SIGALRM}) {
        EXPECT_TRUE(sigismember(&inWorker, signal)) << signal;
    }
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &after), 0);
    for (int signal = 1; signal < 32; ++signal) EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal));
}

// The costliest hash goes to the second thread, then each to the thread with less work, the calling
// thread starting with the reading (0.25): rows of costs and the hashes that go to the second thread.
TEST(DigestPipeline, HashesAreSharedByCost) {
    const struct {
        std::vector<double> costs;
        std::vector<bool> second;
    } rows[] = {{{}, {}},
                {{1.0}, {false}},
                {{1.0, 0.75}, {true, false}},             // MD5, SHA-512 on x86-64
                {{1.0, 1.75}, {false, true}},             // MD5, SHA-512 on i386
                {{1.0, 1.0}, {true, false}},              // a tie: the first one
                {{1.0, 0.4, 0.4}, {true, false, false}},  // MD5, SHA-256 payload and package
                {{0.4, 1.0, 0.75, 0.4}, {false, true, false, true}}};
    for (const auto& row : rows) EXPECT_EQ(DigestPipeline::Share(row.costs), row.second) << row.costs.size();
    EXPECT_EQ(DigestPipeline::Cost(1), 1.0);
    EXPECT_EQ(DigestPipeline::Cost(10), sizeof(void*) == 4 ? 1.75 : 0.75);
    EXPECT_LT(DigestPipeline::Cost(8), DigestPipeline::Cost(1));
}

// Leaves this process room for the ring and the copies, not for a thread's stack of 8 MiB. A 64-bit
// process gets an address-space limit 4 MiB above what it maps now; a 32-bit one has its address space
// filled, all but a hole of 4 MiB, with reservations that are never touched. That works the same where
// a user-mode emulator runs the test (which keeps the limit for itself and ignores a program's).
static void LeaveNoRoomForAThread() {
    const size_t room = 4 * 1024 * 1024;
    if (sizeof(void*) == 8) {
        std::ifstream statm("/proc/self/statm");
        unsigned long pages = 0;
        statm >> pages;
        const rlim_t limit = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + room;
        const rlimit most{limit, limit};
        ASSERT_EQ(setrlimit(RLIMIT_AS, &most), 0);
        return;
    }
    const int flags = MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE;
    void* const hole = mmap(nullptr, room, PROT_NONE, flags, -1, 0);
    ASSERT_NE(hole, MAP_FAILED);
    size_t reserved = 0;
    for (size_t size = size_t{1} << 30; size >= static_cast<size_t>(sysconf(_SC_PAGESIZE));) {
        if (mmap(nullptr, size, PROT_NONE, flags, -1, 0) == MAP_FAILED) {
            size /= 2;
        } else {
            reserved += size;
        }
    }
    ASSERT_GT(reserved, size_t{1} << 30);  // most of a 32-bit address space
    ASSERT_EQ(munmap(hole, room), 0);
}

// A host that has no room for another thread (here: an address space too small for a thread's
// stack) still gets every block through both sides, on its own thread. Run in a process of its own,
// which has no stacks of earlier threads to reuse, and with the usual stack size of 8 MiB.
TEST(DigestPipeline, WithoutRoomForAThreadTheCallingThreadDoesItAll) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizers reserve more address space than the limit leaves";
#else
    const char* const name = "DigestPipeline.WithoutRoomForAThreadTheCallingThreadDoesItAll";
    if (std::getenv("SIGNING_TEST_NO_ROOM") == nullptr) {
        char self[4096] = {};
        ASSERT_GT(readlink("/proc/self/exe", self, sizeof self - 1), 0);
        const std::string command = std::string("ulimit -s 8192; SIGNING_TEST_NO_ROOM=1 " SIGNING_LAUNCHER " '") +
                                    self + "' --gtest_filter=" + name + " > /dev/null 2>&1";
        EXPECT_EQ(std::system(command.c_str()), 0);
        return;
    }
    std::string data(40 * kBlock + 3, 0);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i % 249);
    LeaveNoRoomForAThread();
    const Pass pass = RunPass(data, true);
    EXPECT_EQ(pass.front, data);
    EXPECT_EQ(pass.back, data);
    EXPECT_FALSE(pass.backOnOtherThread);
#endif
}
