#include "ctl/preset/PresetDocument.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/Failure.h"
#include "support/TempRoot.h"

namespace Ctl::Preset {
namespace {

using testing::HasSubstr;

const std::string DIGEST(64, 'a');

std::string FaultOf(const std::string& text) {
    try {
        FromDocument(text, "FILE");
    } catch (const Failure& failure) {
        return failure.what();
    }
    return "";
}

TEST(PresetDocumentTest, IsWhatAgentsLoad) {
    EXPECT_EQ(ToDocument({{"/usr/bin/a", DIGEST, "debian 12", "a 1"}}),
              R"({"process_info":[{"filename":"/usr/bin/a","os":"debian 12","sha256":")" + DIGEST +
                  R"(","version":"a 1"}]})");
    EXPECT_EQ(ToDocument({}), R"({"process_info":[]})");
}

TEST(PresetDocumentTest, MembersThatNobodyNeedsMayBeMissing) {
    const std::vector<Entry> entries = FromDocument(R"({"process_info":[{"sha256":")" + DIGEST + R"("}]})", "FILE");
    ASSERT_EQ(entries.size(), 1U);
    EXPECT_EQ(entries[0].sha256, DIGEST);
    EXPECT_EQ(entries[0].filename, "");
}

TEST(PresetDocumentTest, SaysWhatIsWrongAndWhere) {
    const std::string good = R"({"filename":"/f","sha256":")" + DIGEST + R"("})";
    const auto withSecond = [&](const std::string& entry) {
        return FaultOf(R"({"process_info":[)" + good + "," + entry + "]}");
    };
    EXPECT_EQ(FaultOf("{"), "[FILE] is not a JSON document");
    EXPECT_EQ(FaultOf("[]"), "[FILE] is no list document: it has no array \"process_info\"");
    EXPECT_EQ(FaultOf(R"({"process_info":{}})"), "[FILE] is no list document: it has no array \"process_info\"");
    EXPECT_EQ(withSecond("7"), "[FILE] is no preset list: process_info[1]: no object");
    EXPECT_EQ(withSecond(R"({"filename":"/g"})"),
              "[FILE] is no preset list: process_info[1] (/g): \"sha256\" is not 64 lowercase hexadecimal digits");
    for (const std::string& digest : {std::string(64, 'A'), std::string(63, 'a'), std::string(64, 'g')}) {
        EXPECT_THAT(withSecond(R"({"sha256":")" + digest + R"("})"), HasSubstr("\"sha256\" is not")) << digest;
    }
    EXPECT_THAT(withSecond(R"({"sha256":7})"), HasSubstr("\"sha256\" is not"));
    EXPECT_THAT(withSecond(R"({"os":12,"sha256":")" + DIGEST + R"("})"), HasSubstr("\"os\" is no string"));
}

TEST(PresetDocumentTest, OneThatAgentsWouldNotLoadIsNotMade) {
    std::vector<Entry> entries(11, {std::string(1 << 20, 'f'), DIGEST, "os", "1"});
    try {
        ToDocument(entries);
        FAIL() << "a document above the limit was made";
    } catch (const Failure& failure) {
        EXPECT_THAT(failure.what(), HasSubstr("10485760 at most: build two"));
    }
    entries.resize(9);
    EXPECT_GT(ToDocument(entries).size(), 9U << 20U);
}

TEST(PresetDocumentTest, AFileOfTheLimitIsReadAndALargerOneRefused) {
    const TestSupport::TempDir dir;
    const std::string file = dir.Write("list", std::string(10485760, ' '));
    EXPECT_EQ(ReadPresetFile(file).size(), 10485760U);
    dir.Write("list", std::string(10485761, ' '));
    EXPECT_THROW(ReadPresetFile(file), Failure);
    EXPECT_THROW(ReadPresetFile(dir.Path()), Failure);
    EXPECT_THROW(ReadPresetFile(dir / "none"), Failure);
}

} // namespace
} // namespace Ctl::Preset
