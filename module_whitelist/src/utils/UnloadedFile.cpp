#include "utils/UnloadedFile.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "sdk/FileUtils.h"
#include "utils/Constants.h"

namespace utils::unloaded_file {

std::string ExplainList(const std::string& path) {
    std::string text;
    const int error = SDK::FileUtils::ReadFile(path, text, Engine::MAX_FILE_BYTES);
    if (error == ENOENT || (error == 0 && text.empty())) {
        return "";
    }
    if (error == EFBIG) {
        return "it is larger than the " + std::to_string(Engine::MAX_FILE_BYTES) + " bytes that are read";
    }
    return error == 0 ? "it is damaged, no list document" : std::strerror(error);
}

std::string Keep(const std::string& path) {
    const std::string name = path + ".unloaded";
    const int error = SDK::FileUtils::KeepAs(path, name);
    return error == 0 ? "the file is kept as [" + name + "]"
                      : "the file cannot be kept as [" + name + "]: " + std::strerror(error);
}

} // namespace utils::unloaded_file
