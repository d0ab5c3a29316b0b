#include <array>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include "exec/Figures.h"
#include "exec/Starter.h"
#include "sdk/FileUtils.h"
#include "support/TempRoot.h"

namespace Bench {

namespace {

constexpr std::size_t FILE_BYTES = 10 << 20;
constexpr std::size_t SPEED_BYTES = 16384; // what "openssl speed" gives its largest figure for
constexpr std::size_t READ_BYTES = 65536;
constexpr int FILES = 8;

// As the product sees it: a file that nobody has hashed.
void HashFirst(const std::string& path) {
    std::string digest;
    if (SDK::FileUtils::GetFileSha256(path, digest, FILE_BYTES) != 0) {
        throw std::runtime_error("no digest of " + path);
    }
}

class Sha256 {
public:
    Sha256() { EVP_DigestInit_ex(mContext.get(), EVP_sha256(), nullptr); }
    void Add(const char* data, std::size_t length) { EVP_DigestUpdate(mContext.get(), data, length); }
    void Finish() {
        std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
        EVP_DigestFinal_ex(mContext.get(), digest.data(), nullptr);
    }

private:
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> mContext{EVP_MD_CTX_new(), EVP_MD_CTX_free};
};

// The same number of bytes, out of the cache, over and over.
void HashMemory(const std::string& /*path*/) {
    static const std::vector<char> block(SPEED_BYTES, 'x');
    Sha256 sha256;
    for (std::size_t done = 0; done < FILE_BYTES; done += block.size()) {
        sha256.Add(block.data(), block.size());
    }
    sha256.Finish();
}

template <typename Take> void Read(const std::string& path, Take take) {
    static std::vector<char> buffer(READ_BYTES);
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    for (ssize_t count = 0; (count = read(fd, buffer.data(), buffer.size())) > 0;) {
        take(buffer.data(), static_cast<std::size_t>(count));
    }
    close(fd);
}

void ReadOnly(const std::string& path) {
    Read(path, [](const char*, std::size_t) {});
}

// What the product does, and nothing else: the bound of one thread that reads.
void ReadAndHash(const std::string& path) {
    Sha256 sha256;
    Read(path, [&](const char* data, std::size_t length) { sha256.Add(data, length); });
    sha256.Finish();
}

struct Way {
    std::string series;
    std::function<void(const std::string&)> take;
    double ns = 0;
};

} // namespace

void MeasureDigest(unsigned int round) {
    const TestSupport::TempDir work;
    const std::string content(FILE_BYTES, 'x');
    std::array<Way, 4> ways{Way{PRODUCT, HashFirst}, Way{"SHA-256 alone", HashMemory}, Way{"reading alone", ReadOnly},
                            Way{"read, then hashed", ReadAndHash}};
    for (unsigned int file = 0; file < FILES; ++file) {
        const std::string path = work.Write("file-" + std::to_string(file), content);
        ReadOnly(path);
        for (std::size_t i = 0; i < ways.size(); ++i) {
            Way& way = ways[(i + file + round) % ways.size()];
            const std::uint64_t begin = NowNs();
            way.take(path);
            way.ns += static_cast<double>(NowNs() - begin);
        }
    }
    const std::string& slower =
        std::max(ways[1], ways[2], [](const Way& a, const Way& b) { return a.ns < b.ns; }).series;
    for (const Way& way : ways) {
        const double mibPerSecond = FILES * static_cast<double>(FILE_BYTES) / (1 << 20) / (way.ns / 1e9);
        const std::vector<Goal> goals = way.series == PRODUCT ? std::vector{AtLeast(0.9, slower)} : std::vector<Goal>{};
        Report({"first digest", "10 MiB", way.series, mibPerSecond, "MiB/s", goals});
    }
}

} // namespace Bench
