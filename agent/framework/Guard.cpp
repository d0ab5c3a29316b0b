#include "agent/framework/Guard.h"

#include <cerrno>
#include <exception>
#include <new>

#include <Poco/Exception.h>

#include "framework/Counters.h"
#include "sdk/ModuleLog.h"
#include "sdk/Shortage.h"

namespace Framework {

static SDK::ModuleLog moduleLog("framework");

namespace {

// Of the exception that is being handled.
std::string Describe() {
    try {
        throw;
    } catch (const Poco::Exception& error) {
        return error.displayText();
    } catch (const std::bad_alloc& error) {
        SDK::Shortage::Note(ENOMEM);
        return error.what();
    } catch (const std::exception& error) {
        return error.what();
    } catch (...) {
        return "of an unknown type";
    }
}

} // namespace

void ReportException(const char* kind, const std::string& name, const char* where) noexcept {
    try {
        const std::string what = Describe();
        Counters::Of(std::string(kind) + ".exceptions").Add();
        moduleLog.Error("%s [%s]: exception in %s: %s", kind, name, where, what);
    } catch (...) {
        // There is no memory to tell it with.
        SDK::Shortage::Note(ENOMEM);
    }
}

} // namespace Framework
