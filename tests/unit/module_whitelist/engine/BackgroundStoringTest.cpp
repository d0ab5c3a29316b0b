#include <algorithm>
#include <atomic>
#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TrustEngineTest.h"
#include "support/WaitFor.h"
#include "utils/BackgroundWork.h"

namespace EngineTest {
namespace {

bool NeverNeeded() {
    ADD_FAILURE() << "nothing failed";
    return true;
}

TEST(BackgroundWorkTest, EachRequestIsDoneOnceAlsoThoseThatComeMeanwhile) {
    std::promise<void> begun;
    std::promise<void> released;
    std::atomic<int> turns{0};
    {
        utils::BackgroundWork work(
            [&] {
                if (++turns == 1) {
                    begun.set_value();
                    released.get_future().wait();
                }
                return true;
            },
            NeverNeeded);
        work.Request();
        begun.get_future().wait();
        work.Request();
        work.Request();
        released.set_value();
    }
    EXPECT_EQ(turns, 3);
}

TEST(BackgroundWorkTest, NothingIsDoneUnasked) {
    int turns = 0;
    {
        const utils::BackgroundWork work(
            [&] {
                ++turns;
                return true;
            },
            NeverNeeded);
    }
    EXPECT_EQ(turns, 0);
}

TEST(BackgroundWorkTest, WhatFailsIsTriedAgainUntilItIsDone) {
    std::atomic<int> again{0};
    utils::BackgroundWork work([] { return false; }, [&] { return ++again == 2; });
    work.Request();
    EXPECT_TRUE(TestSupport::WaitFor([&] { return again == 2; }));
}

TEST(BackgroundWorkTest, WhatFailsIsTriedALastTimeAtTheEnd) {
    std::atomic<int> again{0};
    {
        utils::BackgroundWork work([] { return false; },
                                   [&] {
                                       ++again;
                                       return false;
                                   });
        work.Request();
    }
    EXPECT_EQ(again, 1);
}

// Programs that the server list vouches for are adopted into the local list.
class BackgroundStoringTest : public TrustEngineTest {
protected:
    static constexpr int PROGRAMS = 3;

    BackgroundStoringTest() {
        std::vector<std::string> entries;
        for (int i = 0; i < PROGRAMS; ++i) {
            const std::string path = root.Write("bin/tool" + std::to_string(i), "tool");
            entries.push_back(Entry(path, Digest("tool"), 4));
            programs.push_back(path);
        }
        local = List(entries);
        engine.Onstart();
        SyncServer(local);
    }

    void AdoptAll() const {
        for (const std::string& path : programs) {
            ProcessInfo info = Record(path, Digest("tool"));
            EXPECT_TRUE(engine.IsTrustProcess(info));
        }
    }

    std::vector<std::string> programs;
    std::string local; // the list of them all
};

TEST_F(BackgroundStoringTest, WhatWasAdoptedIsStoredWhenItEnds) {
    Configure(Engine::MOD_DETECT, true);
    engine.BeginBackgroundStoring();
    AdoptAll();
    engine.EndBackgroundStoring();
    EXPECT_EQ(root.Read("conf/whitelist.data"), local);
    EXPECT_EQ(agent.Reports().Of("whitelist_3").size(), programs.size());
    const std::vector<std::string> lists = agent.Reports().Of("whitelist_2");
    ASSERT_EQ(lists.size(), programs.size());
    EXPECT_EQ(lists.back(), local);
}

TEST_F(BackgroundStoringTest, WithoutItAnAdoptionIsStoredWhenTheDecisionReturns) {
    Configure(Engine::MOD_DETECT, true);
    engine.BeginBackgroundStoring();
    engine.EndBackgroundStoring();
    AdoptAll();
    EXPECT_EQ(root.Read("conf/whitelist.data"), local);
    EXPECT_EQ(agent.Reports().Of("whitelist_2").size(), programs.size());
}

TEST_F(BackgroundStoringTest, AListOfManyPortionsIsStoredInOrderAndWhole) {
    std::vector<std::string> entries = FillerEntries(1000, "portion");
    ASSERT_TRUE(ParseLocal(List(entries)));
    ASSERT_TRUE(engine.PersistencyLocalProcess());
    std::sort(entries.begin(), entries.end(), [](const std::string& a, const std::string& b) {
        return Parse(a)["path"].asString() < Parse(b)["path"].asString();
    });
    std::string expected = List(entries);
    // Files that are not there are stored with size 0.
    for (std::size_t at = 0; (at = expected.find("\"size\":1", at)) != std::string::npos;) {
        expected[at + 7] = '0';
    }
    EXPECT_EQ(root.Read("conf/whitelist.data"), expected);
    EXPECT_EQ(engine.CopyLocalTrust().size(), entries.size());
}

} // namespace
} // namespace EngineTest
