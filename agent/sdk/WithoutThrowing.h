#pragma once

#include <cerrno>
#include <exception>

#include "sdk/Shortage.h"

namespace SDK {

// Calls an operation whose result is 0 or an errno value and that throws nothing but the want of
// memory, which becomes ENOMEM: no exception may leave the library.
template <typename Operation> int WithoutThrowing(const Operation& operation) {
    try {
        return operation();
    } catch (const std::exception&) {
        return Shortage::Note(ENOMEM);
    }
}

} // namespace SDK
