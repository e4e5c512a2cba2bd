// Long runs and special files: many rpm_verify calls in one process leave no descriptor open and
// keep memory flat; a hostile signature header costs a small multiple of its size; files that are
// not regular files get an answer at once.
#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "CertificateManager.h"
#include "TestSupport.h"
#include "rpmutil.h"

namespace {

const std::string kData = SIGNING_TEST_DATA;

int OpenDescriptors() {
    int count = 0;
    DIR* folder = opendir("/proc/self/fd");
    while (readdir(folder) != nullptr) ++count;
    closedir(folder);
    return count;
}

// The peak resident size since the last ResetPeak().
long PeakKiB() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmHWM:", 0) == 0) return std::atol(line.c_str() + 6);
    }
    return -1;
}

void ResetPeak() {
    std::ofstream("/proc/self/clear_refs") << "5";
}

long ResidentKiB() {
    std::ifstream statm("/proc/self/statm");
    long size = 0, resident = 0;
    statm >> size >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

std::pair<int, std::string> Verify(const std::string& file, const std::string& key) {
    RpmVerifyResult result = rpm_verify(file.c_str(), key.c_str());
    std::pair<int, std::string> answer(result.status, result.message);
    std::free(result.message);
    return answer;
}

#if defined(__SANITIZE_ADDRESS__)
const bool kSanitized = true;
#else
const bool kSanitized = false;
#endif

}  // namespace

TEST(Soak, TenThousandCallsKeepDescriptorsAndMemoryFlat) {
    const std::string key = kData + "/keys/publisher-2048.asc";
    const std::vector<std::string> packages = {"signed-sha256.rpm", "unsigned.rpm", "tampered-payload.rpm",
                                               "other-key.rpm", "truncated-signature.rpm", "header-only.rpm"};
    auto run = [&](int calls) {
        for (int i = 0; i < calls; ++i) Verify(kData + "/rpm/" + packages[i % packages.size()], key);
    };
    run(1000);  // warm-up: allocator pools, OpenSSL's tables
    const int descriptors = OpenDescriptors();
    const long before = ResidentKiB();
    run(9000);
    const long grownKiB = ResidentKiB() - before;
    EXPECT_EQ(OpenDescriptors(), descriptors);
    // Every call that reaches a signature check loads the key once more; the manager keeps only the
    // last certificate, so nothing accumulates from call to call.
    RecordProperty("resident_growth_kib_per_9000_calls", static_cast<int>(grownKiB));
    std::printf("soak: resident memory grew by %ld KiB over 9000 calls (%.3f KiB per call)\n", grownKiB,
                grownKiB / 9000.0);
    if (!kSanitized) {
        EXPECT_LT(grownKiB, 9000 / 2);
    }
    CertificateManager::Destroy();
}

// 251 tag-1002 entries that all point at one blob of ~300 KB of small signature packets: refused,
// and at a small multiple of the package's size in memory (it once took about 1 GB).
TEST(Soak, AHostileSignatureHeaderCostsASmallMultipleOfItsSize) {
    const std::string package = kData + "/rpm/amplified.rpm";
    const long sizeKiB = static_cast<long>(std::ifstream(package, std::ios::ate | std::ios::binary).tellg() / 1024);
    ASSERT_GT(sizeKiB, 250);
    Verify(kData + "/rpm/signed-sha256.rpm", kData + "/keys/publisher-2048.asc");  // warm-up
    ResetPeak();
    const long before = PeakKiB();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Verify(package, kData + "/keys/publisher-2048.asc").first, 5);
    const long grownKiB = PeakKiB() - before;
    std::printf("hostile header: %ld KiB package, peak memory grew by %ld KiB\n", sizeKiB, grownKiB);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    if (!kSanitized && before > 0) {
        EXPECT_LT(grownKiB, 4 * sizeKiB);
    }
}

TEST(SpecialFiles, FifosDevicesFoldersAndSocketsAreAnsweredPromptly) {
    TempFolder temp;
    const std::string fifo = temp / "fifo", socketPath = temp / "socket";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", socketPath.c_str());
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);

    const std::string key = kData + "/keys/publisher-2048.asc", package = kData + "/rpm/signed-sha256.rpm";
    const auto start = std::chrono::steady_clock::now();
    for (const std::string& special : {std::string("/dev/null"), std::string("/dev/zero"), temp.Path()}) {
        EXPECT_EQ(Verify(special, key), std::make_pair(5, special + " is not an RPM file.")) << special;
    }
    // A FIFO cannot be read at a position, a socket cannot be opened: the reason names the file.
    EXPECT_EQ(Verify(fifo, key), std::make_pair(5, "Could not recognise " + fifo + " - File operation error: Error on "
                                                   "positioning file '" + fifo + "': Illegal seek"));
    const std::pair<int, std::string> socketAnswer = Verify(socketPath, key);
    EXPECT_EQ(socketAnswer.first, 5);
    EXPECT_NE(socketAnswer.second.find(socketPath), std::string::npos) << socketAnswer.second;
    // As keys, each of them leaves the signature check without a key: an internal error.
    for (const std::string& special : {fifo, std::string("/dev/null"), std::string("/dev/zero"), temp.Path(), socketPath}) {
        EXPECT_EQ(Verify(package, special).first, 5) << special;
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    close(listener);
}
