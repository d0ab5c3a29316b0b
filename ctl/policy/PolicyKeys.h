#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace Ctl {

enum class ValueType { OBJECT, STRING, BOOLEAN, INTEGER, STRINGS };

// What the agent judges: every start of a program, or accesses to files in configured directories
// ("dir_mod").
enum class PolicyMode { ANY, GLOBAL, DIRECTORY };

// One key of the feature policy. The table of them is what the check, the starting point and the
// reference are made from.
struct PolicyKey {
    std::string pointer; // RFC 6901
    ValueType type;
    PolicyMode mode;      // in which it is read
    std::string fallback; // what counts when it is absent or unusable, as JSON; empty for nothing
    std::string initial;  // its value in a starting point, as JSON; empty for an object made of its keys
    std::string allowed;  // for people; empty for every value of the type
    std::string meaning;
    std::int64_t min = std::numeric_limits<std::int32_t>::min(); // of an integer
    std::int64_t max = std::numeric_limits<std::int32_t>::max();
};

// In the order in which people read them; an object stands before its keys.
const std::vector<PolicyKey>& GetPolicyKeys();

// Null when there is no such key.
const PolicyKey* FindPolicyKey(const std::string& pointer);

// The keys right below the object, "" for the document.
std::vector<const PolicyKey*> GetKeysOf(const std::string& objectPointer);

// The last word of a pointer.
std::string GetLeaf(const std::string& pointer);

// "integer", "array of strings".
const char* NameOf(ValueType type);

} // namespace Ctl
