#pragma once

#include <string>

namespace SDK {

class CryptoCodeUtils {
public:
    // A fresh random UUID (RFC 4122, version 4) in its 36-character lowercase text form.
    static std::string GenerateUUID();
};

} // namespace SDK
