// The virtual operations of the classes that meet across library boundaries, in the order of their
// slots. A library that was compiled against another order calls the wrong operation, and nothing but
// this says so: an operation that is added, moved or made virtual shows up here.
//
// The tables come from the compiler: GCC wrote them down (-fdump-lang-class) when it compiled
// VirtualSlotsProbe.cpp. A destructor has two entries.

#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <cxxabi.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using ::testing::ElementsAre;

using Slots = std::vector<std::string>;

// "non-virtual thunk to A::B::C(int)" → "A::B::C"
std::string NameBehindThunk(const std::string& mangled) {
    const std::unique_ptr<char, decltype(&std::free)> demangled(
        abi::__cxa_demangle(mangled.c_str(), nullptr, nullptr, nullptr), &std::free);
    if (!demangled) {
        return mangled;
    }
    std::string name = demangled.get();
    const std::string prefix = "non-virtual thunk to ";
    if (name.starts_with(prefix)) {
        name.erase(0, prefix.size());
    }
    return name.substr(0, name.find('('));
}

// The dump names a thunk by its class and its mangled name.
std::string ReadableName(const std::string& entry) {
    const std::size_t thunk = entry.find("_ZTh");
    return thunk == std::string::npos ? entry : NameBehindThunk(entry.substr(thunk));
}

// The virtual tables of one class: its own first, then one for each further base that has one.
std::vector<Slots> SplitTables(const std::vector<std::string>& entries) {
    std::vector<Slots> tables;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        const bool isTypeInfo = entries[i].starts_with("(& _ZTI");
        const bool isOffsetToTop = i + 1 < entries.size() && entries[i + 1].starts_with("(& _ZTI");
        if (isTypeInfo) {
            tables.emplace_back();
        } else if (!isOffsetToTop && !tables.empty()) {
            tables.back().push_back(ReadableName(entries[i]));
        }
    }
    return tables;
}

// "16    (int (*)(...))Framework::Module::name" → "Framework::Module::name"
std::string EntryOf(const std::string& line) {
    const std::string cast = "(int (*)(...))";
    const std::size_t at = line.find(cast);
    return at == std::string::npos ? line.substr(line.find_last_of(' ') + 1) : line.substr(at + cast.size());
}

// Class name → its virtual tables. In the dump a table is a heading, the table's symbol, the entries,
// and an empty line.
std::map<std::string, std::vector<Slots>> ReadDump(const std::string& path) {
    const std::string heading = "Vtable for ";
    std::map<std::string, std::vector<Slots>> classes;
    std::ifstream dump(path);
    std::string line;
    while (std::getline(dump, line)) {
        if (!line.starts_with(heading)) {
            continue;
        }
        const std::string name = line.substr(heading.size());
        std::getline(dump, line);
        std::vector<std::string> entries;
        while (std::getline(dump, line) && !line.empty()) {
            entries.push_back(EntryOf(line));
        }
        classes[name] = SplitTables(entries);
    }
    return classes;
}

