#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <string>
#include <thread>

#include "VX_Apps/VX_Multithread.h"
#include "support/VX_TestData.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using vxtest::Captured;

namespace {

// Polls pred until it holds or 5 s pass. The bound only turns a hang into a
// failure; no expectation depends on how long anything takes.
template <class Pred>
bool WaitFor(Pred pred) {
    for (auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5); !pred(); std::this_thread::yield())
        if (std::chrono::steady_clock::now() > end) return false;
    return true;
}

// True when some thread other than a fresh one holds s_cs.
bool CsHeldElsewhere() {
    return std::async(std::launch::async, [] {
        bool free = VX_Multithread::s_cs->try_lock();
        if (free) VX_Multithread::s_cs->unlock();
        return !free;
    }).get();
}

struct Probe {
    bool poll = false;   // the slow pass polls the interrupt until it is raised (or release comes)
    bool raise = false;  // the fast pass raises the interrupt before the slow pass starts
    VX_Multithread* poller = nullptr;
    std::atomic<int> fastRuns{0}, slowDone{0}, slowStopped{0};
    std::atomic<bool> slowEntered{false}, release{false}, insideCs[2]{}, fastSawFlag{true};
    std::thread::id id[2];  // of the fast and the slow pass
};

bool Calculate(void* arg, int quality) {
    Probe& p = *static_cast<Probe*>(arg);
    p.id[quality] = std::this_thread::get_id();
    p.insideCs[quality] = CsHeldElsewhere();
    if (quality == 0) {
        p.fastSawFlag = VX_Multithread::s_interrupt_request.load();
        ++p.fastRuns;
        if (p.raise) p.poller->SetInterruptRequest(true);
        return true;
    }
    p.slowEntered = true;
    bool stopped = false;
    if (p.poll) WaitFor([&] { return (stopped = p.poller->InterruptRequest(0)) || p.release; });
    ++(stopped ? p.slowStopped : p.slowDone);
    return true;
}

std::atomic<int> g_flushCalls{0}, g_flushPending{0};

std::string const kBlock = "VX_Multithread:block requesting interrupt...\n", kBlocked = "VX_Multithread:block... received.\n";
std::string const kCalcLog = "VX_Multithread:requesting interrupt...\nStopBackgroundWait(3746)\n" + kBlock + kBlocked +
                             "VX_Multithread:... received.\n";
std::string const kBgStart = "VX_Multithread:now starting bg thread\n", kEntry = "VX_Multithread:CalcSlow before cs\n",
                  kBgRun = "VX_Multithread:bg thread started\n", kBgEnd = "VX_Multithread:bg thread terminated\n";

}  // namespace

// frame drives Calc; poller is the interrupt source a calculation would hold.
class VX_MultithreadTest : public testing::Test {
protected:
    void SetUp() override {
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
        VX_Multithread::SetEventFlushHook([](int) { return false; });
    }
    // No thread queued for s_cs, none inside it.
    static bool WaitIdle() {
        bool ok = WaitFor([] { return VX_Multithread::s_counter == 0 && !VX_Multithread::s_bg_alive; });
        std::lock_guard<std::recursive_mutex> lock(*VX_Multithread::s_cs);
        return ok && VX_Multithread::s_counter == 0 && !VX_Multithread::s_bg_alive;
    }

    VX_Multithread frame, poller;
    Probe probe;
};

TEST_F(VX_MultithreadTest, CalcWithBgDisabledRunsOnlyFastPass) {
    frame.SetBgEnabled(false);
    frame.SetDebugMode(true);
    EXPECT_EQ(Captured([&] { frame.Calc(Calculate, &probe); }), kCalcLog);
    EXPECT_TRUE(probe.fastRuns == 1 && probe.id[0] == std::this_thread::get_id());
    EXPECT_TRUE(probe.insideCs[0] && !probe.fastSawFlag && !VX_Multithread::s_interrupt_request);
    EXPECT_TRUE(WaitIdle() && !CsHeldElsewhere() && !probe.slowEntered);
    // The poll prints only with debug set and a code other than 0.
    EXPECT_EQ(Captured([&] { frame.Report(); }), "VX_Multithread: No bg thread.\n");
    frame.SetInterruptRequest(true);
    EXPECT_EQ(Captured([&] { frame.InterruptRequest(42), frame.InterruptRequest(0); }), "InterruptRequest(42)\n");
    frame.SetDebugMode(false);
    EXPECT_EQ(Captured([&] { frame.Report(), frame.InterruptRequest(42); }), "");
}

