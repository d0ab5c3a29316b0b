#include "agent/sdk/MessageDigest.h"

#include <array>

#include <openssl/err.h>

#include "agent/sdk/Hex.h"

namespace SDK {

namespace {

using DigestType = std::unique_ptr<EVP_MD, decltype(&EVP_MD_free)>;

DigestType Fetch(const std::string& algorithm) {
    return {EVP_MD_fetch(nullptr, algorithm.c_str(), nullptr), &EVP_MD_free};
}

} // namespace

bool MessageDigest::Start(const std::string& algorithm) {
    // Looking it up takes longer than hashing a kilobyte. Never freed: threads may still hash while the process
    // exits.
    static const auto* const sha256 = new DigestType(Fetch(SHA256));
    const bool isKnown = *sha256 && algorithm == SHA256;
    const DigestType other = isKnown ? DigestType(nullptr, &EVP_MD_free) : Fetch(algorithm);
    const EVP_MD* const type = isKnown ? sha256->get() : other.get();
    mContext.reset(EVP_MD_CTX_new());
    const bool started = type != nullptr && mContext && EVP_DigestInit_ex(mContext.get(), type, nullptr) == 1;
    if (!started) {
        // The failure is reported by the result; the thread's error queue belongs to others.
        ERR_clear_error();
    }
    return started;
}

bool MessageDigest::Update(const void* data, std::size_t length) {
    return EVP_DigestUpdate(mContext.get(), data, length) == 1;
}

std::string MessageDigest::Finish() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    if (EVP_DigestFinal_ex(mContext.get(), digest.data(), &length) != 1) {
        return "";
    }
    return ToHex(digest.data(), length);
}

} // namespace SDK