class VirtualSlots : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::string(CLASS_DUMP).empty()) {
            GTEST_SKIP() << "only GCC writes down the virtual tables in the form that is read here";
        }
        mClasses = ReadDump(CLASS_DUMP);
        ASSERT_FALSE(mClasses.empty()) << "no virtual table in " << CLASS_DUMP;
    }

    // All tables of a class; none and a failure when the dump does not have it.
    std::vector<Slots> TablesOf(const std::string& name) const {
        const auto found = mClasses.find(name);
        if (found == mClasses.end()) {
            ADD_FAILURE() << "no virtual table of " << name;
            return {};
        }
        return found->second;
    }

    // The class's own table.
    Slots Of(const std::string& name) const {
        const std::vector<Slots> tables = TablesOf(name);
        return tables.empty() ? Slots{} : tables.front();
    }

    // What every task has in its own table, the operations that a class overrides being its own.
    static Slots TaskSlots(const std::string& task) {
        const std::string destructor = "Engine::" + task + "::~" + task;
        return {destructor,
                destructor,
                "Poco::Task::run",
                "Framework::Task::cancel",
                "Framework::Task::runTask",
                "Poco::Task::postNotification",
                "Engine::" + task + "::Init",
                "Engine::" + task + "::UnInit",
                "Engine::" + task + "::Run",
                "Framework::Task::EnqueueMsg",
                "Framework::Task::InterceptMsg",
                "Framework::Task::HandleMsg"};
    }

    // The table of a class, or of a base of it such as Poco's count of references, of which nothing but
    // the destructor is virtual.
    static Slots DestructorOnly(const std::string& name) {
        const std::string destructor = "Engine::" + name + "::~" + name;
        return {destructor, destructor};
    }

    // The table of the receiver base in a class that overrides nothing of it.
    static Slots IgnoringReceiver(const std::string& task) {
        const std::string destructor = "Engine::" + task + "::~" + task;
        return {"Engine::AbstractMessageReceiver::FileNotifyMessageAction",
                "Engine::AbstractMessageReceiver::ProcsMessageAction",
                "Engine::AbstractMessageReceiver::AssetMessageAction",
                "Engine::AbstractMessageReceiver::FtraceMessageAction",
                destructor,
                destructor};
    }

    static Slots TaskPolicySlots(const std::string& policy) {
        const std::string destructor = "Engine::" + policy + "::~" + policy;
        return {destructor, destructor, "Engine::" + policy + "::Parse", "Framework::TaskPolicy::Dispatch",
                "Framework::Policy::PolicyChanged"};
    }

private:
    std::map<std::string, std::vector<Slots>> mClasses;
};

TEST_F(VirtualSlots, OfTheQueue) {
    const std::string queue = "SDK::LocklessQueue<std::shared_ptr<Framework::Message> >";
    EXPECT_THAT(TablesOf(queue),
                ElementsAre(ElementsAre(queue + "::~LocklessQueue", queue + "::~LocklessQueue", queue + "::Enqueue",
                                        queue + "::EnqueueBulk", queue + "::Dequeue", queue + "::DequeueBulk")));
}

TEST_F(VirtualSlots, OfTheModuleBase) {
    EXPECT_THAT(Of("Framework::Module"),
                ElementsAre("Framework::Module::~Module", "Framework::Module::~Module", "Framework::Module::name",
                            "Framework::Module::initialize", "Framework::Module::uninitialize",
                            "Poco::Util::Subsystem::reinitialize", "Poco::Util::Subsystem::defineOptions",
                            "Framework::Module::Init", "Framework::Module::UnInit",
                            "Framework::Module::RefreshPolicy"));
}

TEST_F(VirtualSlots, OfTheWhitelistModule) {
    EXPECT_THAT(TablesOf("Engine::WhitelistModule"),
                ElementsAre(ElementsAre("Engine::WhitelistModule::~WhitelistModule",
                                        "Engine::WhitelistModule::~WhitelistModule", "Framework::Module::name",
                                        "Framework::Module::initialize", "Framework::Module::uninitialize",
                                        "Poco::Util::Subsystem::reinitialize", "Poco::Util::Subsystem::defineOptions",
                                        "Engine::WhitelistModule::Init", "Engine::WhitelistModule::UnInit",
                                        "Framework::Module::RefreshPolicy")));
}

TEST_F(VirtualSlots, OfTheTaskletCallback) {
    const std::string callback = "Framework::TaskletCallback<Engine::WhitelistModule>";
    EXPECT_THAT(TablesOf(callback),
                ElementsAre(ElementsAre(callback + "::~TaskletCallback", callback + "::~TaskletCallback",
                                        callback + "::invoke", callback + "::IsLongAction")));
}

