#include <atomic>
#include <cctype>
#include <filesystem>
#include <thread>

#include <httplib.h>

#include "TrustEngineTest.h"
#include "sdk/HttpUtils.h"
#include "support/WaitFor.h"

namespace EngineTest {

namespace {

// The management server's download area: real HTTP on the loopback interface.
class ListServer {
public:
    ListServer() : mPort(mServer.bind_to_any_port("127.0.0.1")), mServing([this] { mServer.listen_after_bind(); }) {
        TestSupport::WaitFor([this] { return mServer.is_running(); });
    }
    ~ListServer() {
        mServer.stop();
        mServing.join();
    }
    ListServer(const ListServer&) = delete;
    ListServer& operator=(const ListServer&) = delete;

    std::string Url(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(mPort) + path; }
    int Requests() const { return mRequests; }

    void Offer(const std::string& path, const std::string& body) {
        mServer.Get(path, [this, body](const httplib::Request&, httplib::Response& response) {
            ++mRequests;
            response.set_content(body, "application/json");
        });
    }

    // Promises all of the body and hangs up in its middle.
    void OfferTruncated(const std::string& path, const std::string& body) {
        mServer.Get(path, [this, body](const httplib::Request&, httplib::Response& response) {
            ++mRequests;
            response.set_content_provider(body.size(), "application/json",
                                          [body](std::size_t offset, std::size_t, httplib::DataSink& sink) {
                                              return offset == 0 && sink.write(body.data(), body.size() / 2);
                                          });
        });
    }

private:
    httplib::Server mServer;
    std::atomic<int> mRequests{0};
    const int mPort;
    std::thread mServing;
};

// Everything holds for both lists alike.
class PresetListsTest : public TrustEngineTest, public testing::WithParamInterface<const char*> {
protected:
    bool IsOs() const { return std::string(GetParam()) == OS_PRESET; }
    std::string File() const { return root / "conf/" + GetParam(); }
    ProcessManager::PresetMap Loaded() const { return IsOs() ? engine.CopyOsPreset() : engine.CopyServicePreset(); }
    ProcessManager::PresetMap Other() const { return IsOs() ? engine.CopyServicePreset() : engine.CopyOsPreset(); }

    bool Sync(const std::string& command) const {
        return IsOs() ? engine.SyncOsPresetProcess(command.data(), command.size())
                      : engine.SyncServicePresetProcess(command.data(), command.size());
    }
    bool Sync(const std::string& url, const std::string& hash) const { return Sync(Command(url, hash)); }
    static std::string Command(const std::string& url, const std::string& hash) {
        return R"({"url":")" + url + R"(","hash":")" + hash + R"("})";
    }

    // A list is loaded and its file is there.
    void StartWithOldList() {
        ASSERT_TRUE(SyncPreset(GetParam(), OLD));
        log.Clear();
    }
    void ExpectOldList() const {
        EXPECT_EQ(Loaded().size(), 1U);
        EXPECT_EQ(Loaded().count("old"), 1U);
        EXPECT_EQ(TestSupport::TempDir::ReadText(File()), OLD);
    }
    // Nothing but what belongs there, so no remains of a download.
    void ExpectTidyFolder() const {
        for (const auto& entry : std::filesystem::directory_iterator(root / "conf")) {
            const std::string name = entry.path().filename();
            EXPECT_TRUE(name == "whitelist.data" || name == "arsserverproc.data" || name == GetParam()) << name;
        }
    }

