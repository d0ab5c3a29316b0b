#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include <openssl/evp.h>

namespace SDK {

// A digest computed piece by piece with OpenSSL's EVP.
//
// Start comes first; after a Start that failed only another Start is allowed. Not thread-safe.
class MessageDigest {
public:
    static constexpr const char* SHA256 = "SHA256";

    // `algorithm` as OpenSSL names it. False when OpenSSL offers none of that name.
    bool Start(const std::string& algorithm);

    // False when OpenSSL fails; the digest is lost then.
    bool Update(const void* data, std::size_t length);

    // The digest of all that was given, in lowercase hexadecimal; empty when OpenSSL fails.
    std::string Finish();

private:
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> mContext{nullptr, &EVP_MD_CTX_free};
};

} // namespace SDK