TEST_F(VirtualSlots, OfThePolicyCallback) {
    const std::string callback = "Framework::PolicyCallback<Engine::WhitelistModule>";
    EXPECT_THAT(TablesOf(callback), ElementsAre(ElementsAre(callback + "::~PolicyCallback",
                                                            callback + "::~PolicyCallback", callback + "::invoke")));
}

TEST_F(VirtualSlots, OfTheFeaturePolicy) {
    EXPECT_THAT(
        TablesOf("Engine::WhitelistPolicy"),
        ElementsAre(ElementsAre("Engine::WhitelistPolicy::~WhitelistPolicy",
                                "Engine::WhitelistPolicy::~WhitelistPolicy", "Engine::WhitelistPolicy::Parse",
                                "Framework::FeaturePolicy::Dispatch", "Framework::FeaturePolicy::PolicyChanged")));
}

TEST_F(VirtualSlots, OfTheTaskPolicies) {
    for (const std::string policy : {"SpecifiedFileAuditTaskPolicy", "FullProcTaskPolicy", "ProcessManagerTaskPolicy",
                                     "LearnStatusCheckTaskPolicy"}) {
        EXPECT_THAT(TablesOf("Engine::" + policy), ElementsAre(TaskPolicySlots(policy)));
    }
}

TEST_F(VirtualSlots, OfTheMessageReceiver) {
    EXPECT_THAT(TablesOf("Engine::AbstractMessageReceiver"), ElementsAre(IgnoringReceiver("AbstractMessageReceiver")));
}

TEST_F(VirtualSlots, OfTheProcessManagerTask) {
    Slots own = TaskSlots("ProcessManagerTask");
    own.emplace_back("Engine::ProcessManagerTask::ProcsMessageAction");
    own.emplace_back("Engine::ProcessManagerTask::IsWhiteListProcess");

    Slots receiver = IgnoringReceiver("ProcessManagerTask");
    receiver[1] = "Engine::ProcessManagerTask::ProcsMessageAction";

    const Slots query{"Engine::ProcessManagerTask::IsWhiteListProcess",
                      "Engine::ProcessManagerTask::~ProcessManagerTask",
                      "Engine::ProcessManagerTask::~ProcessManagerTask"};

    EXPECT_THAT(TablesOf("Engine::ProcessManagerTask"),
                ElementsAre(own, DestructorOnly("ProcessManagerTask"), receiver, query));
}

TEST_F(VirtualSlots, OfTheSpecifiedFileAuditTask) {
    Slots own = TaskSlots("SpecifiedFileAuditTask");
    own.emplace_back("Engine::SpecifiedFileAuditTask::FileNotifyMessageAction");

    Slots receiver = IgnoringReceiver("SpecifiedFileAuditTask");
    receiver[0] = "Engine::SpecifiedFileAuditTask::FileNotifyMessageAction";

    EXPECT_THAT(TablesOf("Engine::SpecifiedFileAuditTask"),
                ElementsAre(own, DestructorOnly("SpecifiedFileAuditTask"), receiver));
}

TEST_F(VirtualSlots, OfTheFileAudit) {
    EXPECT_THAT(TablesOf("Engine::SpecifiedFileAudit"), ElementsAre(DestructorOnly("SpecifiedFileAudit")));
}

TEST_F(VirtualSlots, OfTheFullProcTask) {
    EXPECT_THAT(TablesOf("Engine::FullProcTask"), ElementsAre(TaskSlots("FullProcTask"), DestructorOnly("FullProcTask"),
                                                              IgnoringReceiver("FullProcTask")));
}

TEST_F(VirtualSlots, OfTheLearnStatusCheckTask) {
    EXPECT_THAT(TablesOf("Engine::LearnStatusCheckTask"),
                ElementsAre(TaskSlots("LearnStatusCheckTask"), DestructorOnly("LearnStatusCheckTask"),
                            IgnoringReceiver("LearnStatusCheckTask")));
}

} // namespace
