// Long runs, threads and special files: many rpm_verify calls in one process leave no descriptor
// open and keep memory flat; calls on several threads with several keys give the answers of lone
// calls; hostile headers cost little memory and time; files that are not regular files get an
// answer at once.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "CertificateManager.h"
#include "RpmReport.h"
#include "RpmWriter.h"
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

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)  // their own memory per thread and allocation
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

// Two host threads, two keys, both policies: each call gives the answer a lone call gives. The same
// package is signed with one key and refused with the other, so a key that leaks from one call into
// another shows as a wrong status. Packages of 2 MiB are hashed on a second thread of their call, so
// both threads' calls run their own digest threads at the same time.
TEST(Threads, CallsWithTwoKeysOnTwoThreadsGiveTheAnswersOfLoneCalls) {
    using namespace rpm;
    TempFolder temp;
    const std::string testKey =
        temp.Write("key.asc", pgp::Armor(pgp::KeyBlock(TestKey(2048), pgp::SignatureOptions().issuer)));
    PackageOptions large;
    large.payload = std::string(2 << 20, 'l');
    const std::string bytes = Package(large);
    const std::string big = temp.Write("big.rpm", bytes);
    std::string tampered = bytes;
    tampered.back() ^= 1;
    const std::string bigTampered = temp.Write("big-tampered.rpm", tampered);
    struct Case {
        std::string package, key;
        int status;
        SigningPolicy policy;
    };
    const auto fixture = [](const std::string& name) { return kData + "/rpm/" + name; };
    const auto key = [](const std::string& name) { return kData + "/keys/" + name + ".asc"; };
    const SigningPolicy classic = SigningPolicy::Classic, current = SigningPolicy::Current;
    const std::vector<Case> cases[2] = {{{fixture("signed-sha256.rpm"), key("publisher-2048"), 0, classic},
                                         {fixture("other-key.rpm"), key("publisher-2048"), 2, classic},
                                         {fixture("signed-sha256.rpm"), key("publisher-2048"), 0, current},
                                         {big, testKey, 0, classic},
                                         {bigTampered, testKey, 3, classic}},
                                        {{fixture("signed-sha256.rpm"), key("other-2048"), 2, classic},
                                         {fixture("other-key.rpm"), key("other-2048"), 0, classic},
                                         {fixture("other-key.rpm"), key("other-2048"), 0, current},
                                         {bigTampered, testKey, 3, classic},
                                         {big, testKey, 0, classic}}};
    std::atomic<int> wrong{0};
    auto run = [&](const std::vector<Case>& mine) {
        for (int i = 0; i < 300; ++i) {
            const Case& c = mine[static_cast<size_t>(i) % mine.size()];
            RpmReport report;
            RpmVerifyResult result = rpm_verify_report(c.package.c_str(), c.key.c_str(), report, c.policy);
            if (result.status != c.status) ++wrong;
            std::free(result.message);
        }
    };
    std::thread first(run, cases[0]), second(run, cases[1]);
    first.join();
    second.join();
    EXPECT_EQ(wrong.load(), 0);
}

// Header structures that claim more than rpm's header reader takes, in sparse files as large as the
// claims: refused at once, with nothing allocated for them. A main header inside the bounds is
// hashed in blocks, never held whole.
TEST(Soak, ClaimedSizesCostNeitherMemoryNorTime) {
    using namespace rpm;
    using pgp::Be;
    TempFolder temp;
    PackageOptions options;
    const Bytes signatureHeader = HeaderBytes(SignatureEntries(options));
    const size_t mainOffset = (Lead().size() + signatureHeader.size() + 7) & ~size_t(7);
    const std::string package = Package(options);
    struct Claim {
        const char* name;
        size_t field;    // offset of the 32-bit size (or count) that is changed
        uint32_t value;  // the claim
        bool refused;    // beyond the bounds: refused without reading
        uint64_t Bytes() const { return std::string(name).find("index") != std::string::npos ? 16ull * value : value; }
    };
    const uint32_t kMiB = 1024 * 1024;
    const Claim claims[] = {{"signature store", Lead().size() + 12, 512 * kMiB, true},
                            {"signature index", Lead().size() + 8, 0x01000000, true},
                            {"main header store", mainOffset + 12, 512 * kMiB, true},
                            {"main header index", mainOffset + 8, 0x00100000, true},
                            {"main header store within the bounds", mainOffset + 12, 48 * kMiB, false}};
    Verify(kData + "/rpm/signed-sha256.rpm", kKey);  // warm-up
    for (const Claim& claim : claims) {
        std::string bytes = package;
        bytes.replace(claim.field, 4, Text(Be(claim.value, 4)));
        const std::string path = temp.Write("claim.rpm", bytes);
        std::filesystem::resize_file(path, bytes.size() + claim.Bytes());  // sparse
        std::ofstream("/proc/self/clear_refs") << "5";
        const long before = StatusKiB("VmHWM");
        const auto start = std::chrono::steady_clock::now();
        const std::pair<int, std::string> answer = Verify(path, kKey);
        const auto took = std::chrono::steady_clock::now() - start;
        const long grown = StatusKiB("VmHWM") - before;
        std::printf("%s: %u claimed, status %d in %.3f s, peak memory grew by %ld KiB\n", claim.name, claim.value,
                    answer.first, std::chrono::duration<double>(took).count(), grown);
        EXPECT_EQ(answer.first, claim.refused ? 5 : 3) << claim.name << ": " << answer.second;
        EXPECT_TRUE(kSanitized || before <= 0 || grown < 4 * 1024) << claim.name << ": " << grown;
        if (claim.refused) {
            EXPECT_LT(took, std::chrono::milliseconds(kSanitized ? 1000 : 100)) << claim.name;
        }
    }
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
