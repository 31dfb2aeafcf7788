#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>

#include "VX_Apps/VX_Multithread.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

// Polls pred until it holds or 5 s pass. The bound only turns a hang into a
// failure; no expectation depends on how long anything takes.
template <class Pred>
bool WaitFor(Pred pred) {
    auto const end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::yield();
    }
    return true;
}

// True when some thread other than a fresh one holds s_cs.
bool CsHeldElsewhere() {
    bool held = false;
    std::thread t([&] {
        held = !VX_Multithread::s_cs->try_lock();
        if (!held) VX_Multithread::s_cs->unlock();
    });
    t.join();
    return held;
}

int Count(std::string const& text, std::string const& what) {
    int n = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++n;
    return n;
}

// What the slow pass does once entered: return at once, wait for release,
// or poll the interrupt until it is raised (or release comes).
enum class Slow { Return, Block, Poll };

struct Probe {
    Slow mode = Slow::Return;
    VX_Multithread* poller = nullptr;
    std::atomic<int> fastRuns{0}, slowRuns{0}, slowDone{0}, slowStopped{0};
    std::atomic<bool> slowEntered{false}, release{false};
    std::atomic<bool> fastInsideCs{false}, slowInsideCs{false}, fastSawFlag{true};
    std::thread::id fastId, slowId;
};

bool Calculate(void* arg, int quality) {
    Probe& p = *static_cast<Probe*>(arg);
    if (quality == 0) {
        p.fastId = std::this_thread::get_id();
        p.fastInsideCs = CsHeldElsewhere();
        p.fastSawFlag = VX_Multithread::s_interrupt_request.load();
        ++p.fastRuns;
        return true;
    }
    p.slowId = std::this_thread::get_id();
    p.slowInsideCs = CsHeldElsewhere();
    ++p.slowRuns;
    p.slowEntered = true;
    bool stopped = false;
    if (p.mode == Slow::Block) WaitFor([&] { return p.release.load(); });
    if (p.mode == Slow::Poll)
        WaitFor([&] { return (stopped = p.poller->InterruptRequest(0)) || p.release; });
    ++(stopped ? p.slowStopped : p.slowDone);
    return true;
}

std::atomic<int> g_flushCalls{0}, g_flushOtherIds{0}, g_flushPending{0};

bool ScriptedFlush(int eventId) {
    ++g_flushCalls;
    if (eventId != 1036) ++g_flushOtherIds;
    return g_flushPending-- > 0;
}

bool NoFlush(int) { return false; }

std::string const kCalcLog =
    "VX_Multithread:requesting interrupt...\n"
    "StopBackgroundWait(3746)\n"
    "VX_Multithread:block requesting interrupt...\n"
    "VX_Multithread:block... received.\n"
    "VX_Multithread:... received.\n";
std::string const kBgLog =
    "VX_Multithread:now starting bg thread\n"
    "VX_Multithread:CalcSlow before cs\n"
    "VX_Multithread:bg thread started\n"
    "VX_Multithread:bg thread terminated\n";

}  // namespace

// frame drives Calc; poller is the interrupt source a calculation would hold.
class VX_MultithreadTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(VX_Multithread::s_initialized);
        ASSERT_NE(VX_Multithread::s_cs, nullptr);
        probe.poller = &poller;
        frame.SetInterruptRequest(false);
    }
    void TearDown() override {
        probe.release = true;
        VX_Multithread quiet;
        quiet.StopBackgroundWait(0);
        EXPECT_TRUE(WaitIdle());
        quiet.SetBgEnabled(true);
        quiet.SetInterruptRequest(false);
        VX_Multithread::SetEventFlushHook(NoFlush);
    }
    // No thread queued for s_cs, none inside it.
    static bool WaitIdle() {
        bool ok = WaitFor([] { return VX_Multithread::s_counter == 0 && !VX_Multithread::s_bg_alive; });
        std::lock_guard<std::recursive_mutex> lock(*VX_Multithread::s_cs);
        return ok && VX_Multithread::s_counter == 0 && !VX_Multithread::s_bg_alive;
    }
    // Runs the background procedure on a thread of the test's own, counted as
    // Calc counts the thread it starts.
    void RunCalcSlowOnOwnThread(std::thread::id* worker = nullptr) {
        {
            std::lock_guard<std::recursive_mutex> lock(*VX_Multithread::s_cs);
            ++VX_Multithread::s_counter;
        }
        std::thread t([&] {
            if (worker) *worker = std::this_thread::get_id();
            frame.CalcSlow();
        });
        t.join();
    }

    VX_Multithread frame, poller;
    Probe probe;
};

