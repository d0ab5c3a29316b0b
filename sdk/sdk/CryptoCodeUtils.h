#pragma once

#include <string>

namespace SDK {

class CryptoCodeUtils {
public:
    // A fresh random UUID (RFC 4122, version 4) in its 36-character lowercase text form.
    static std::string GenerateUUID();

    // The SHA-256 of the text as 64 lowercase hexadecimal characters; empty when OpenSSL fails.
    static std::string GetSha256(const std::string& text);
};

} // namespace SDK
