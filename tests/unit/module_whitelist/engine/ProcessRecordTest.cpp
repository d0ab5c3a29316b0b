#include <cstddef>
#include <filesystem>
#include <type_traits>

#include "TrustEngineTest.h"

namespace EngineTest {

namespace {

class ProcessRecordTest : public TrustEngineTest {
protected:
    static Json::Value CompleteObject() {
        Json::Value object(Json::objectValue);
        object["name"] = "tool";
        object["path"] = "/opt/tool";
        object["hash"] = "abc";
        object["size"] = 12;
        object["type"] = 2;
        return object;
    }

    static Json::Value Without(const char* key) {
        Json::Value object = CompleteObject();
        object.removeMember(key);
        return object;
    }
};

} // namespace

TEST_F(ProcessRecordTest, AFreshRecordOfAPidHasNothingElse) {
    const ProcessInfo info(4711);
    EXPECT_EQ(info.pid, 4711);
    EXPECT_EQ(info.ppid, 0);
    EXPECT_EQ(info.type, 0);
    EXPECT_EQ(info.path, "");
    EXPECT_EQ(info.name, "");
    EXPECT_FALSE(info.detailRetrieved);
    EXPECT_EQ(info.hash, "");
    EXPECT_FALSE(info.exited);
    EXPECT_FALSE(info.trusted);
    EXPECT_EQ(info.size, 0);
    EXPECT_EQ(info.cmdline, "");
    EXPECT_FALSE(info.auditHit);
    EXPECT_EQ(info.fileEventCount, 0U);
    EXPECT_EQ(info.auditHitTime, 0);
    EXPECT_EQ(ProcessInfo().pid, 0);
}

TEST_F(ProcessRecordTest, TheFieldsHaveTheirOrderAndTypes) {
    const std::vector<std::size_t> offsets = {offsetof(ProcessInfo, pid),
                                              offsetof(ProcessInfo, ppid),
                                              offsetof(ProcessInfo, type),
                                              offsetof(ProcessInfo, path),
                                              offsetof(ProcessInfo, name),
                                              offsetof(ProcessInfo, detailRetrieved),
                                              offsetof(ProcessInfo, hash),
                                              offsetof(ProcessInfo, exited),
                                              offsetof(ProcessInfo, trusted),
                                              offsetof(ProcessInfo, size),
                                              offsetof(ProcessInfo, cmdline),
                                              offsetof(ProcessInfo, auditHit),
                                              offsetof(ProcessInfo, fileEventCount),
                                              offsetof(ProcessInfo, auditHitTime)};
    for (std::size_t i = 1; i < offsets.size(); ++i) {
        EXPECT_LT(offsets[i - 1], offsets[i]) << "field " << i + 1;
    }
    EXPECT_TRUE((std::is_same_v<decltype(ProcessInfo::size), std::int64_t>));
    EXPECT_TRUE((std::is_same_v<decltype(ProcessInfo::fileEventCount), std::uint32_t>));
    EXPECT_EQ(sizeof(ProcessInfo::auditHitTime), 8U);
    EXPECT_FALSE(std::is_polymorphic_v<ProcessInfo>);
    EXPECT_TRUE(std::is_copy_constructible_v<ProcessInfo> && std::is_copy_assignable_v<ProcessInfo>);
}

TEST_F(ProcessRecordTest, APresetEntryIsFourTextsInTheirOrder) {
    using Preset = Engine::PresetProcessInfo;
    EXPECT_EQ(offsetof(Preset, filename), 0U);
    EXPECT_EQ(offsetof(Preset, sha256), sizeof(std::string));
    EXPECT_EQ(offsetof(Preset, os), 2 * sizeof(std::string));
    EXPECT_EQ(offsetof(Preset, version), 3 * sizeof(std::string));
    EXPECT_EQ(sizeof(Preset), 4 * sizeof(std::string));
    EXPECT_FALSE(std::is_polymorphic_v<Preset>);
}

TEST_F(ProcessRecordTest, ACompleteObjectIsReadInFull) {
    ProcessInfo info;
    EXPECT_TRUE(engine.Json2ProcessInfo(info, CompleteObject()));
    EXPECT_EQ(info.name, "tool");
    EXPECT_EQ(info.path, "/opt/tool");
    EXPECT_EQ(info.hash, "abc");
    EXPECT_EQ(info.size, 12);
    EXPECT_EQ(info.type, 2);
    EXPECT_EQ(info.pid, 0);
    EXPECT_FALSE(info.detailRetrieved);
}

TEST_F(ProcessRecordTest, TypeZeroAndNoTypeReadAsMatchByHash) {
    Json::Value untyped = CompleteObject();
    untyped["type"] = 0;
    for (const Json::Value& object : {untyped, Without("type")}) {
        ProcessInfo info;
        EXPECT_TRUE(engine.Json2ProcessInfo(info, object));
        EXPECT_EQ(info.type, 1);
    }
}

TEST_F(ProcessRecordTest, WithoutAPathNothingIsRead) {
    ProcessInfo info;
    EXPECT_FALSE(engine.Json2ProcessInfo(info, Without("path")));
    EXPECT_EQ(info.name, "");
    EXPECT_EQ(info.size, 0);
    EXPECT_EQ(info.hash, "");
    EXPECT_EQ(info.type, 0);
}

TEST_F(ProcessRecordTest, WithoutANameOnlyThePathIsRead) {
    ProcessInfo info;
    EXPECT_FALSE(engine.Json2ProcessInfo(info, Without("name")));
    EXPECT_EQ(info.path, "/opt/tool");
    EXPECT_EQ(info.size, 0);
    EXPECT_EQ(info.hash, "");
    EXPECT_EQ(info.type, 0);
}

TEST_F(ProcessRecordTest, ASizeOfZeroIsRefusedThoughAllTextsAreThere) {
    Json::Value empty = CompleteObject();
    empty["size"] = 0;
    for (const Json::Value& object : {empty, Without("size")}) {
        ProcessInfo info;
        EXPECT_FALSE(engine.Json2ProcessInfo(info, object));
        EXPECT_EQ(info.path, "/opt/tool");
        EXPECT_EQ(info.name, "tool");
        EXPECT_EQ(info.hash, "");
        EXPECT_EQ(info.type, 0);
    }
}

TEST_F(ProcessRecordTest, WithoutAHashTheTypeIsNotReadAndStaysUnset) {
    ProcessInfo info;
    EXPECT_FALSE(engine.Json2ProcessInfo(info, Without("hash")));
    EXPECT_EQ(info.size, 12);
    EXPECT_EQ(info.type, 0);
}

TEST_F(ProcessRecordTest, ARecordThatHadAHashIsTypedAlsoWhenTheObjectIsRefused) {
    for (const char* key : {"path", "name", "size"}) {
        ProcessInfo info;
        info.hash = "from before";
        EXPECT_FALSE(engine.Json2ProcessInfo(info, Without(key))) << key;
        EXPECT_EQ(info.type, 1) << key;
    }
}

TEST_F(ProcessRecordTest, EmptyTextsCountAsMissing) {
    for (const char* key : {"path", "name", "hash"}) {
        Json::Value object = CompleteObject();
        object[key] = "";
        ProcessInfo info;
        EXPECT_FALSE(engine.Json2ProcessInfo(info, object)) << key;
    }
}

TEST_F(ProcessRecordTest, ValuesOfAnotherTypeCountAsMissing) {
    for (const char* key : {"path", "name", "hash", "size"}) {
        Json::Value object = CompleteObject();
        object[key] = Json::Value(Json::arrayValue);
        ProcessInfo info;
        EXPECT_FALSE(engine.Json2ProcessInfo(info, object)) << key;
    }
    Json::Value object = CompleteObject();
    object["type"] = "2";
    ProcessInfo info;
    EXPECT_TRUE(engine.Json2ProcessInfo(info, object));
    EXPECT_EQ(info.type, 1);
}

TEST_F(ProcessRecordTest, WhatIsNoObjectIsRefused) {
    for (const Json::Value& value :
         {Json::Value(), Json::Value(7), Json::Value("text"), Json::Value(Json::arrayValue)}) {
        ProcessInfo info;
        EXPECT_FALSE(engine.Json2ProcessInfo(info, value));
        EXPECT_EQ(info.type, 0);
    }
}

TEST_F(ProcessRecordTest, ASizeBeyondThirtyTwoBitsIsReadAndWritten) {
    const std::string path = root.Write("sparse", "");
    std::filesystem::resize_file(path, 5000000000);
    Json::Value object(Json::objectValue);
    engine.ProcessInfo2Json(Record(path, "abc"), object);
    EXPECT_EQ(object["size"].asInt64(), 5000000000);
    ProcessInfo info;
    EXPECT_TRUE(engine.Json2ProcessInfo(info, object));
    EXPECT_EQ(info.size, 5000000000);
}

TEST_F(ProcessRecordTest, TheSizeWrittenIsThatOfTheFileNow) {
    const std::string path = root.Write("tool", "12345");
    ProcessInfo info = Record(path, "abc", 2);
    info.size = 99;
    Json::Value object(Json::objectValue);
    engine.ProcessInfo2Json(info, object);
    EXPECT_EQ(SDK::JsonUtils::JsonToString(object), Entry(path, "abc", 5, 2));
}

TEST_F(ProcessRecordTest, WritingOverwritesKeysOfTheSameNameAndKeepsOthers) {
    const std::string path = root.Write("tool", "12345");
    Json::Value object = CompleteObject();
    object["other"] = true;
    engine.ProcessInfo2Json(Record(path, "def"), object);
    EXPECT_EQ(object["name"].asString(), "tool");
    EXPECT_EQ(object["path"].asString(), path);
    EXPECT_EQ(object["hash"].asString(), "def");
    EXPECT_EQ(object["size"].asInt(), 5);
    EXPECT_EQ(object["type"].asInt(), 1);
    EXPECT_TRUE(object["other"].asBool());
    EXPECT_EQ(object.size(), 6U);
}

TEST_F(ProcessRecordTest, AVanishedFileIsWrittenWithSizeZeroAndNotReadAgain) {
    const std::string path = root.Write("tool", "12345");
    std::filesystem::remove(path);
    ProcessInfo written = Record(path, "abc");
    written.size = 5;
    Json::Value object(Json::objectValue);
    engine.ProcessInfo2Json(written, object);
    EXPECT_TRUE(object["size"].isInt64());
    EXPECT_EQ(object["size"].asInt64(), 0);
    ProcessInfo read;
    EXPECT_FALSE(engine.Json2ProcessInfo(read, object));
}

TEST_F(ProcessRecordTest, AScriptsRecordStaysOneThroughWritingAndReading) {
    const std::string path = root.Write("script.sh", "exit\n");
    Json::Value object(Json::objectValue);
    engine.ProcessInfo2Json(Record(path, "abc", 2), object);
    ProcessInfo read;
    EXPECT_TRUE(engine.Json2ProcessInfo(read, object));
    EXPECT_EQ(read.type, 2);
}

TEST_F(ProcessRecordTest, NeitherConversionLogs) {
    Json::Value object(Json::objectValue);
    engine.ProcessInfo2Json(Record("/no/such/file", ""), object);
    ProcessInfo read;
    engine.Json2ProcessInfo(read, object);
    engine.Json2ProcessInfo(read, Json::Value(1));
    EXPECT_TRUE(log.Records().empty());
}

} // namespace EngineTest
