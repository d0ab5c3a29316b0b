#include <filesystem>

#include <sys/stat.h>

#include "TrustEngineTest.h"

namespace EngineTest {

namespace {

class TrustStoresTest : public TrustEngineTest {
protected:
    // A program that a list may hold: it exists, so its entry survives a round trip.
    std::string Tool(const std::string& name, const std::string& content = "content") const {
        return root.Write("tools/" + name, content);
    }
    std::string EntryOf(const std::string& path, int type = 1) const {
        const std::string content = TestSupport::TempDir::ReadText(path);
        return Entry(path, Digest(content), static_cast<std::int64_t>(content.size()), type);
    }
    void MakeUnwritable(const std::string& file) const {
        std::filesystem::remove_all(root / file);
        std::filesystem::create_directories(root / file + "/in the way");
    }
    void TellOfRunning(int pid, const std::string& path) {
        auto processes = agent.Processes().GetProcsMap();
        processes[pid].pid = pid;
        processes[pid].path = path;
        agent.Processes().Set(processes);
    }

    static constexpr const char* LOCAL = "conf/whitelist.data";
    static constexpr const char* SERVER = "conf/arsserverproc.data";
};

} // namespace

// ---- Init and Deinit -------------------------------------------------------------------------------

TEST(TrustStoresInitTest, WithoutATaskItIsRefusedAndNothingIsCreated) {
    const TestSupport::TempRoot root;
    EXPECT_FALSE(ProcessManager::Instance()->Init(nullptr));
    EXPECT_EQ(root.Read("conf/whitelist.data"), "<missing>");
    EXPECT_EQ(root.Read("conf/arsserverproc.data"), "<missing>");
}

TEST_F(TrustStoresTest, ANullTaskDoesNotTakeThePlaceOfTheOneBefore) {
    EXPECT_FALSE(engine.Init(nullptr));
    engine.SendModRunErrorMessage("still there");
    EXPECT_EQ(agent.Reports().Of("whitelist_5").size(), 1U);
}

TEST(TrustStoresInitTest, WithoutAnInstallationPathItIsRefusedButTheTaskIsKept) {
    TestSupport::AgentAround agent;
    SDK::PathUtils::SetInstallationPath("");
    const Poco::AutoPtr<Framework::Task> reporter(new TestSupport::IdleTask("reporter"));
    EXPECT_FALSE(ProcessManager::Instance()->Init(const_cast<Framework::Task*>(reporter.get())));
    ProcessManager::Instance()->SendModRunErrorMessage("sent");
    EXPECT_EQ(agent.Reports().Of("whitelist_5").size(), 1U);
    ProcessManager::Instance()->ForgetTask(reporter.get());
}

TEST_F(TrustStoresTest, TheFirstInitCreatesBothTrustFilesEmptyAndNoPresetFile) {
    EXPECT_EQ(root.Read(LOCAL), "");
    EXPECT_EQ(root.Read(SERVER), "");
    EXPECT_EQ(root.Read("conf/osPresetProcess.dat"), "<missing>");
    EXPECT_EQ(root.Read("conf/servicePresetProcess.dat"), "<missing>");
}

TEST_F(TrustStoresTest, AnotherInitLeavesTheFilesAlone) {
    root.Write(LOCAL, "local");
    root.Write(SERVER, "server");
    EXPECT_TRUE(engine.Init(static_cast<Framework::Task*>(reporter.get())));
    EXPECT_EQ(root.Read(LOCAL), "local");
    EXPECT_EQ(root.Read(SERVER), "server");
}

TEST_F(TrustStoresTest, AForgottenTaskSendsNothingMore) {
    engine.ForgetTask(nullptr);
    engine.SendModRunErrorMessage("one");
    engine.ForgetTask(reporter.get());
    engine.SendModRunErrorMessage("two");
    EXPECT_EQ(agent.Reports().Of("whitelist_5"), std::vector<std::string>{R"({"runerr":"one"})"});
}

TEST_F(TrustStoresTest, EventsAfterDeinitDoNoHarm) {
    Configure(Engine::MOD_DETECT, true);
    engine.Deinit();
    engine.Deinit();
    EXPECT_TRUE(engine.OnProcessNotify(3, 1, 0));
    EXPECT_TRUE(engine.Init(static_cast<Framework::Task*>(reporter.get())));
}

// ---- Onstart and Onstop ----------------------------------------------------------------------------

TEST_F(TrustStoresTest, AFirstStartFindsEmptyFilesAndEmptyLists) {
    EXPECT_TRUE(engine.Onstart());
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "InitLocalProcessFromFile read file error"), 1);
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "parse json of sync service trust process failed"), 1);
    EXPECT_EQ(log.CountAt(Message::PRIO_ERROR), 2);
    EXPECT_EQ(engine.CountLocalTrust(), 0U);
    EXPECT_EQ(engine.CountServerTrust(), 0U);
    EXPECT_EQ(engine.CountOsPreset() + engine.CountServicePreset(), 0U);
}

