#include "agent/sdk/MessageDigest.h"

#include <array>

#include <openssl/err.h>

#include "agent/sdk/Hex.h"

namespace SDK {

bool MessageDigest::Start(const std::string& algorithm) {
    const std::unique_ptr<EVP_MD, decltype(&EVP_MD_free)> type(EVP_MD_fetch(nullptr, algorithm.c_str(), nullptr),
                                                               &EVP_MD_free);
    mContext.reset(EVP_MD_CTX_new());
    const bool started = type && mContext && EVP_DigestInit_ex(mContext.get(), type.get(), nullptr) == 1;
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
