#pragma once

#include <string>

namespace SDK {

// Paths are bytes; nothing here interprets their encoding.
class PathUtils {
public:
    // The root of the agent's own tree, with a trailing "/". It is what SetInstallationPath was
    // given, else the environment's CORVALENT_ROOT, else "/usr/local/corvalent/". Empty only when
    // SetInstallationPath was given an empty text.
    static std::string GetInstallationPath();

    // Moves the root; a missing trailing "/" is added. Thread-safe, but meant for start-up: paths
    // that were built from the old root stay as they are.
    static void SetInstallationPath(const std::string& root);

    // The text behind the last "/", the whole text if there is none. Lexical only.
    static std::string GetFileNameFromPath(const std::string& path);
};

} // namespace SDK