TEST_F(VX_MultithreadTest, CalcWithBgDisabledRunsOnlyFastPass) {
    frame.SetBgEnabled(false);
    frame.Calc(Calculate, &probe);
    EXPECT_EQ(probe.fastRuns, 1);
    EXPECT_EQ(probe.fastId, std::this_thread::get_id());
    EXPECT_TRUE(probe.fastInsideCs);
    EXPECT_FALSE(probe.fastSawFlag);
    EXPECT_EQ(VX_Multithread::s_counter, 0);
    EXPECT_FALSE(frame.IsBGAlive());
    EXPECT_FALSE(VX_Multithread::s_interrupt_request);
    EXPECT_FALSE(CsHeldElsewhere());
    ASSERT_TRUE(WaitIdle());
    EXPECT_EQ(probe.slowRuns, 0);
}

TEST_F(VX_MultithreadTest, CalcRunsSlowPassOnAnotherThreadWhileBgAlive) {
    probe.mode = Slow::Block;
    frame.Calc(Calculate, &probe);
    EXPECT_EQ(probe.fastRuns, 1);
    EXPECT_EQ(probe.fastId, std::this_thread::get_id());
    EXPECT_TRUE(probe.fastInsideCs);
    ASSERT_TRUE(WaitFor([&] { return probe.slowEntered.load(); }));
    EXPECT_TRUE(frame.IsBGAlive());
    EXPECT_NE(probe.slowId, std::this_thread::get_id());
    EXPECT_TRUE(probe.slowInsideCs);
    EXPECT_EQ(VX_Multithread::s_counter, 0);
    EXPECT_FALSE(frame.InterruptRequest(0));
    probe.release = true;
    ASSERT_TRUE(WaitFor([&] { return !frame.IsBGAlive(); }));
    ASSERT_TRUE(WaitIdle());
    EXPECT_EQ(probe.slowRuns, 1);
    EXPECT_EQ(probe.slowDone, 1);
}

TEST_F(VX_MultithreadTest, StopBackgroundWaitReturnsAfterPollingPassLeft) {
    probe.mode = Slow::Poll;
    frame.Calc(Calculate, &probe);
    ASSERT_TRUE(WaitFor([&] { return probe.slowEntered.load(); }));
    EXPECT_TRUE(frame.IsBGAlive());
    frame.StopBackgroundWait(0);
    EXPECT_FALSE(frame.IsBGAlive());
    EXPECT_EQ(probe.slowStopped, 1);
    ASSERT_TRUE(WaitIdle());
    // A stopped calculation stays stopped, for every instance.
    EXPECT_TRUE(frame.InterruptRequest(0));
    EXPECT_TRUE(poller.InterruptRequest(0));
    // The next Calc clears the flag before its fast pass.
    probe.mode = Slow::Return;
    frame.Calc(Calculate, &probe);
    EXPECT_FALSE(probe.fastSawFlag);
    EXPECT_FALSE(poller.InterruptRequest(0));
    ASSERT_TRUE(WaitIdle());
    EXPECT_EQ(probe.slowDone, 1);
}

TEST_F(VX_MultithreadTest, BackToBackCallsCompleteOneSlowPass) {
    probe.mode = Slow::Poll;
    frame.Calc(Calculate, &probe);
    frame.Calc(Calculate, &probe);
    probe.release = true;
    ASSERT_TRUE(WaitIdle());
    EXPECT_EQ(probe.fastRuns, 2);
    EXPECT_EQ(probe.slowDone, 1);
    EXPECT_EQ(probe.slowRuns - probe.slowStopped, 1);
}

