#include "WriteJournal.h"

#include <string>

#include <dlfcn.h>

#include "ConfigManager.h"
#include "sdk/FileUtils.h"
#include "sdk/ModuleLog.h"
#include "sdk/PathUtils.h"

namespace ShellTest {

namespace {

SDK::ModuleLog journal(JOURNAL_LOGGER);

// The library's own operation, found by the name under which the linker knows it.
template <typename Function> Function* FindOriginal(const char* symbol) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, symbol));
}

} // namespace

} // namespace ShellTest

int SDK::FileUtils::WriteFile(const std::string& path, const char* data, std::size_t length, bool append) {
    ShellTest::journal.Notice("write %s: %s, mode %?d", PathUtils::GetFileNameFromPath(path), std::string(data, length),
                              Engine::ConfigManager::Instance()->GetMod());
    using Original = int(const std::string&, const char*, std::size_t, bool);
    static auto* const original = ShellTest::FindOriginal<Original>(
        "_ZN3SDK9FileUtils9WriteFileERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEPKcmb");
    return original(path, data, length, append);
}

int SDK::FileUtils::WriteFile(const std::string& path, const std::string& text, bool append) {
    return WriteFile(path, text.data(), text.size(), append);
}

int SDK::FileUtils::RemoveFile(const std::string& path) {
    ShellTest::journal.Notice("remove %s", PathUtils::GetFileNameFromPath(path));
    using Original = int(const std::string&);
    static auto* const original = ShellTest::FindOriginal<Original>(
        "_ZN3SDK9FileUtils10RemoveFileERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE");
    return original(path);
}
