#include "sdk/PathUtils.h"

#include <cstdlib>
#include <optional>

#include "sdk/RwLock.h"

namespace SDK {

namespace {

constexpr const char* DEFAULT_ROOT = "/usr/local/corvalent/";
constexpr const char* ROOT_VARIABLE = "CORVALENT_ROOT";

struct Root {
    RwLock lock;
    std::optional<std::string> path GUARDED_BY(lock);
};

// Never destroyed: threads that outlive main may still ask for the root.
Root& GetRoot() {
    static Root* const root = new Root;
    return *root;
}

std::string WithTrailingSlash(std::string path) {
    if (!path.empty() && path.back() != '/') {
        path += '/';
    }
    return path;
}

} // namespace

std::string PathUtils::GetInstallationPath() {
    {
        Root& root = GetRoot();
        const ReadGuard guard(root.lock);
        if (root.path) {
            return *root.path;
        }
    }
    const char* fromEnvironment = std::getenv(ROOT_VARIABLE);
    if (fromEnvironment != nullptr && *fromEnvironment != '\0') {
        return WithTrailingSlash(fromEnvironment);
    }
    return DEFAULT_ROOT;
}

void PathUtils::SetInstallationPath(const std::string& root) {
    Root& current = GetRoot();
    const WriteGuard guard(current.lock);
    current.path = WithTrailingSlash(root);
}

std::string PathUtils::GetFileNameFromPath(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

} // namespace SDK