TEST_F(VX_MultithreadTest, QueuedThreadsRunOnlyTheLastAndReportStaleOne) {
    frame.SetDebugMode(true);
    CaptureStdout();
    {
        // Holding the section keeps both started threads queued at its entry.
        std::unique_lock<std::recursive_mutex> hold(*VX_Multithread::s_cs);
        frame.Calc(Calculate, &probe);
        frame.Calc(Calculate, &probe);
        EXPECT_EQ(VX_Multithread::s_counter, 2);
        EXPECT_FALSE(frame.IsBGAlive());
        EXPECT_EQ(probe.fastRuns, 2);
        EXPECT_EQ(probe.slowRuns, 0);
    }
    bool const idle = WaitIdle();
    std::string const out = GetCapturedStdout();
    ASSERT_TRUE(idle);
    EXPECT_EQ(probe.slowRuns, 1);
    // Only the entry line of a queued thread may fall between the lines of a Calc.
    std::string const entry = "VX_Multithread:CalcSlow before cs\n";
    std::string rest = out;
    for (auto at = rest.find(entry); at != std::string::npos; at = rest.find(entry)) rest.erase(at, entry.size());
    EXPECT_EQ(Count(out, entry), 2) << out;
    EXPECT_EQ(Count(rest, kCalcLog + "VX_Multithread:now starting bg thread\n"), 2) << out;
    EXPECT_EQ(Count(out, "******** s_counter = 1\n"), 1) << out;
    EXPECT_EQ(Count(out, "VX_Multithread:bg thread started\n"), 2);
    EXPECT_EQ(Count(out, "VX_Multithread:bg thread terminated\n"), 2);
    EXPECT_EQ(Count(out, "InterruptRequest("), 0);
}

TEST_F(VX_MultithreadTest, DisabledInstanceNeitherReportsNorHonoursInterrupt) {
    frame.Disable();
    frame.SetDebugMode(true);
    frame.SetInterruptRequest(true);
    CaptureStdout();
    bool const answer = frame.InterruptRequest(5);
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_FALSE(answer);
    EXPECT_TRUE(poller.InterruptRequest(0));

    frame.SetDebugMode(false);
    frame.function = Calculate;
    frame.argument = &probe;
    std::thread::id worker;
    RunCalcSlowOnOwnThread(&worker);
    EXPECT_EQ(probe.slowRuns, 1);
    EXPECT_EQ(probe.slowDone, 1);
    EXPECT_EQ(probe.slowId, worker);
    EXPECT_TRUE(probe.slowInsideCs);
    EXPECT_EQ(VX_Multithread::s_counter, 0);
    EXPECT_FALSE(frame.IsBGAlive());
    EXPECT_TRUE(VX_Multithread::s_interrupt_request);
}

TEST_F(VX_MultithreadTest, CalcSlowSkipsWhenInterruptedBeforeEntry) {
    frame.function = Calculate;
    frame.argument = &probe;
    frame.SetDebugMode(true);
    frame.SetInterruptRequest(true);
    CaptureStdout();
    RunCalcSlowOnOwnThread();
    EXPECT_EQ(GetCapturedStdout(), "VX_Multithread:CalcSlow before cs\nInterruptRequest(9326)\n");
    EXPECT_EQ(probe.slowRuns, 0);
    EXPECT_EQ(VX_Multithread::s_counter, 0);
    EXPECT_FALSE(frame.IsBGAlive());
    EXPECT_TRUE(frame.InterruptRequest(0));
}

TEST_F(VX_MultithreadTest, SetBgEnabledStopsRunAndLeavesFlagSet) {
    probe.mode = Slow::Poll;
    frame.Calc(Calculate, &probe);
    ASSERT_TRUE(WaitFor([&] { return probe.slowEntered.load(); }));
    VX_Multithread host;
    host.SetDebugMode(true);
    CaptureStdout();
    host.SetBgEnabled(false);
    EXPECT_EQ(GetCapturedStdout(),
              "StopBackgroundWait(1)\n"
              "VX_Multithread:block requesting interrupt...\n"
              "VX_Multithread:block... received.\n");
    EXPECT_FALSE(frame.IsBGAlive());
    EXPECT_EQ(probe.slowStopped, 1);
    EXPECT_FALSE(VX_Multithread::s_bg_enabled);
    ASSERT_TRUE(WaitIdle());
    EXPECT_TRUE(frame.InterruptRequest(0));
    frame.SetInterruptRequest(false);
    EXPECT_FALSE(poller.InterruptRequest(0));

    // Enabling again also stops first, so the flag is set once more.
    host.SetDebugMode(false);
    host.SetBgEnabled(true);
    EXPECT_TRUE(VX_Multithread::s_bg_enabled);
    EXPECT_TRUE(poller.InterruptRequest(0));
}

