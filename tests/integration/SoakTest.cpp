// Long runs and special files: many rpm_verify calls in one process leave no descriptor open and
// keep memory flat; a hostile signature header costs a small multiple of its size; files that are
// not regular files get an answer at once.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "CertificateManager.h"
#include "TestSupport.h"
#include "rpmutil.h"

namespace {

const std::string kData = SIGNING_TEST_DATA, kKey = kData + "/keys/publisher-2048.asc";

// A field of /proc/self/status in KiB: VmRSS (resident now), VmHWM (the peak since clear_refs "5").
long StatusKiB(const std::string& field) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(field + ":", 0) == 0) return std::atol(line.c_str() + field.size() + 1);
    }
    return -1;
}

std::pair<int, std::string> Verify(const std::string& file, const std::string& key) {
    RpmVerifyResult result = rpm_verify(file.c_str(), key.c_str());
    const std::pair<int, std::string> answer(result.status, result.message);
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
    const std::vector<std::string> packages = {"signed-sha256.rpm",       "unsigned.rpm",
                                               "tampered-payload.rpm",    "other-key.rpm",
                                               "truncated-signature.rpm", "header-only.rpm"};
    auto run = [&](int n) {
        for (int i = 0; i < n; ++i) Verify(kData + "/rpm/" + packages[i % 6], kKey);
    };
    auto descriptors = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    run(1000);  // warm-up: allocator pools, OpenSSL's tables
    const auto open = descriptors();
    const long before = StatusKiB("VmRSS");
    run(9000);
    const long grown = StatusKiB("VmRSS") - before;
    EXPECT_EQ(descriptors(), open);
    std::printf("soak: resident memory grew by %ld KiB over 9000 calls\n", grown);
    EXPECT_TRUE(kSanitized || grown < 9000 / 2) << grown;
    CertificateManager::Destroy();
}

// 251 tag-1002 entries that all point at one blob of ~300 KB of small signature packets: refused
// at once and at a small multiple of the package's size in memory (it once took about 1 GB).
TEST(Soak, AHostileSignatureHeaderCostsASmallMultipleOfItsSize) {
    const std::string package = kData + "/rpm/amplified.rpm";
    const long sizeKiB = static_cast<long>(std::filesystem::file_size(package) / 1024);
    ASSERT_GT(sizeKiB, 250);
    Verify(kData + "/rpm/signed-sha256.rpm", kKey);  // warm-up
    std::ofstream("/proc/self/clear_refs") << "5";
    const long before = StatusKiB("VmHWM");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Verify(package, kKey).first, 5);
    const long grown = StatusKiB("VmHWM") - before;
    std::printf("hostile header: %ld KiB package, peak memory grew by %ld KiB\n", sizeKiB, grown);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_TRUE(kSanitized || before <= 0 || grown < 4 * sizeKiB) << grown;
}

TEST(SpecialFiles, FifosDevicesFoldersAndSocketsAreAnsweredPromptly) {
    TempFolder temp;
    const std::string fifo = temp / "fifo", socketPath = temp / "socket", package = kData + "/rpm/signed-sha256.rpm";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", socketPath.c_str());
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    const auto start = std::chrono::steady_clock::now();
    for (const std::string& special : {std::string("/dev/null"), std::string("/dev/zero"), temp.Path()}) {
        EXPECT_EQ(Verify(special, kKey), std::make_pair(5, special + " is not an RPM file.")) << special;
    }
    // A FIFO cannot be read at a position, a socket cannot be opened: the reason names the file.
    EXPECT_EQ(Verify(fifo, kKey), std::make_pair(5, "Could not recognise " + fifo +
                                                        " - File operation error: Error on "
                                                        "positioning file '" +
                                                        fifo + "': Illegal seek"));
    EXPECT_EQ(Verify(socketPath, kKey), std::make_pair(5, "File operation error: Cannot open file " + socketPath +
                                                              ": No such device or address"));
    // As keys, each of them leaves the signature check without a key: an internal error.
    for (const std::string& special : {fifo, std::string("/dev/null"), temp.Path(), socketPath}) {
        EXPECT_EQ(Verify(package, special), std::make_pair(5, "Internal error occured while verifying " + package));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    close(listener);
}
