#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <unistd.h>

#include "TrustEngineTest.h"
#include "framework/Message.h"
#include "support/FakeTasks.h"
#include "support/WaitFor.h"
#include "utils/BackgroundWork.h"

namespace EngineTest {
namespace {

bool NeverNeeded() {
    ADD_FAILURE() << "nothing failed";
    return true;
}

bool Fail(std::size_t /*requests*/) {
    return false;
}

TEST(BackgroundWorkTest, EachRequestIsDoneOnceAlsoThoseThatComeMeanwhile) {
    std::promise<void> begun;
    std::promise<void> released;
    std::atomic<std::size_t> done{0};
    {
        utils::BackgroundWork work(
            [&](std::size_t requests) {
                if (done == 0) {
                    begun.set_value();
                    released.get_future().wait();
                }
                done += requests;
                return true;
            },
            NeverNeeded);
        work.Request();
        begun.get_future().wait();
        work.Request();
        work.Request();
        released.set_value();
    }
    EXPECT_EQ(done, 3U);
}

TEST(BackgroundWorkTest, EachRequestIsDoneByItselfUntilTheEndAndThenAllThatAreLeftTogether) {
    std::promise<void> begun;
    std::promise<void> released;
    std::vector<std::size_t> turns;
    std::atomic<std::size_t> turnsDone{0};
    {
        utils::BackgroundWork work(
            [&](std::size_t requests) {
                if (turns.size() == 2) {
                    begun.set_value();
                    released.get_future().wait();
                }
                turns.push_back(requests);
                ++turnsDone;
                return true;
            },
            NeverNeeded);
        work.Request();
        work.Request();
        EXPECT_TRUE(TestSupport::WaitFor([&] { return turnsDone == 2; }));
        for (int i = 0; i < 5; ++i) {
            work.Request();
        }
        begun.get_future().wait();
        work.BeginEnd();
        released.set_value();
    }
    EXPECT_EQ(turns, (std::vector<std::size_t>{1, 1, 1, 4}));
}

TEST(BackgroundWorkTest, NothingIsDoneUnasked) {
    int turns = 0;
    {
        const utils::BackgroundWork work(
            [&](std::size_t /*requests*/) {
                ++turns;
                return true;
            },
            NeverNeeded);
    }
    EXPECT_EQ(turns, 0);
}

TEST(BackgroundWorkTest, WhatFailsIsTriedAgainUntilItIsDone) {
    std::atomic<int> again{0};
    utils::BackgroundWork work(Fail, [&] { return ++again == 2; });
    work.Request();
    EXPECT_TRUE(TestSupport::WaitFor([&] { return again == 2; }));
}

TEST(BackgroundWorkTest, WhatFailsIsTriedALastTimeAtTheEnd) {
    std::atomic<int> again{0};
    {
        utils::BackgroundWork work(Fail, [&] {
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
    static constexpr int FILLERS = 3000;

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

    // A list that it takes time to store, and so many programs to adopt.
    void GivenALongList(int adoptions) {
        ASSERT_TRUE(ParseLocal(List(FillerEntries(FILLERS, "long"))));
        Configure(Engine::MOD_DETECT, true);
        std::vector<std::string> entries;
        programs.clear();
        for (int i = 0; i < adoptions; ++i) {
            programs.push_back(root.Write("bin/more" + std::to_string(i), "tool"));
            entries.push_back(Entry(programs.back(), Digest("tool"), 4));
        }
        SyncServer(List(entries));
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

// Counts how often a file of that name comes to be in the folder. It asks where from, too: two equal events in a row
// are told as one.
class ReplacementCounter {
public:
    ReplacementCounter(const std::string& folder, std::string name)
        : mName(std::move(name)), mWatch(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
        EXPECT_GE(inotify_add_watch(mWatch, folder.c_str(), IN_MOVED_FROM | IN_MOVED_TO), 0);
    }
    ~ReplacementCounter() { close(mWatch); }
    ReplacementCounter(const ReplacementCounter&) = delete;
    ReplacementCounter& operator=(const ReplacementCounter&) = delete;

    int Count() {
        alignas(inotify_event) std::array<char, 65536> events{};
        for (ssize_t size = 0; (size = read(mWatch, events.data(), events.size())) > 0;) {
            for (const char* at = events.data(); at < events.data() + size;) {
                const auto* event = reinterpret_cast<const inotify_event*>(at);
                mCount += (event->mask & IN_MOVED_TO) != 0 && event->name == mName ? 1 : 0;
                at += sizeof *event + event->len;
            }
        }
        return mCount;
    }

private:
    const std::string mName;
    const int mWatch;
    int mCount = 0;
};

// A list of this length takes its time; the end comes while most of the adoptions wait.
TEST_F(BackgroundStoringTest, AtTheEndTheListIsWrittenOnceForAllThatWaitAndSentForEach) {
    GivenALongList(100);
    ReplacementCounter replacements(root.Path() + "/conf", "whitelist.data");
    engine.BeginBackgroundStoring();
    AdoptAll();
    engine.EndBackgroundStoring();
    EXPECT_LT(replacements.Count(), 50);
    EXPECT_GT(replacements.Count(), 0);
    const std::vector<std::string> lists = agent.Reports().Of("whitelist_2");
    EXPECT_EQ(lists.size(), programs.size());
    EXPECT_EQ(root.Read("conf/whitelist.data"), lists.back());
    EXPECT_EQ(Parse(lists.back())["process_info"].size(), FILLERS + programs.size());
}

// Receives the reports in the recorder's place, and takes none of the lists until it is let.
class HeldUpReceiver : public TestSupport::IdleTask {
public:
    HeldUpReceiver() : Idle("data_comm_report_task") {}

    bool InterceptMsg(std::shared_ptr<Framework::Message>& message) override {
        return dynamic_cast<const Framework::DataMessage&>(*message).GetType() != "whitelist_2";
    }

    int HandleMsg(const Framework::Message* message) override {
        mOpened.wait();
        bytes = dynamic_cast<const Framework::DataMessage&>(*message).GetData().size();
        most = std::max<std::size_t>(most, GetQueueDepth());
        ++taken;
        return 0;
    }

    std::promise<void> opened;
    std::atomic<std::size_t> bytes{0};
    std::atomic<std::size_t> most{0};
    std::atomic<std::size_t> taken{0};

private:
    std::shared_future<void> mOpened = opened.get_future().share();
};

TEST_F(BackgroundStoringTest, AtTheEndTheListsDoNotPileUpBeforeTheirReceiver) {
    constexpr std::size_t MAX_WAITING_BYTES = 32 << 20;
    GivenALongList(300);
    Poco::AutoPtr<HeldUpReceiver> receiver(new HeldUpReceiver);
    agent.Start(receiver);
    engine.BeginBackgroundStoring();
    AdoptAll();
    const std::future<void> end = std::async(std::launch::async, [this] { engine.EndBackgroundStoring(); });
    EXPECT_FALSE(
        TestSupport::WaitFor([&] { return end.wait_for(std::chrono::seconds(0)) == std::future_status::ready; },
                             std::chrono::milliseconds(500)));
    receiver->opened.set_value();
    end.wait();
    EXPECT_TRUE(TestSupport::WaitFor([&] { return receiver->taken == programs.size(); }));
    EXPECT_LE(receiver->most, MAX_WAITING_BYTES / receiver->bytes + 1);
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