TEST_F(VX_MultithreadTest, FlushHookDrainsEvent1036InEveryStop) {
    VX_Multithread::SetEventFlushHook(ScriptedFlush);
    g_flushCalls = 0;
    g_flushOtherIds = 0;
    g_flushPending = 3;
    frame.StopBackgroundWait(0);
    EXPECT_EQ(g_flushCalls, 4);

    g_flushCalls = 0;
    g_flushPending = 2;
    frame.SetBgEnabled(false);
    EXPECT_EQ(g_flushCalls, 3);

    g_flushCalls = 0;
    g_flushPending = 0;
    frame.Calc(Calculate, &probe);
    EXPECT_EQ(g_flushCalls, 1);
    EXPECT_EQ(g_flushOtherIds, 0);
}

TEST_F(VX_MultithreadTest, CalcPrintsExactLog) {
    frame.SetBgEnabled(false);
    frame.SetDebugMode(true);
    CaptureStdout();
    frame.Calc(Calculate, &probe);
    EXPECT_EQ(GetCapturedStdout(), kCalcLog);

    frame.SetDebugMode(false);
    frame.SetBgEnabled(true);
    frame.SetDebugMode(true);
    CaptureStdout();
    frame.Calc(Calculate, &probe);
    bool const idle = WaitIdle();
    std::string const out = GetCapturedStdout();
    ASSERT_TRUE(idle);
    EXPECT_EQ(out, kCalcLog + kBgLog);
    EXPECT_EQ(probe.slowDone, 1);

    frame.SetDebugMode(false);
    CaptureStdout();
    frame.Calc(Calculate, &probe);
    bool const quietIdle = WaitIdle();
    EXPECT_EQ(GetCapturedStdout(), "");
    ASSERT_TRUE(quietIdle);
    EXPECT_EQ(probe.slowDone, 2);
}

TEST_F(VX_MultithreadTest, ReportAndPollPrintOnlyWithDebug) {
    auto capture = [](auto&& f) {
        CaptureStdout();
        f();
        return GetCapturedStdout();
    };
    bool answer = false;
    frame.SetDebugMode(true);
    EXPECT_EQ(capture([&] { frame.Report(); }), "VX_Multithread: No bg thread.\n");
    frame.SetInterruptRequest(true);
    EXPECT_EQ(capture([&] { answer = frame.InterruptRequest(42); }), "InterruptRequest(42)\n");
    EXPECT_TRUE(answer);
    EXPECT_EQ(capture([&] { answer = frame.InterruptRequest(0); }), "");
    EXPECT_TRUE(answer);
    frame.SetInterruptRequest(false);
    EXPECT_EQ(capture([&] { answer = frame.InterruptRequest(42); }), "");
    EXPECT_FALSE(answer);

    frame.SetDebugMode(false);
    frame.SetInterruptRequest(true);
    EXPECT_EQ(capture([&] { frame.Report(); answer = frame.InterruptRequest(42); }), "");
    EXPECT_TRUE(answer);

    // A quiet instance runs a blocked slow pass; another one reports it.
    probe.mode = Slow::Block;
    frame.Calc(Calculate, &probe);
    ASSERT_TRUE(WaitFor([&] { return probe.slowEntered.load(); }));
    poller.SetDebugMode(true);
    EXPECT_EQ(capture([&] { poller.Report(); }), "VX_Multithread: Bg is alive.\n");
    probe.release = true;
    ASSERT_TRUE(WaitIdle());
}