// The slow pass runs on another thread, inside the section, until a stop: that
// drops the pending events, waits for the polling pass and leaves the flag set.
TEST_F(VX_MultithreadTest, SlowPassRunsInBackgroundUntilStopped) {
    probe.poll = true;
    frame.SetDebugMode(true);
    poller.SetDebugMode(true);
    CaptureStdout();
    frame.Calc(Calculate, &probe);
    EXPECT_TRUE(WaitFor([&] { return probe.slowEntered.load(); }));
    EXPECT_TRUE(frame.IsBGAlive() && !poller.InterruptRequest(0) && VX_Multithread::s_counter == 0);
    poller.Report();
    VX_Multithread::SetEventFlushHook([](int id) { return id == 1036 && ++g_flushCalls && g_flushPending-- > 0; });
    g_flushCalls = 0, g_flushPending = 3;
    frame.StopBackgroundWait(0);
    EXPECT_TRUE(!frame.IsBGAlive() && probe.slowStopped == 1 && g_flushCalls == 4);
    EXPECT_EQ(GetCapturedStdout(),
              kCalcLog + kBgStart + kEntry + kBgRun + "VX_Multithread: Bg is alive.\n" + kBlock + kBgEnd + kBlocked);
    EXPECT_TRUE(probe.id[0] == std::this_thread::get_id() && probe.id[1] != probe.id[0] && probe.insideCs[1]);
    // A stopped calculation stays stopped, for every instance, until the next
    // Calc clears the flag before its fast pass.
    EXPECT_TRUE(WaitIdle() && frame.InterruptRequest(0) && poller.InterruptRequest(0));
    frame.SetDebugMode(false);
    probe.slowEntered = false;
    frame.Calc(Calculate, &probe);
    EXPECT_TRUE(!probe.fastSawFlag && WaitFor([&] { return probe.slowEntered.load(); }));
    VX_Multithread host;  // SetBgEnabled runs the stop sequence too
    host.SetDebugMode(true);
    EXPECT_EQ(Captured([&] { host.SetBgEnabled(false); }), "StopBackgroundWait(1)\n" + kBlock + kBlocked);
    ASSERT_TRUE(WaitIdle());
    EXPECT_TRUE(probe.slowStopped == 2 && g_flushCalls == 6 && !VX_Multithread::s_bg_enabled);
    EXPECT_TRUE(poller.InterruptRequest(0));
    frame.SetInterruptRequest(false);
    host.SetDebugMode(false);
    host.SetBgEnabled(true);  // enabling stops first as well, so the flag is set once more
    EXPECT_TRUE(VX_Multithread::s_bg_enabled && poller.InterruptRequest(0));
}

TEST_F(VX_MultithreadTest, QueuedThreadsRunOnlyTheLastAndReportStaleOne) {
    frame.SetDebugMode(true);
    CaptureStdout();
    {
        // Holding the section keeps both started threads queued at its entry.
        std::unique_lock<std::recursive_mutex> hold(*VX_Multithread::s_cs);
        frame.Calc(Calculate, &probe);
        frame.Calc(Calculate, &probe);
        EXPECT_TRUE(VX_Multithread::s_counter == 2 && !frame.IsBGAlive() && probe.fastRuns == 2 && !probe.slowEntered);
    }
    bool const idle = WaitIdle();
    std::string out = GetCapturedStdout();
    ASSERT_TRUE(idle);
    EXPECT_EQ(probe.slowDone, 1);
    // A queued thread's entry line may fall anywhere; the rest comes in order.
    for (auto at = out.find(kEntry); at != std::string::npos; at = out.find(kEntry)) out.erase(at, kEntry.size());
    EXPECT_EQ(out, kCalcLog + kBgStart + kCalcLog + kBgStart + kBgRun + "******** s_counter = 1\n" + kBgEnd + kBgRun +
                       kBgEnd);
}

TEST_F(VX_MultithreadTest, SlowPassSkipsAfterEarlyInterruptUnlessDisabled) {
    probe.raise = true;
    frame.SetDebugMode(true);
    CaptureStdout();
    frame.Calc(Calculate, &probe);
    bool const idle = WaitIdle();
    EXPECT_EQ(GetCapturedStdout(), kCalcLog + kBgStart + kEntry + "InterruptRequest(9326)\n");
    EXPECT_TRUE(idle && !probe.slowEntered);
    // A disabled instance neither reports the flag nor honours it; others still see it.
    frame.Disable();
    EXPECT_EQ(Captured([&] { EXPECT_FALSE(frame.InterruptRequest(5)); }), "");
    frame.SetDebugMode(false);
    frame.Calc(Calculate, &probe);
    ASSERT_TRUE(WaitIdle());
    EXPECT_TRUE(probe.slowDone == 1 && probe.insideCs[1] && poller.InterruptRequest(0));
}
