#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <json/value.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ConfigManager.h"
#include "support/LogRecorder.h"
#include "support/TempRoot.h"

namespace {

using namespace Engine;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int DEPTH = ConfigManager::MAX_EXPANSION_DEPTH;
constexpr unsigned long MAXIMUM = ConfigManager::MAX_EXPANDED_DIRS;
const std::string TOO_DEEP = "Dir too deep || maxSize";
const std::string EXPANSION_FAILED = "ExpendSubPath ERROR";

// Someone without root's rights while it lives; the whole process is.
class Unprivileged {
public:
    Unprivileged() : mIs(seteuid(65534) == 0) {}
    ~Unprivileged() {
        if (mIs) {
            mIs = seteuid(0) != 0;
        }
    }
    Unprivileged(const Unprivileged&) = delete;
    Unprivileged& operator=(const Unprivileged&) = delete;

    bool Is() const { return mIs; }

private:
    bool mIs;
};

class FileScopeRules : public ::testing::Test {
protected:
    bool ParseDirs(const std::vector<std::string>& dirs) { return config.ParseDirPolicy(Content("dirs", dirs)); }
    bool ParseExts(const std::vector<std::string>& exts) { return config.ParseExtPolicy(Content("exts", exts)); }

    static Json::Value Content(const char* key, const std::vector<std::string>& texts) {
        Json::Value content(Json::objectValue);
        content[key] = Json::Value(Json::arrayValue);
        for (const std::string& text : texts) {
            content[key].append(text);
        }
        return content;
    }

    std::string MakeDir(const std::string& name) const {
        std::filesystem::create_directories(root / name);
        return root / name;
    }

    // "top/1/2/…" with that many levels below top.
    std::string MakeChain(const std::string& top, int levels) const {
        std::string path = top;
        for (int i = 1; i <= levels; ++i) {
            path += "/" + std::to_string(i);
        }
        MakeDir(path);
        return root / top;
    }

    std::string MakeWide(const std::string& top, int count) const {
        for (int i = 0; i < count; ++i) {
            MakeDir(top + "/" + std::to_string(i));
        }
        return root / top;
    }

    bool Expand(const std::string& path) { return config.ExpendPath(path, expanded, DEPTH, MAXIMUM); }
    std::vector<std::string> Expanded() const { return {expanded.begin(), expanded.end()}; }

    bool HasError(const std::string& text) const { return log.Has(Poco::Message::PRIO_ERROR, text); }

    TestSupport::TempRoot root;
    TestSupport::LogRecorder log;
    ConfigManager& config = *ConfigManager::Instance();
    std::set<std::string> expanded;
};

using DirRules = FileScopeRules;
using ExtRules = FileScopeRules;
using Expansion = FileScopeRules;

// ---- Directories -----------------------------------------------------------------------------------

TEST_F(DirRules, AreKeptInOrderAndAsWritten) {
    const std::string b = MakeDir("b") + "/";
    const std::string a = MakeDir("a") + "/../a/.";
    EXPECT_TRUE(ParseDirs({b, a, b}));
    EXPECT_THAT(config.GetDirs(), ElementsAre(b, a, b));
    EXPECT_THAT(log.Records(), IsEmpty());
}

TEST_F(DirRules, MayBeRelative) {
    EXPECT_TRUE(ParseDirs({"."}));
    EXPECT_THAT(config.GetDirs(), ElementsAre("."));
}

TEST_F(DirRules, MissingOrNoArrayFailAndEmptyTheRules) {
    for (const Json::Value& dirs :
         {Json::Value("text"), Json::Value(5), Json::Value(Json::objectValue), Json::Value()}) {
        EXPECT_TRUE(ParseDirs({root.Path()}));
        Json::Value content(Json::objectValue);
        content["dirs"] = dirs;
        EXPECT_FALSE(config.ParseDirPolicy(content));
        EXPECT_THAT(config.GetDirs(), IsEmpty());
    }
    EXPECT_TRUE(ParseDirs({root.Path()}));
    EXPECT_FALSE(config.ParseDirPolicy(Json::Value(Json::objectValue)));
    EXPECT_THAT(config.GetDirs(), IsEmpty());
    EXPECT_THAT(log.Records(), IsEmpty());
}

TEST_F(DirRules, ANumberAmongThemEndsTheWalkAndKeepsThoseBefore) {
    Json::Value content = Content("dirs", {root.Path()});
    content["dirs"].append(5);
    content["dirs"].append(root / "conf");
    EXPECT_FALSE(config.ParseDirPolicy(content));
    EXPECT_THAT(config.GetDirs(), ElementsAre(root.Path()));
}

TEST_F(DirRules, AnEntryThatIsNotAcceptedIsSkipped) {
    const std::string missing = root / "missing";
    EXPECT_TRUE(ParseDirs({missing, root.Path(), ""}));
    EXPECT_THAT(config.GetDirs(), ElementsAre(root.Path()));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, "Policy Dir error " + missing), 1);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, "Policy Dir error too long "), 1);
    EXPECT_EQ(log.Records().size(), 2U);
}