TEST_F(TrustStoresTest, AStartReplacesWhatIsInMemoryByWhatIsOnDisk) {
    const std::string stored = Tool("stored");
    ASSERT_TRUE(ParseLocal(List({EntryOf(Tool("forgotten"))})));
    SyncServer(List({EntryOf(Tool("forgotten too"))}));
    root.Write(LOCAL, List({EntryOf(stored)}));
    root.Write(SERVER, List({EntryOf(stored), EntryOf(stored)}));
    root.Write("conf/osPresetProcess.dat", List({PresetEntry("os")}));
    root.Write("conf/servicePresetProcess.dat", List({PresetEntry("s1"), PresetEntry("s2")}));
    EXPECT_TRUE(engine.Onstart());
    EXPECT_EQ(engine.CopyLocalTrust().size(), 1U);
    EXPECT_EQ(engine.CopyLocalTrust().count(stored), 1U);
    EXPECT_EQ(engine.CopyServerTrust().size(), 1U);
    EXPECT_EQ(engine.CopyServerTrust().at("stored").size(), 2U);
    EXPECT_EQ(engine.CopyOsPreset().count("os"), 1U);
    EXPECT_EQ(engine.CountServicePreset(), 2U);
    EXPECT_EQ(CountUpTo(Message::PRIO_ERROR), 0);
}

TEST_F(TrustStoresTest, ListsWhoseFilesAreUnusableAreEmptyAfterAStart) {
    ASSERT_TRUE(ParseLocal(List({EntryOf(Tool("a"))})));
    SyncServer(List({EntryOf(Tool("b"))}));
    root.Write(LOCAL, "no list");
    MakeUnwritable(SERVER);
    EXPECT_TRUE(engine.Onstart());
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "ParseProcData failed."), 1);
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "InitServerProcessFromFile read file failed"), 1);
    EXPECT_EQ(engine.CountLocalTrust(), 0U);
    EXPECT_EQ(engine.CountServerTrust(), 0U);
}

TEST_F(TrustStoresTest, OfALocalFileThatIsDamagedInTheMiddleNoEntryIsLoaded) {
    root.Write(LOCAL, List({EntryOf(Tool("before")), R"({"name": damaged})"}));
    engine.Onstart();
    EXPECT_EQ(engine.CountLocalTrust(), 0U);
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "ParseProcData failed."), 1);
}

TEST_F(TrustStoresTest, APresetListWithoutAFileStaysAsItIs) {
    ASSERT_TRUE(SyncPreset(OS_PRESET, List({PresetEntry("os")})));
    ASSERT_TRUE(SyncPreset(SERVICE_PRESET, List({PresetEntry("service")})));
    std::filesystem::remove(root / "conf/osPresetProcess.dat");
    std::filesystem::remove(root / "conf/servicePresetProcess.dat");
    engine.Onstart();
    EXPECT_EQ(engine.CopyOsPreset().count("os"), 1U);
    EXPECT_EQ(engine.CopyServicePreset().count("service"), 1U);
}

TEST_F(TrustStoresTest, AStartLoadsLocalServerServicePresetOsPresetAndLooksAtProcessesInThisOrder) {
    root.Write("conf/osPresetProcess.dat", "");
    root.Write("conf/servicePresetProcess.dat", "");
    engine.Onstart();
    std::vector<std::string> texts;
    for (const auto& record : log.Records()) {
        if (record.priority == Message::PRIO_ERROR || record.text.find("ProcsMap") == 0) {
            texts.push_back(record.text);
        }
    }
    EXPECT_EQ(texts,
              (std::vector<std::string>{
                  "InitLocalProcessFromFile read file error", "parse json of sync service trust process failed",
                  "Read file [" + root / "conf/servicePresetProcess.dat" + "] failed or empty",
                  "Read file [" + root / "conf/osPresetProcess.dat" + "] failed or empty", "ProcsMap size [0]"}));
}

