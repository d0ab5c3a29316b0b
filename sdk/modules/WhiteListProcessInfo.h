#pragma once

#include <string>

namespace Engine {

// The base of a task that can say whether an executable is white-listed. A holder of the
// Framework::Task finds it with dynamic_cast. It carries no data.
class WhiteListProcessInfo {
public:
    // True when one of the trust lists vouches for the executable with this SHA-256 (64 lowercase
    // hexadecimal characters) at this path. `result` says which: 1 local, 2 server, 3 OS preset,
    // 4 service preset; 0 when none does. Any thread.
    virtual bool IsWhiteListProcess(const std::string& hash, const std::string& path, int& result) = 0;

    virtual ~WhiteListProcessInfo() = default;
};

} // namespace Engine
