#include "sdk/CryptoCodeUtils.h"

#include <array>
#include <cstddef>

#include <sys/random.h>

#include "agent/sdk/Hex.h"
#include "agent/sdk/MessageDigest.h"

namespace SDK {

namespace {

constexpr std::size_t UUID_BYTES = 16;

// getrandom(2) fails for up to 256 bytes only by being interrupted while the kernel's pool is not
// yet seeded, which ends by itself.
std::array<unsigned char, UUID_BYTES> RandomBytes() {
    std::array<unsigned char, UUID_BYTES> bytes{};
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const ssize_t count = getrandom(bytes.data() + filled, bytes.size() - filled, 0);
        if (count > 0) {
            filled += static_cast<std::size_t>(count);
        }
    }
    return bytes;
}

} // namespace

std::string CryptoCodeUtils::GenerateUUID() {
    std::array<unsigned char, UUID_BYTES> bytes = RandomBytes();
    // RFC 4122, 4.4: the version in the upper half of byte 6, the variant in the top bits of byte 8.
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);

    std::string text = ToHex(bytes.data(), bytes.size());
    for (const std::size_t position : {20U, 16U, 12U, 8U}) {
        text.insert(position, 1, '-');
    }
    return text;
}

std::string CryptoCodeUtils::GetSha256(const std::string& text) {
    MessageDigest digest;
    return digest.Start(MessageDigest::SHA256) && digest.Update(text.data(), text.size()) ? digest.Finish() : "";
}

} // namespace SDK