TEST_F(TrustStoresTest, AStartFindsTheInterpreters) {
    EXPECT_TRUE(engine.GetInterpreterNames().empty());
    engine.Onstart();
    EXPECT_EQ(engine.GetInterpreterNames().back(), "python");
}

TEST_F(TrustStoresTest, RightAfterAStartInLearningModeThereIsNothingToPersist) {
    const std::string text = List({EntryOf(Tool("stored"))});
    Configure(Engine::MOD_LEARN);
    root.Write(LOCAL, text);
    TellOfRunning(77, Tool("running"));
    engine.Onstart();
    EXPECT_EQ(engine.CountLocalTrust(), 2U);
    EXPECT_TRUE(engine.HandleLearnProcessData());
    EXPECT_EQ(log.Count(Message::PRIO_DEBUG, "no need to persistence"), 1);
    EXPECT_EQ(root.Read(LOCAL), text);
}

TEST_F(TrustStoresTest, AStartInAnotherModeDoesNotTouchTheCountOfWhatWasPersisted) {
    const std::string path = Tool("stored");
    Configure(Engine::MOD_DETECT);
    root.Write(LOCAL, "  " + List({EntryOf(path)}));
    engine.Onstart();
    EXPECT_TRUE(engine.HandleLearnProcessData());
    EXPECT_EQ(log.Count(Message::PRIO_DEBUG, "no need to persistence"), 0);
    EXPECT_EQ(root.Read(LOCAL), List({EntryOf(path)}));
}

TEST_F(TrustStoresTest, AStopInLearningModePersistsWhatWasLearned) {
    const std::string path = Tool("learned");
    Configure(Engine::MOD_LEARN);
    engine.UpdateLocalProcessInfo(Record(path, DigestOfFile(path)));
    engine.Onstop();
    EXPECT_EQ(root.Read(LOCAL), List({EntryOf(path)}));
}

TEST_F(TrustStoresTest, AStopInAnyOtherModePersistsNothing) {
    const std::string path = Tool("learned");
    engine.UpdateLocalProcessInfo(Record(path, DigestOfFile(path)));
    for (const std::int64_t mode : {Engine::MOD_NONE, Engine::MOD_LEARNED, Engine::MOD_DETECT}) {
        Configure(mode);
        engine.Onstop();
        EXPECT_EQ(root.Read(LOCAL), "") << mode;
    }
}

// ---- Local list ------------------------------------------------------------------------------------

TEST_F(TrustStoresTest, ALocalFileThatCannotBeReadOrIsEmptyIsRefused) {
    EXPECT_FALSE(engine.InitLocalProcessFromFile());
    std::filesystem::remove(root / LOCAL);
    EXPECT_FALSE(engine.InitLocalProcessFromFile());
    MakeUnwritable(LOCAL);
    EXPECT_FALSE(engine.InitLocalProcessFromFile());
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "InitLocalProcessFromFile read file error"), 3);
    EXPECT_EQ(log.Records().size(), 3U);
}

TEST_F(TrustStoresTest, ALocalFileIsReadUpToTheLimit) {
    const std::string list = List({EntryOf(Tool("a"))});
    root.Write(LOCAL, list + std::string(LIMIT_BYTES - list.size(), ' '));
    EXPECT_TRUE(engine.InitLocalProcessFromFile());
    root.Write(LOCAL, list + std::string(LIMIT_BYTES + 1 - list.size(), ' '));
    EXPECT_FALSE(engine.InitLocalProcessFromFile());
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "InitLocalProcessFromFile read file error"), 1);
}

TEST_F(TrustStoresTest, TheLocalFilesEntriesAreAddedAndTheFirstOfAPathStays) {
    ASSERT_TRUE(ParseLocal(List({Entry("/a", "first", 1)})));
    root.Write(LOCAL, List({Entry("/a", "second", 1), Entry("/b", "third", 7, 2), Entry("/b", "fourth", 1)}));
    EXPECT_TRUE(engine.InitLocalProcessFromFile());
    const auto local = engine.CopyLocalTrust();
    EXPECT_EQ(local.size(), 2U);
    EXPECT_EQ(local.at("/a").hash, "first");
    EXPECT_EQ(local.at("/b").hash, "third");
    EXPECT_EQ(local.at("/b").type, 2);
    EXPECT_EQ(local.at("/b").size, 7);
}