TEST_F(DirRules, AFileIsNoDirectory) {
    const std::string file = root.Write("file", "");
    EXPECT_FALSE(config.CheckDirPolicy(file));
    EXPECT_TRUE(HasError("Policy Dir error " + file));
}

TEST_F(DirRules, ALinkIsFollowed) {
    std::filesystem::create_symlink(MakeDir("real"), root / "link");
    std::filesystem::create_symlink(root / "nowhere", root / "dangling");
    EXPECT_TRUE(config.CheckDirPolicy(root / "link"));
    EXPECT_FALSE(config.CheckDirPolicy(root / "dangling"));
    EXPECT_TRUE(HasError("Policy Dir error " + (root / "dangling")));
}

TEST_F(DirRules, HaveAtMost4095Bytes) {
    // Repeated slashes are a longer name of the same directory.
    const std::string longest = std::string(4095 - 3, '/') + "tmp";
    EXPECT_TRUE(config.CheckDirPolicy(longest));
    EXPECT_FALSE(config.CheckDirPolicy("/" + longest));
    EXPECT_TRUE(HasError("Policy Dir error too long /" + longest));
    EXPECT_FALSE(config.CheckDirPolicy(""));
    EXPECT_TRUE(HasError("Policy Dir error too long "));
    EXPECT_EQ(log.Records().size(), 2U);
}

// ---- Extensions ------------------------------------------------------------------------------------

TEST_F(ExtRules, AreASetAsWritten) {
    EXPECT_TRUE(ParseExts({"sh", "SH", "py", "sh"}));
    EXPECT_THAT(config.GetExts(), ElementsAre("SH", "py", "sh"));
    EXPECT_THAT(log.Records(), IsEmpty());
}

TEST_F(ExtRules, MissingOrNoArrayFailAndEmptyTheRules) {
    for (const Json::Value& exts :
         {Json::Value("text"), Json::Value(5), Json::Value(Json::objectValue), Json::Value()}) {
        EXPECT_TRUE(ParseExts({"sh"}));
        Json::Value content(Json::objectValue);
        content["exts"] = exts;
        EXPECT_FALSE(config.ParseExtPolicy(content));
        EXPECT_THAT(config.GetExts(), IsEmpty());
    }
    EXPECT_TRUE(ParseExts({"sh"}));
    EXPECT_FALSE(config.ParseExtPolicy(Json::Value(Json::objectValue)));
    EXPECT_THAT(config.GetExts(), IsEmpty());
}

TEST_F(ExtRules, ANumberAmongThemEndsTheWalkAndKeepsThoseBefore) {
    Json::Value content = Content("exts", {"sh"});
    content["exts"].append(5);
    content["exts"].append("py");
    EXPECT_FALSE(config.ParseExtPolicy(content));
    EXPECT_THAT(config.GetExts(), ElementsAre("sh"));
}

TEST_F(ExtRules, AnEntryThatIsNotAcceptedIsSkipped) {
    EXPECT_TRUE(ParseExts({".txt", "sh", ""}));
    EXPECT_THAT(config.GetExts(), ElementsAre("sh"));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, "Policy ext error .txt"), 1);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, "Policy ext error size "), 1);
}

TEST_F(ExtRules, HaveAtMost19Characters) {
    EXPECT_TRUE(config.CheckExtPolicy(std::string(19, 'a')));
    EXPECT_TRUE(config.CheckExtPolicy("a"));
    EXPECT_THAT(log.Records(), IsEmpty());
    EXPECT_FALSE(config.CheckExtPolicy(std::string(20, 'a')));
    EXPECT_TRUE(HasError("Policy ext error size " + std::string(20, 'a')));
    EXPECT_FALSE(config.CheckExtPolicy(""));
    EXPECT_TRUE(HasError("Policy ext error size "));
    EXPECT_EQ(log.Records().size(), 2U);
}