    const std::string OLD = List({PresetEntry("old")});
    const std::string NEW = List({PresetEntry("new", "tool", "Debian", "12"), PresetEntry("newer")});
};

INSTANTIATE_TEST_SUITE_P(Lists, PresetListsTest, testing::Values("osPresetProcess.dat", "servicePresetProcess.dat"),
                         [](const auto& list) {
                             return std::string(list.param).substr(0, 2) == "os" ? "Os" : "Service";
                         });

} // namespace

TEST_P(PresetListsTest, ACommandFetchesTheFileAndLoadsIt) {
    ListServer server;
    server.Offer("/list", NEW);
    EXPECT_TRUE(Sync(server.Url("/list"), Digest(NEW)));
    EXPECT_EQ(server.Requests(), 1);
    EXPECT_EQ(TestSupport::TempDir::ReadText(File()), NEW);
    ASSERT_EQ(Loaded().size(), 2U);
    EXPECT_EQ(Loaded().at("new").filename, "tool");
    EXPECT_EQ(Loaded().at("new").sha256, "new");
    EXPECT_EQ(Loaded().at("new").os, "Debian");
    EXPECT_EQ(Loaded().at("new").version, "12");
    EXPECT_TRUE(Other().empty());
    EXPECT_EQ(CountUpTo(Message::PRIO_INFORMATION), 0);
    ExpectTidyFolder();
}

TEST_P(PresetListsTest, ANewFileReplacesTheOldOneAndItsList) {
    StartWithOldList();
    ListServer server;
    server.Offer("/list", NEW);
    EXPECT_TRUE(Sync(server.Url("/list"), Digest(NEW)));
    EXPECT_EQ(log.Count(Message::PRIO_INFORMATION, "expect has [" + Digest(NEW) + "] real [" + Digest(OLD) + "]"), 1);
    EXPECT_EQ(TestSupport::TempDir::ReadText(File()), NEW);
    EXPECT_EQ(Loaded().size(), 2U);
    EXPECT_EQ(Loaded().count("old"), 0U);
}

TEST_P(PresetListsTest, AFileThatIsCurrentIsNotFetchedButLoaded) {
    ListServer server;
    server.Offer("/list", NEW);
    root.Write(std::string("conf/") + GetParam(), NEW);
    ASSERT_TRUE(Loaded().empty());
    EXPECT_TRUE(Sync(server.Url("/list"), Digest(NEW)));
    EXPECT_EQ(server.Requests(), 0);
    EXPECT_EQ(log.Count(Message::PRIO_INFORMATION, "no need to reload [" + File() + "]"), 1);
    EXPECT_EQ(Loaded().size(), 2U);
}

TEST_P(PresetListsTest, ACommandThatIsNoneChangesNothingWithoutAWord) {
    StartWithOldList();
    ListServer server;
    server.Offer("/list", NEW);
    const std::string url = server.Url("/list");
    const std::string digest = Digest(NEW);
    const std::vector<std::string> commands = {"",
                                               "no json",
                                               "[]",
                                               "{}",
                                               Command("", digest),
                                               Command(url, ""),
                                               Command(url, digest.substr(1)),
                                               Command(url, digest + "0"),
                                               R"({"hash":")" + digest + R"("})",
                                               R"({"url":")" + url + R"("})",
                                               R"({"url":7,"hash":")" + digest + R"("})",
                                               R"({"url":")" + url + R"(","hash":[]})"};
    for (const std::string& command : commands) {
        EXPECT_FALSE(Sync(command)) << command;
    }
    EXPECT_FALSE(IsOs() ? engine.SyncOsPresetProcess(nullptr, 0) : engine.SyncServicePresetProcess(nullptr, 0));
    EXPECT_FALSE(engine.DownloadFileFromPolicy(nullptr, File()));
    EXPECT_EQ(server.Requests(), 0);
    EXPECT_TRUE(log.Records().empty());
    ExpectOldList();
}

TEST_P(PresetListsTest, OnlyTheGivenLengthOfACommandCounts) {
    root.Write(std::string("conf/") + GetParam(), NEW);
    const std::string command = Command("http://127.0.0.1:1/", Digest(NEW));
    const std::string longer = command + "}";
    EXPECT_TRUE(IsOs() ? engine.SyncOsPresetProcess(longer.data(), command.size())
                       : engine.SyncServicePresetProcess(longer.data(), command.size()));
}

TEST_P(PresetListsTest, AFailedDownloadIsAnErrorAndLeavesFileAndListAlone) {
    StartWithOldList();
    ListServer server;
    server.Offer("/other", List({PresetEntry("forged")}));
    server.OfferTruncated("/cut", NEW);
    const std::string digest = Digest(NEW);
    const std::vector<std::pair<std::string, int>> failures = {
        {server.Url("/other"), SDK::HttpUtils::DOWNLOAD_DIGEST_MISMATCH},
        {server.Url("/nothing"), 404},
        {server.Url("/cut"), SDK::HttpUtils::DOWNLOAD_TRANSPORT},
        {"http://127.0.0.1:1/list", SDK::HttpUtils::DOWNLOAD_TRANSPORT},
        {"gopher://127.0.0.1/list", SDK::HttpUtils::DOWNLOAD_BAD_URL}};
    for (const auto& [url, result] : failures) {
        log.Clear();
        EXPECT_FALSE(Sync(url, digest)) << url;
        EXPECT_EQ(log.Count(Message::PRIO_ERROR,
                            "download failed. [" + url + "] [" + File() + "] [" + std::to_string(result) + "]"),
                  1)
            << url;
        EXPECT_EQ(log.CountAt(Message::PRIO_ERROR), 1) << url;
        ExpectOldList();
        ExpectTidyFolder();
    }
    EXPECT_EQ(server.Requests(), 2);
}

TEST_P(PresetListsTest, AFetchedFileThatCannotBeParsedLeavesTheListAlone) {
    StartWithOldList();
    ListServer server;
    for (const std::string body : {"no json", ""}) {
        log.Clear();
        server.Offer("/list" + std::to_string(body.size()), body);
        EXPECT_FALSE(Sync(server.Url("/list" + std::to_string(body.size())), Digest(body)));
        EXPECT_EQ(log.Count(Message::PRIO_ERROR,
                            body.empty() ? "Read file [" + File() + "] failed or empty" : "parse preset json failed"),
                  1);
        EXPECT_EQ(TestSupport::TempDir::ReadText(File()), body);
        EXPECT_EQ(Loaded().count("old"), 1U);
    }
}

TEST_P(PresetListsTest, AFileOfAnotherShapeEmptiesTheList) {
    for (const std::string text : {R"({"process_info":{}})", "{}", "[]"}) {
        ASSERT_TRUE(SyncPreset(GetParam(), OLD));
        ASSERT_EQ(Loaded().size(), 1U);
        EXPECT_FALSE(SyncPreset(GetParam(), text)) << text;
        EXPECT_TRUE(Loaded().empty()) << text;
    }
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "preset json is not expect"), 3);
}

