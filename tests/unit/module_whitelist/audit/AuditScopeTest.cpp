#include "FileAuditTest.h"

namespace AuditTest {

namespace {

class AuditScope : public FileAuditTest {
protected:
    void GivenDirs(const std::vector<std::string>& dirs) {
        GivenScope(Engine::MOD_LEARN, {.dirs = dirs, .mountMod = true});
    }
    void GivenExts(const std::vector<std::string>& exts) { GivenScope(Engine::MOD_LEARN, {.exts = exts}); }
};

} // namespace

// ---- Directories -----------------------------------------------------------------------------------

TEST_F(AuditScope, WithMarksOnMountsAPathMustBeginWithADirectory) {
    const std::string data = MakeDir("data");
    const std::string other = MakeDir("other");
    GivenDirs({data, other});
    EXPECT_TRUE(audit.IsCaredDir(data + "/x"));
    EXPECT_TRUE(audit.IsCaredDir(other + "/below/x"));
    EXPECT_TRUE(audit.IsCaredDir(data));
    EXPECT_FALSE(audit.IsCaredDir(files / "x"));
    EXPECT_FALSE(audit.IsCaredDir(data.substr(0, data.size() - 1)));
    EXPECT_FALSE(audit.IsCaredDir("/elsewhere" + data + "/x"));
    EXPECT_FALSE(audit.IsCaredDir(""));
}

TEST_F(AuditScope, ADirectoryHoldsWhateverBeginsWithItsName) {
    const std::string data = MakeDir("data");
    GivenDirs({data});
    EXPECT_TRUE(audit.IsCaredDir(data + "base/x"));
    GivenDirs({data + "/"});
    EXPECT_FALSE(audit.IsCaredDir(data + "base/x"));
    EXPECT_TRUE(audit.IsCaredDir(data + "/x"));
}

TEST_F(AuditScope, WithMarksOnDirectoriesEveryPathLiesInOne) {
    GivenScope(Engine::MOD_LEARN, {.dirs = {MakeDir("data")}, .mountMod = false});
    EXPECT_TRUE(audit.IsCaredDir("/elsewhere/x"));
    EXPECT_TRUE(audit.IsCaredDir(""));
}

TEST_F(AuditScope, WithoutDirectoriesEveryPathLiesInOne) {
    GivenDirs({});
    EXPECT_TRUE(audit.IsCaredDir("/anywhere/x"));
}

// ---- Extensions ------------------------------------------------------------------------------------

TEST_F(AuditScope, TheExtensionIsTheTextBehindTheLastDot) {
    GivenExts({"sh", "gz"});
    EXPECT_TRUE(audit.IsCaredExt("/a/x.sh"));
    EXPECT_TRUE(audit.IsCaredExt("/a/x.tar.gz"));
    EXPECT_TRUE(audit.IsCaredExt("/a/.sh"));
    EXPECT_FALSE(audit.IsCaredExt("/a/x.gz.tar"));
    EXPECT_FALSE(audit.IsCaredExt("/a/x.shell"));
    EXPECT_FALSE(audit.IsCaredExt("/a/x.s"));
    EXPECT_FALSE(audit.IsCaredExt("/a/x."));
}

TEST_F(AuditScope, APathWithoutADotHasNoExtension) {
    GivenExts({"sh"});
    EXPECT_FALSE(audit.IsCaredExt("/a/sh"));
    EXPECT_FALSE(audit.IsCaredExt("sh"));
    EXPECT_FALSE(audit.IsCaredExt(""));
}

TEST_F(AuditScope, ADotInADirectorysNameCounts) {
    GivenExts({"d"});
    EXPECT_FALSE(audit.IsCaredExt("/srv/a.d/file"));
    EXPECT_FALSE(audit.IsCaredFile("/srv/a.d/file"));
    EXPECT_TRUE(audit.IsCaredExt("/srv/a.d"));
}

TEST_F(AuditScope, TheCaseOfAnExtensionCounts) {
    GivenExts({"sh"});
    EXPECT_FALSE(audit.IsCaredExt("/a/x.SH"));
    EXPECT_FALSE(audit.IsCaredExt("/a/x.Sh"));
}

TEST_F(AuditScope, WithoutExtensionsEveryPathHasOne) {
    GivenExts({});
    EXPECT_TRUE(audit.IsCaredExt("/a/x"));
    EXPECT_TRUE(audit.IsCaredExt("/a/x.sh"));
}

// ---- Both ------------------------------------------------------------------------------------------

TEST_F(AuditScope, AFileIsCaredForByItsDirectoryAndItsExtension) {
    const std::string data = MakeDir("data");
    GivenScope(Engine::MOD_LEARN, {.dirs = {data}, .exts = {"sh"}, .mountMod = true});
    EXPECT_TRUE(audit.IsCaredFile(data + "/x.sh"));
    EXPECT_FALSE(audit.IsCaredFile(data + "/x.py"));
    EXPECT_FALSE(audit.IsCaredFile(files / "x.sh"));
    EXPECT_FALSE(audit.IsCaredFile(files / "x.py"));
}

} // namespace AuditTest