TEST_F(TrustStoresTest, ALocalDocumentIsLoggedAndWhatIsNoListIsRefused) {
    for (const std::string text :
         {"", "no json", "7", "[]", "{}", R"({"process_info":{}})", R"({"process_info":"x"})"}) {
        log.Clear();
        EXPECT_FALSE(ParseLocal(text)) << text;
        EXPECT_EQ(log.Count(Message::PRIO_DEBUG, "Process Info json is [" + text + "]"), 1) << text;
        EXPECT_EQ(log.Count(Message::PRIO_ERROR, "ParseProcData failed."), 1) << text;
        EXPECT_EQ(log.Records().size(), 2U) << text;
    }
}

TEST_F(TrustStoresTest, IncompleteLocalEntriesAreSkippedWithoutAWord) {
    const std::string text =
        List({"7", "null", R"({"path":"/a"})", Entry("/b", "", 1), Entry("/c", "hash", 0), Entry("/d", "hash", 1)});
    EXPECT_TRUE(ParseLocal(text));
    EXPECT_EQ(engine.CountLocalTrust(), 1U);
    EXPECT_EQ(engine.CopyLocalTrust().count("/d"), 1U);
    EXPECT_EQ(log.Records().size(), 1U);
}

TEST_F(TrustStoresTest, OnlyTheGivenLengthOfALocalDocumentCounts) {
    const std::string text = List({Entry("/a", "hash", 1)});
    const std::string longer = text + " and more";
    EXPECT_TRUE(engine.ParseJsonProcessInfo(longer.data(), text.size()));
    EXPECT_EQ(log.Count(Message::PRIO_DEBUG, "Process Info json is [" + text + "]"), 1);
    EXPECT_FALSE(engine.ParseJsonProcessInfo(longer.data(), longer.size()));
}

TEST_F(TrustStoresTest, TheLocalFileHoldsTheEntriesByAscendingPath) {
    const std::string b = Tool("b", "content of b");
    const std::string a = Tool("a", "content of a, longer");
    const std::string script = Tool("a.sh", "exit\n");
    engine.UpdateLocalProcessInfo(Record(b, DigestOfFile(b)));
    engine.UpdateLocalProcessInfo(Record(script, DigestOfFile(script), 2));
    engine.UpdateLocalProcessInfo(Record(a, DigestOfFile(a)));
    engine.UpdateLocalProcessInfo(Record("/vanished", "hash", 0));
    EXPECT_TRUE(engine.PersistencyLocalProcess());
    EXPECT_EQ(root.Read(LOCAL), List({EntryOf(a), EntryOf(script, 2), EntryOf(b), Entry("/vanished", "hash", 0, 0)}));
    EXPECT_TRUE(agent.Reports().Reports().empty());
}

TEST_F(TrustStoresTest, AnEmptyLocalListIsWrittenAsAnEmptyArray) {
    EXPECT_TRUE(engine.PersistencyLocalProcess());
    EXPECT_EQ(root.Read(LOCAL), R"({"process_info":[]})");
}

TEST_F(TrustStoresTest, WhatWasWrittenIsReadAgainWithoutVanishedFiles) {
    const std::string path = Tool("a");
    engine.UpdateLocalProcessInfo(Record(path, DigestOfFile(path), 0));
    engine.UpdateLocalProcessInfo(Record("/vanished", "hash"));
    ASSERT_TRUE(engine.PersistencyLocalProcess());
    engine.Onstart();
    ASSERT_EQ(engine.CountLocalTrust(), 1U);
    EXPECT_EQ(engine.CopyLocalTrust().at(path).type, 1);
    EXPECT_EQ(engine.CopyLocalTrust().at(path).size, 7);
}

TEST_F(TrustStoresTest, InDirectoryModeTheWholeListIsSentBeforeItIsWritten) {
    Configure(Engine::MOD_DETECT, true);
    const std::string path = Tool("a");
    engine.UpdateLocalProcessInfo(Record(path, DigestOfFile(path)));
    EXPECT_TRUE(engine.PersistencyLocalProcess());
    EXPECT_EQ(agent.Reports().Of("whitelist_2"), std::vector<std::string>{List({EntryOf(path)})});
    EXPECT_EQ(root.Read(LOCAL), List({EntryOf(path)}));

    MakeUnwritable(LOCAL);
    EXPECT_FALSE(engine.PersistencyLocalProcess());
    EXPECT_EQ(agent.Reports().Reports().size(), 2U);
}

