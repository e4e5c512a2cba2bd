// Where a second thread starts to pay: the verifier's digests (MD5 and SHA-512) over stretches of
// 64 KiB to 4 MiB in memory, on the calling thread alone and on two threads (DigestPipeline), the
// medians of many runs each. The stretch is read from memory, so what is measured is hashing plus
// the pipeline's own cost: starting and joining the thread and handing blocks over.
//
//   threshold [ROUNDS]
//
// bench/run builds it against build/release's libsigning_core.a and prints its table.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Digest.h"
#include "DigestPipeline.h"

namespace {

double Seconds(const std::string& data, bool threaded) {
    Digest md5(soapWrap::Md5), sha512(soapWrap::Sha512);
    const auto start = std::chrono::steady_clock::now();
    DigestPipeline::Run(
        0, 65536, threaded,
        [&](char* block, uint64_t position, size_t size) {
            const auto at = static_cast<size_t>(position);
            const size_t count = at < data.size() ? std::min(size, data.size() - at) : 0;
            std::memcpy(block, data.data() + at, count);
            return count;
        },
        [](size_t count, uint64_t) { return count == 65536; },
        [&](const char* block, uint64_t, size_t count) { sha512.Update(block, static_cast<unsigned int>(count)); },
        [&](const char* block, uint64_t, size_t count) { md5.Update(block, static_cast<unsigned int>(count)); });
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 51;
    std::printf("| Stretch | one thread (ms) | two threads (ms) | two / one |\n|---|---|---|---|\n");
    for (const size_t kib : {64, 128, 256, 512, 768, 1024, 2048, 4096}) {
        std::string data(kib * 1024, 0);
        for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 131 % 251);
        std::vector<double> one, two;
        for (int round = 0; round < rounds; ++round) {
            one.push_back(Seconds(data, false));
            two.push_back(Seconds(data, true));
        }
        const double a = Median(one) * 1000, b = Median(two) * 1000;
        std::printf("| %zu KiB | %.3f | %.3f | %.2f |\n", kib, a, b, b / a);
    }
    return 0;
}
