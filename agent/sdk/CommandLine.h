#pragma once

#include <string>
#include <vector>

namespace SDK {

// Divides a command line into words as ExecuteCmd promises: blanks (the byte 0x20) separate words,
// single and double quotes group, a backslash outside single quotes takes the next byte as it is,
// nothing else has a meaning. Quotes that enclose nothing make an empty word; a backslash at the very
// end stands for itself.
//
// False when a quote is left open or there is no word; `words` is empty then.
bool SplitCommandLine(const std::string& command, std::vector<std::string>& words);

} // namespace SDK