TEST_F(TrustStoresTest, ALocalListThatWasNeverLoadedDoesNotReplaceOneOnDisk) {
    root.Write(LOCAL, List({EntryOf(Tool("a"))}));
    const std::string before = root.Read(LOCAL);
    engine.UpdateLocalProcessInfo(Record(Tool("b"), "hash"));
    EXPECT_FALSE(engine.PersistencyLocalProcess());
    EXPECT_EQ(root.Read(LOCAL), before);
    ASSERT_TRUE(engine.InitLocalProcessFromFile());
    EXPECT_TRUE(engine.PersistencyLocalProcess());
    EXPECT_NE(root.Read(LOCAL), before);
}

TEST_F(TrustStoresTest, LearnedDataIsPersistedWhenItsCountChanged) {
    EXPECT_TRUE(engine.HandleLearnProcessData());
    EXPECT_EQ(log.Count(Message::PRIO_DEBUG, "no need to persistence"), 1);
    EXPECT_EQ(root.Read(LOCAL), "");

    const std::string a = Tool("a");
    engine.UpdateLocalProcessInfo(Record(a, DigestOfFile(a)));
    EXPECT_TRUE(engine.HandleLearnProcessData());
    EXPECT_EQ(root.Read(LOCAL), List({EntryOf(a)}));
    EXPECT_EQ(log.Count(Message::PRIO_DEBUG, "no need to persistence"), 1);

    root.Write(LOCAL, "untouched");
    EXPECT_TRUE(engine.HandleLearnProcessData());
    EXPECT_EQ(log.Count(Message::PRIO_DEBUG, "no need to persistence"), 2);
    EXPECT_EQ(root.Read(LOCAL), "untouched");
}

TEST_F(TrustStoresTest, LearnedDataThatCouldNotBeWrittenIsTriedAgain) {
    const std::string a = Tool("a");
    engine.UpdateLocalProcessInfo(Record(a, DigestOfFile(a)));
    MakeUnwritable(LOCAL);
    EXPECT_TRUE(engine.HandleLearnProcessData());
    std::filesystem::remove_all(root / LOCAL);
    EXPECT_TRUE(engine.HandleLearnProcessData());
    EXPECT_EQ(root.Read(LOCAL), List({EntryOf(a)}));
}

// ---- Server list -----------------------------------------------------------------------------------

TEST_F(TrustStoresTest, TheServerListIsGroupedByNameInTheDocumentsOrder) {
    SyncServer(List({Entry("/z/x", "h1", 1), Entry("/y", "h2", 1), Entry("/a/x", "h3", 1, 2), Entry("/z/x", "h1", 1),
                     R"({"name":"x"})", "5"}));
    const auto server = engine.CopyServerTrust();
    ASSERT_EQ(server.size(), 2U);
    ASSERT_EQ(server.at("x").size(), 3U);
    EXPECT_EQ(server.at("x")[0].path, "/z/x");
    EXPECT_EQ(server.at("x")[1].path, "/a/x");
    EXPECT_EQ(server.at("x")[1].type, 2);
    EXPECT_EQ(server.at("x")[2].path, "/z/x");
    EXPECT_EQ(engine.CountServerTrust(), 4U);
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(TrustStoresTest, AServerListReplacesTheOneBeforeAndIsNotWritten) {
    root.Write(SERVER, List({Entry("/on/disk", "h", 1)}));
    SyncServer(List({Entry("/a", "h", 1)}));
    SyncServer(List({Entry("/b", "h", 1)}));
    EXPECT_EQ(engine.CopyServerTrust().size(), 1U);
    EXPECT_EQ(engine.CopyServerTrust().count("b"), 1U);
    EXPECT_EQ(root.Read(SERVER), List({Entry("/on/disk", "h", 1)}));
    engine.Onstart();
    EXPECT_EQ(engine.CopyServerTrust().count("disk"), 1U);
}

TEST_F(TrustStoresTest, AnUnparsableServerListChangesNothing) {
    SyncServer(List({Entry("/a", "h", 1)}));
    SyncServer("{");
    SyncServer("");
    engine.SyncServerTrustProcess(nullptr, 0);
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "parse json of sync service trust process failed"), 3);
    EXPECT_EQ(log.Records().size(), 3U);
    EXPECT_EQ(engine.CountServerTrust(), 1U);
}

TEST_F(TrustStoresTest, AServerListOfAnotherShapeEmptiesTheList) {
    for (const std::string text : {R"({"process_info": {}})", "{}", "[]", R"({"process_info": null})"}) {
        SyncServer(List({Entry("/a", "h", 1)}));
        ASSERT_EQ(engine.CountServerTrust(), 1U);
        log.Clear();
        SyncServer(text);
        EXPECT_EQ(log.Count(Message::PRIO_ERROR, "sync service trust process json is no expect"), 1) << text;
        EXPECT_EQ(log.Records().size(), 1U) << text;
        EXPECT_EQ(engine.CountServerTrust(), 0U) << text;
    }
}