// Every byte by itself, at every place.
TEST_F(ExtRules, ControlCharactersBytesBeyondAsciiAndSpecialCharactersAreRefused) {
    const std::string special = "/\"*|<>.";
    for (int byte = 0; byte < 256; ++byte) {
        const char character = static_cast<char>(byte);
        const bool refused = byte <= 0x1F || byte >= 0x80 || special.find(character) != std::string::npos;
        for (const std::string& extension :
             {std::string(1, character), "a" + std::string(1, character), std::string(1, character) + "a"}) {
            log.Clear();
            EXPECT_EQ(config.CheckExtPolicy(extension), !refused) << "byte " << byte;
            EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, "Policy ext error " + extension), refused ? 1 : 0);
            EXPECT_EQ(log.Records().size(), refused ? 1U : 0U);
        }
    }
}

TEST_F(ExtRules, TheSizeIsLookedAtFirst) {
    const std::string dots(20, '.');
    EXPECT_FALSE(config.CheckExtPolicy(dots));
    EXPECT_TRUE(HasError("Policy ext error size " + dots));
    EXPECT_EQ(log.Records().size(), 1U);
}

// ---- Expansion -------------------------------------------------------------------------------------

TEST_F(Expansion, HoldsTheDirectoryAndAllBelow) {
    const std::string top = MakeDir("top");
    MakeDir("top/a/b");
    MakeDir("top/c");
    MakeDir("beside");
    root.Write("top/file", "");
    root.Write("top/a/file", "");
    EXPECT_TRUE(Expand(top));
    EXPECT_THAT(Expanded(), ElementsAre(top, top + "/a", top + "/a/b", top + "/c"));
    EXPECT_THAT(log.Records(), IsEmpty());
}

TEST_F(Expansion, KeepsTheConfiguredNameAndResolvesThoseBelow) {
    const std::string top = MakeDir("top");
    MakeDir("top/a/b");
    std::filesystem::create_symlink(top, root / "link");
    const std::string configured = (root / "link") + "/../link/";
    EXPECT_TRUE(Expand(configured));
    EXPECT_EQ(expanded, (std::set<std::string>{configured, top + "/a", top + "/a/b"}));
}

TEST_F(Expansion, FollowsALinkToItsTarget) {
    const std::string top = MakeDir("top");
    const std::string elsewhere = MakeDir("elsewhere");
    MakeDir("elsewhere/below");
    std::filesystem::create_symlink(elsewhere, top + "/link");
    EXPECT_TRUE(Expand(top));
    EXPECT_EQ(expanded, (std::set<std::string>{elsewhere, elsewhere + "/below", top}));
}

TEST_F(Expansion, PassesOverLinksToFilesAndToNowhere) {
    const std::string top = MakeDir("top");
    std::filesystem::create_symlink(root.Write("file", ""), top + "/file");
    std::filesystem::create_symlink(root / "nowhere", top + "/dangling");
    std::filesystem::create_symlink(top + "/self", top + "/self");
    ASSERT_EQ(mkfifo((top + "/fifo").c_str(), 0600), 0);
    EXPECT_TRUE(Expand(top));
    EXPECT_THAT(Expanded(), ElementsAre(top));
    EXPECT_THAT(log.Records(), IsEmpty());
}

TEST_F(Expansion, VisitsALinkToAParentOnce) {
    const std::string top = MakeDir("top");
    MakeDir("top/a");
    std::filesystem::create_symlink(top, top + "/a/up");
    EXPECT_TRUE(Expand(top));
    EXPECT_THAT(Expanded(), ElementsAre(top, top + "/a"));
}

TEST_F(Expansion, ALinkToAParentAtTheLastLevelIsTooDeepToBeRecognised) {
    const std::string top = MakeChain("top", DEPTH - 1);
    const std::string lowest = top + "/1/2/3/4/5/6/7/8/9";
    std::filesystem::create_symlink(top, lowest + "/up");
    EXPECT_FALSE(Expand(top));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, TOO_DEEP), 1);
    EXPECT_EQ(expanded.size(), static_cast<std::size_t>(DEPTH));
    EXPECT_TRUE(expanded.contains(lowest));
}

TEST_F(Expansion, TwoDirectoriesThatLinkToEachOtherAreVisitedOnceEach) {
    const std::string a = MakeDir("a");
    const std::string b = MakeDir("b");
    std::filesystem::create_symlink(b, a + "/to-b");
    std::filesystem::create_symlink(a, b + "/to-a");
    EXPECT_TRUE(config.ExpendSubPath({a, b}, expanded, DEPTH, MAXIMUM));
    EXPECT_THAT(Expanded(), ElementsAre(a, b));
    EXPECT_THAT(log.Records(), IsEmpty());
}

