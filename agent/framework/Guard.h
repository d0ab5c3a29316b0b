#pragma once

#include <string>

namespace Framework {

// To be called while an exception is handled: logs that `kind` ("task", "module") `name` threw it in its operation
// `where`, and counts it as "KIND.exceptions"; want of memory is noted as a shortage (SDK::Shortage). What there is no
// memory for, because that is what was thrown about, is left out.
void ReportException(const char* kind, const std::string& name, const char* where) noexcept;

// The framework's boundary: calls `work`, code of a module or a task, and reports what it throws.
// False when it threw.
template <typename Work>
bool CallGuarded(const char* kind, const std::string& name, const char* where, const Work& work) noexcept {
    try {
        work();
        return true;
    } catch (...) {
        ReportException(kind, name, where);
    }
    return false;
}

} // namespace Framework