TEST_F(TrustStoresTest, AnEmptyServerListEmptiesTheListWithoutAWord) {
    SyncServer(List({Entry("/a", "h", 1)}));
    SyncServer(List({}));
    EXPECT_EQ(engine.CountServerTrust(), 0U);
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(TrustStoresTest, OnlyTheGivenLengthOfAServerListCounts) {
    const std::string text = List({Entry("/a", "h", 1)});
    const std::string longer = text + "}";
    engine.SyncServerTrustProcess(longer.data(), text.size());
    EXPECT_EQ(engine.CountServerTrust(), 1U);
}

TEST_F(TrustStoresTest, TheServerFileIsLoadedWhateverItHolds) {
    root.Write(SERVER, List({Entry("/a", "h", 1)}));
    EXPECT_TRUE(engine.InitServerProcessFromFile());
    EXPECT_EQ(engine.CountServerTrust(), 1U);
    root.Write(SERVER, "broken");
    EXPECT_TRUE(engine.InitServerProcessFromFile());
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "parse json of sync service trust process failed"), 1);
    EXPECT_EQ(engine.CountServerTrust(), 1U);
}

TEST_F(TrustStoresTest, AServerFileThatCannotBeReadOrIsTooLargeIsRefused) {
    SyncServer(List({Entry("/a", "h", 1)}));
    std::filesystem::remove(root / SERVER);
    EXPECT_FALSE(engine.InitServerProcessFromFile());
    root.Write(SERVER, List({}) + std::string(LIMIT_BYTES, ' '));
    EXPECT_FALSE(engine.InitServerProcessFromFile());
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "InitServerProcessFromFile read file failed"), 2);
    EXPECT_EQ(log.Records().size(), 2U);
    EXPECT_EQ(engine.CountServerTrust(), 1U);
}

TEST_F(TrustStoresTest, AServerListIsPersistedByteForByte) {
    const std::string text("{\"process_info\": [ \n\0] }\n and more", 33);
    EXPECT_TRUE(engine.PersistencyServerProcess(text.data(), 26));
    EXPECT_EQ(root.Read(SERVER), text.substr(0, 26));
    EXPECT_EQ(engine.CountServerTrust(), 0U);
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(TrustStoresTest, AServerListThatCannotBePersistedIsAnError) {
    MakeUnwritable(SERVER);
    EXPECT_FALSE(engine.PersistencyServerProcess("{}", 2));
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "Persistency Server Process Failed"), 1);
}

// ---- Policy array ----------------------------------------------------------------------------------

TEST_F(TrustStoresTest, APolicyArrayIsReadByNameAndTheFirstStays) {
    std::map<std::string, ProcessInfo> byName;
    const Json::Value policy = Parse(R"({"list":[)" + Entry("/1/a", "h1", 1) + "," + Entry("/b", "h2", 0) + "," +
                                     Entry("/2/a", "h3", 1) + "," + Entry("/c", "h4", 1) + "]}");
    EXPECT_TRUE(engine.ParseProcessArrayPolicy(policy, "list", byName));
    ASSERT_EQ(byName.size(), 2U);
    EXPECT_EQ(byName["a"].path, "/1/a");
    EXPECT_EQ(byName["c"].hash, "h4");
    EXPECT_EQ(log.CountAt(Message::PRIO_ERROR), 1);
    EXPECT_EQ(log.Records().at(0).text.find("Confilct Trust Process Name "), 0U);
}

TEST_F(TrustStoresTest, APolicyWithoutTheArrayIsRefused) {
    std::map<std::string, ProcessInfo> byName;
    EXPECT_FALSE(engine.ParseProcessArrayPolicy(Parse(R"({"list":{}})"), "list", byName));
    EXPECT_FALSE(engine.ParseProcessArrayPolicy(Parse(R"({"other":[]})"), "list", byName));
    EXPECT_FALSE(engine.ParseProcessArrayPolicy(Parse("[]"), "list", byName));
    EXPECT_TRUE(engine.ParseProcessArrayPolicy(Parse(R"({"list":[]})"), "list", byName));
    EXPECT_TRUE(byName.empty());
    EXPECT_TRUE(log.Records().empty());
}

} // namespace EngineTest