TEST_F(Expansion, ReachesADirectoryInsideAnotherOnce) {
    const std::string top = MakeDir("top");
    const std::string inner = MakeDir("top/inner");
    MakeDir("top/inner/below");
    for (const std::vector<std::string>& order : {std::vector{top, inner}, std::vector{inner, top}}) {
        expanded.clear();
        EXPECT_TRUE(config.ExpendSubPath(order, expanded, DEPTH, MAXIMUM));
        EXPECT_THAT(Expanded(), ElementsAre(top, inner, inner + "/below"));
    }
}

TEST_F(Expansion, DoesNotLookIntoWhatItHoldsAlready) {
    const std::string top = MakeDir("top");
    MakeDir("top/a");
    expanded.insert(top);
    EXPECT_TRUE(Expand(top));
    EXPECT_THAT(Expanded(), ElementsAre(top));
}

TEST_F(Expansion, EndsAtItsDepth) {
    const std::string top = MakeChain("fits", DEPTH - 1);
    EXPECT_TRUE(Expand(top));
    EXPECT_EQ(expanded.size(), static_cast<std::size_t>(DEPTH));
    EXPECT_THAT(log.Records(), IsEmpty());

    expanded.clear();
    EXPECT_FALSE(Expand(MakeChain("deeper", DEPTH)));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, TOO_DEEP), 1);
    EXPECT_EQ(expanded.size(), static_cast<std::size_t>(DEPTH));
}

TEST_F(Expansion, ReachesNothingWithoutDepth) {
    EXPECT_FALSE(config.ExpendPath(root.Path(), expanded, 0, MAXIMUM));
    EXPECT_FALSE(config.ExpendPath(root.Path(), expanded, -1, MAXIMUM));
    EXPECT_THAT(expanded, IsEmpty());
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, TOO_DEEP), 2);
}

TEST_F(Expansion, LooksAtItsLimitsBeforeItLooksWhatItHolds) {
    const std::string top = MakeDir("top");
    expanded.insert(top);
    EXPECT_FALSE(config.ExpendPath(top, expanded, 0, MAXIMUM));
    EXPECT_FALSE(config.ExpendPath(top, expanded, DEPTH, 0));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, TOO_DEEP), 2);
}

TEST_F(Expansion, GoesOnUntilTheSetHoldsMoreThanTheMaximum) {
    const std::string top = MakeWide("top", 3);
    EXPECT_TRUE(config.ExpendPath(top, expanded, DEPTH, 3));
    EXPECT_EQ(expanded.size(), 4U);
    expanded.clear();
    EXPECT_FALSE(config.ExpendPath(top, expanded, DEPTH, 2));
    EXPECT_EQ(expanded.size(), 3U);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, TOO_DEEP), 1);
}

TEST_F(Expansion, StopsAtTheFirstPathThatFails) {
    const std::string first = MakeDir("first");
    const std::string gone = root / "gone";
    const std::string last = MakeDir("last");
    EXPECT_FALSE(config.ExpendSubPath({first, gone, last}, expanded, DEPTH, MAXIMUM));
    EXPECT_THAT(Expanded(), ElementsAre(first, gone));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_TRACE, "Can not open dir " + gone + "\r\n"), 1);
    EXPECT_EQ(log.Records().size(), 1U);
}

TEST_F(Expansion, OfNoPathSucceeds) {
    EXPECT_TRUE(config.ExpendSubPath({}, expanded, DEPTH, MAXIMUM));
    EXPECT_THAT(expanded, IsEmpty());
}

TEST_F(Expansion, FailsAtADirectoryThatMayNotBeListedAndKeepsIt) {
    const std::string top = MakeDir("top");
    const std::string locked = MakeDir("top/locked");
    ASSERT_EQ(chmod(root.Path().c_str(), 0755), 0);
    ASSERT_EQ(chmod(locked.c_str(), 0), 0);
    {
        const Unprivileged someone;
        if (!someone.Is()) {
            GTEST_SKIP() << "needs root, to be able to give its rights away";
        }
        EXPECT_FALSE(Expand(top));
    }
    EXPECT_THAT(Expanded(), ElementsAre(top, locked));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_TRACE, "Can not open dir " + locked + "\r\n"), 1);
}

// ---- The expanded set of the policy ----------------------------------------------------------------