TEST_P(PresetListsTest, OfTwoEntriesWithOneDigestTheFirstStays) {
    EXPECT_TRUE(SyncPreset(GetParam(), List({PresetEntry("same", "first"), PresetEntry("same", "second")})));
    ASSERT_EQ(Loaded().size(), 1U);
    EXPECT_EQ(Loaded().at("same").filename, "first");
}

TEST_P(PresetListsTest, MissingKeysReadAsEmpty) {
    EXPECT_TRUE(SyncPreset(GetParam(), List({R"({"sha256":"d"})", R"({"filename":"f"})"})));
    ASSERT_EQ(Loaded().size(), 2U);
    EXPECT_EQ(Loaded().at("d").filename + Loaded().at("d").os + Loaded().at("d").version, "");
    EXPECT_EQ(Loaded().at("").filename, "f");
}

TEST_P(PresetListsTest, AnEmptyListIsAGoodOne) {
    StartWithOldList();
    EXPECT_TRUE(SyncPreset(GetParam(), List({})));
    EXPECT_TRUE(Loaded().empty());
}

TEST_P(PresetListsTest, APresetFileIsReadUpToTheLimit) {
    ProcessManager::PresetMap map;
    const std::string path = root.Write("list", OLD + std::string(LIMIT_BYTES - OLD.size(), ' '));
    EXPECT_TRUE(engine.LoadPresetProcInfoFromFile(path, map));
    EXPECT_EQ(map.size(), 1U);
    root.Write("list", OLD + std::string(LIMIT_BYTES + 1 - OLD.size(), ' '));
    EXPECT_FALSE(engine.LoadPresetProcInfoFromFile(path, map));
    EXPECT_FALSE(engine.LoadPresetProcInfoFromFile(root / "missing", map));
    EXPECT_EQ(map.size(), 1U);
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "Read file [" + path + "] failed or empty"), 1);
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "Read file [" + root / "missing" + "] failed or empty"), 1);
}

// ---- CheckFileHash ---------------------------------------------------------------------------------

namespace {

class FileHashTest : public TrustEngineTest {};

} // namespace

TEST_F(FileHashTest, AFileWithTheDigestIsRecognisedWithoutAWord) {
    EXPECT_TRUE(engine.CheckFileHash(root.Write("file", "text"), Digest("text")));
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(FileHashTest, WhatIsNoFileIsNotRecognisedWithoutAWord) {
    EXPECT_FALSE(engine.CheckFileHash(root / "missing", Digest("")));
    EXPECT_FALSE(engine.CheckFileHash(root / "conf", Digest("")));
    EXPECT_TRUE(log.Records().empty());
}

TEST_F(FileHashTest, AnotherDigestIsLoggedWithTheRealOne) {
    const std::string path = root.Write("file", "text");
    std::string upperCase = Digest("text");
    for (char& character : upperCase) {
        character = static_cast<char>(std::toupper(character));
    }
    for (const std::string& expected : {Digest("other"), upperCase, Digest("text").substr(1), std::string()}) {
        EXPECT_FALSE(engine.CheckFileHash(path, expected));
        EXPECT_EQ(log.Count(Message::PRIO_INFORMATION, "expect has [" + expected + "] real [" + Digest("text") + "]"),
                  1);
    }
    EXPECT_EQ(log.Records().size(), 4U);
}

TEST_F(FileHashTest, AFileThatCannotBeReadIsAnError) {
    // A regular file to stat(2), but there is nothing mapped at its beginning.
    EXPECT_FALSE(engine.CheckFileHash("/proc/self/mem", Digest("")));
    EXPECT_EQ(log.Count(Message::PRIO_ERROR, "Get file [/proc/self/mem] hash failed"), 1);
    EXPECT_EQ(log.Records().size(), 1U);
}

TEST_F(FileHashTest, TheDigestCoversNoMoreThanTheLimit) {
    const std::string head(LIMIT_BYTES, 'x');
    EXPECT_TRUE(engine.CheckFileHash(root.Write("large", head + "tail"), Digest(head)));
}

} // namespace EngineTest
