#pragma once

#include <exception>
#include <string>

#include <Poco/Exception.h>

namespace Framework {

// Logs that `kind` ("task", "module") `name` threw in its operation `where`, and counts it as
// "KIND.exceptions".
void ReportException(const std::string& kind, const std::string& name, const char* where, const std::string& what);

// The framework's boundary: calls `work`, code of a module or a task, and reports what it throws.
// False when it threw.
template <typename Work>
bool CallGuarded(const std::string& kind, const std::string& name, const char* where, const Work& work) {
    try {
        work();
        return true;
    } catch (const Poco::Exception& error) {
        ReportException(kind, name, where, error.displayText());
    } catch (const std::exception& error) {
        ReportException(kind, name, where, error.what());
    } catch (...) {
        ReportException(kind, name, where, "of an unknown type");
    }
    return false;
}

} // namespace Framework