TEST_F(Expansion, OfThePolicyHoldsEveryConfiguredDirectory) {
    const std::string a = MakeDir("a");
    const std::string b = MakeDir("b");
    MakeDir("b/below");
    EXPECT_TRUE(ParseDirs({b, a}));
    EXPECT_TRUE(config.OptimizeFilePolicy());
    EXPECT_THAT(config.GetExpandedDirs(), ElementsAre(a, b, b + "/below"));
    EXPECT_THAT(log.Records(), IsEmpty());
}

TEST_F(Expansion, OfThePolicyReplacesTheEarlierSet) {
    EXPECT_TRUE(ParseDirs({MakeDir("a")}));
    EXPECT_TRUE(config.OptimizeFilePolicy());
    EXPECT_TRUE(ParseDirs({}));
    EXPECT_TRUE(config.OptimizeFilePolicy());
    EXPECT_THAT(config.GetExpandedDirs(), IsEmpty());
}

TEST_F(Expansion, OfThePolicyUsesWhatWasGatheredBeforeTheDepthWasReached) {
    const std::string deep = MakeChain("deep", DEPTH);
    EXPECT_TRUE(ParseDirs({deep, MakeDir("later")}));
    EXPECT_TRUE(config.OptimizeFilePolicy());
    EXPECT_EQ(config.GetExpandedDirs().size(), static_cast<std::size_t>(DEPTH));
    EXPECT_TRUE(config.GetExpandedDirs().contains(deep + "/1/2/3/4/5/6/7/8/9"));
    EXPECT_FALSE(config.GetExpandedDirs().contains(root / "later"));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, TOO_DEEP), 1);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, EXPANSION_FAILED), 1);
    EXPECT_EQ(log.Records().back().text, EXPANSION_FAILED);
}

TEST_F(Expansion, OfThePolicyIsUsableWithADirectoryThatVanished) {
    const std::string dir = MakeDir("vanishes");
    EXPECT_TRUE(ParseDirs({dir}));
    std::filesystem::remove(dir);
    EXPECT_TRUE(config.OptimizeFilePolicy());
    EXPECT_THAT(config.GetExpandedDirs(), ElementsAre(dir));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_TRACE, "Can not open dir " + dir + "\r\n"), 1);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, EXPANSION_FAILED), 1);
}

TEST_F(Expansion, OfThePolicyUsesWhatWasGatheredBeforeADirectoryThatMayNotBeListed) {
    const std::string first = MakeDir("first");
    const std::string locked = MakeDir("locked");
    std::filesystem::create_symlink(locked, first + "/link");
    EXPECT_TRUE(ParseDirs({first, MakeDir("last")}));
    ASSERT_EQ(chmod(root.Path().c_str(), 0755), 0);
    ASSERT_EQ(chmod(locked.c_str(), 0), 0);
    {
        const Unprivileged someone;
        if (!someone.Is()) {
            GTEST_SKIP() << "needs root, to be able to give its rights away";
        }
        EXPECT_TRUE(config.OptimizeFilePolicy());
    }
    EXPECT_THAT(config.GetExpandedDirs(), ElementsAre(first, locked));
    EXPECT_EQ(log.Count(Poco::Message::PRIO_TRACE, "Can not open dir " + locked + "\r\n"), 1);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, EXPANSION_FAILED), 1);
}

TEST_F(Expansion, OfThePolicyHoldsItsMostDirectories) {
    const int most = static_cast<int>(MAXIMUM);
    EXPECT_TRUE(ParseDirs({MakeWide("wide", most)}));
    EXPECT_TRUE(config.OptimizeFilePolicy());
    EXPECT_EQ(config.GetExpandedDirs().size(), MAXIMUM + 1);
    EXPECT_THAT(log.Records(), IsEmpty());

    MakeDir("wide/more");
    EXPECT_TRUE(config.OptimizeFilePolicy());
    EXPECT_EQ(config.GetExpandedDirs().size(), MAXIMUM + 1);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, TOO_DEEP), 1);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, EXPANSION_FAILED), 1);
}

TEST_F(Expansion, OfThePolicyStopsWhenItIsFullAlsoAtADirectoryThatItHolds) {
    const std::string wide = MakeWide("wide", static_cast<int>(MAXIMUM));
    EXPECT_TRUE(ParseDirs({wide, wide}));
    EXPECT_TRUE(config.OptimizeFilePolicy());
    EXPECT_EQ(config.GetExpandedDirs().size(), MAXIMUM + 1);
    EXPECT_EQ(log.Count(Poco::Message::PRIO_ERROR, TOO_DEEP), 1);
}

} // namespace
