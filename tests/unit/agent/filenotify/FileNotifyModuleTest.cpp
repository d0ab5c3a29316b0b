#include "agent/filenotify/FileNotifyModule.h"

#include "unit/agent/filenotify/FileNotifyTest.h"

using namespace TestSupport;
using Engine::FileNotifyInspector;
using Engine::FileNotifyModule;
using Engine::FileNotifyTask;

namespace {

Json::Value Query(const std::string& name) {
    Json::Value request(Json::objectValue);
    request["query"] = name;
    return FileNotifyInspector().Ask(request);
}

Json::Value Answer(const std::string& key, const Json::Value& value) {
    Json::Value answer(Json::objectValue);
    answer[key] = value;
    return answer;
}

class FileNotifyInspectorTest : public FileNotifyTest {};

} // namespace

TEST(FileNotifyModule, InitStartsTheTaskAndUnInitEndsIt) {
    const Framework::Engine engine;
    Poco::AutoPtr<FileNotifyModule> module(new FileNotifyModule);
    EXPECT_STREQ(module->name(), "filenotify");
    ASSERT_EQ(module->Init(), 0);
    EXPECT_TRUE(Framework::Engine::FindTask("filenotify_task"));
    EXPECT_TRUE(ListGroups().empty());
    EXPECT_EQ(module->UnInit(), 0);
    EXPECT_FALSE(Framework::Engine::FindTask("filenotify_task"));
}

TEST_F(FileNotifyInspectorTest, StatusNamesTheWatchersAndTheirMarks) {
    EXPECT_EQ(Query("status"), Answer("watchers", ListOf({})));
    StartWatcher();
    Watch(MakeFolder("a"));
    Watch(*mMount / "missing");
    EXPECT_EQ(Query("status"), Answer("watchers", ListOf({Described(WATCHER, 1, 1)})));
}

TEST_F(FileNotifyInspectorTest, WithoutTheTaskThereAreNoWatchers) {
    ASSERT_TRUE(mNotifyHolder.End());
    EXPECT_EQ(Query("status"), Answer("watchers", ListOf({})));
}

TEST_F(FileNotifyInspectorTest, AnUnknownQueryIsAnError) {
    EXPECT_EQ(Query("marks"), Answer("error", "unknown query [marks]"));
    EXPECT_EQ(FileNotifyInspector().Ask(Json::Value(Json::objectValue)), Answer("error", "unknown query []"));
    EXPECT_EQ(FileNotifyInspector().Ask(Json::Value("status")), Answer("error", "unknown query []"));
}
