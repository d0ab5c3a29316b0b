#include "RegistrationJournal.h"

#include <dlfcn.h>

#include "framework/Module.h"

namespace ShellTest {

namespace {

void Note(const std::string& entry) {
    RegistrationJournal().push_back(entry);
}

// Calls the library's own operation, by the name under which the linker knows it. A member function
// takes its object as the first argument.
template <typename Result, typename... Args> Result CallOriginal(const char* symbol, Args... args) {
    return reinterpret_cast<Result (*)(Args...)>(dlsym(RTLD_NEXT, symbol))(args...);
}

} // namespace

std::vector<std::string>& RegistrationJournal() {
    static std::vector<std::string> entries;
    return entries;
}

} // namespace ShellTest

namespace Framework {

using ShellTest::CallOriginal;
using ShellTest::Note;

int Module::Init() {
    Note("Init");
    return CallOriginal<int>("_ZN9Framework6Module4InitEv", this);
}

int Module::UnInit() {
    Note("UnInit");
    return CallOriginal<int>("_ZN9Framework6Module6UnInitEv", this);
}

bool Module::RegisterTask(Task* task, bool startNow) {
    Note("RegisterTask " + task->name() + (startNow ? " now" : " later"));
    return CallOriginal<bool>("_ZN9Framework6Module12RegisterTaskEPNS_4TaskEb", this, task, startNow);
}

void Module::RegisterTaskletCallback(const std::string& key, AbstractTaskletCallback* callback) {
    Note("RegisterTasklet " + key);
    CallOriginal<void>("_ZN9Framework6Module23RegisterTaskletCallbackERKNSt7__cxx1112basic_stringIcSt11char_traitsIc"
                       "ESaIcEEEPNS_23AbstractTaskletCallbackE",
                       this, &key, callback);
}

void Module::RegisterPolicyCallback(const std::string& key, AbstractPolicyCallback* callback) {
    Note("RegisterPolicy " + key);
    CallOriginal<void>("_ZN9Framework6Module22RegisterPolicyCallbackERKNSt7__cxx1112basic_stringIcSt11char_traitsIcE"
                       "SaIcEEEPNS_22AbstractPolicyCallbackE",
                       this, &key, callback);
}

void Module::UnRegisterTaskletCallback(const std::string& key) {
    Note("UnRegisterTasklet " + key);
    CallOriginal<void>("_ZN9Framework6Module25UnRegisterTaskletCallbackERKNSt7__cxx1112basic_stringIcSt11char_traits"
                       "IcESaIcEEE",
                       this, &key);
}

void Module::UnRegisterPolicyCallback(const std::string& key) {
    Note("UnRegisterPolicy " + key);
    CallOriginal<void>("_ZN9Framework6Module24UnRegisterPolicyCallbackERKNSt7__cxx1112basic_stringIcSt11char_traitsI"
                       "cESaIcEEE",
                       this, &key);
}

} // namespace Framework
