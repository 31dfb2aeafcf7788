#include "VX_Multithread.h"

#include <stdio.h>
#include <thread>

std::recursive_mutex* VX_Multithread::s_cs = nullptr;
std::atomic<bool> VX_Multithread::s_initialized{false};
std::atomic<bool> VX_Multithread::s_bg_alive{false};
std::atomic<bool> VX_Multithread::s_bg_enabled{true};
std::atomic<bool> VX_Multithread::s_interrupt_request{false};
std::atomic<long> VX_Multithread::s_counter{0};

namespace {

// The flags carry one meaning each; a stale read only costs a late response.
constexpr std::memory_order kRelaxed = std::memory_order_relaxed;

// The host event whose pending copies a stop drops from the caller's queue.
constexpr int kFlushEventId = 1036;

bool noFlush(int) { return false; }
std::atomic<bool (*)(int)> s_flushHook{noFlush};

std::once_flag s_csOnce;

}  // namespace

VX_Multithread::VX_Multithread() : debug(false), enabled(true), function(nullptr), argument(nullptr)
{
    std::call_once(s_csOnce, [] {
        s_cs = new std::recursive_mutex;   // never deleted
        s_interrupt_request.store(false, kRelaxed);
    });
    s_initialized.store(true, kRelaxed);
}

VX_Multithread& VX_Multithread::operator=(VX_Multithread const& o)
{
    debug = o.debug;
    enabled = o.enabled;
    function = o.function;
    argument = o.argument;
    return *this;
}

void VX_Multithread::SetEventFlushHook(bool (*hook)(int))
{
    s_flushHook.store(hook ? hook : noFlush);
}

void VX_Multithread::StopBackgroundWait(int code)
{
    if (debug) {
        if (code != 0) printf("StopBackgroundWait(%d)\n", code);
        printf("VX_Multithread:block requesting interrupt...\n");
    }
    bool (*flush)(int) = s_flushHook.load();
    while (flush(kFlushEventId)) {
    }
    s_interrupt_request.store(true, kRelaxed);
    s_cs->lock();
    if (debug) printf("VX_Multithread:block... received.\n");
    s_cs->unlock();
}

void VX_Multithread::Calc(bool (*fn)(void*, int), void* arg)
{
    if (debug) printf("VX_Multithread:requesting interrupt...\n");
    StopBackgroundWait(3746);
    s_interrupt_request.store(true, kRelaxed);
    s_cs->lock();
    s_interrupt_request.store(false, kRelaxed);
    if (debug) printf("VX_Multithread:... received.\n");
    function = fn;
    argument = arg;
    fn(arg, 0);
    if (s_bg_enabled.load(kRelaxed)) {
        if (debug) printf("VX_Multithread:now starting bg thread\n");
        s_counter.fetch_add(1, kRelaxed);
        std::thread(threadProc, this).detach();
    }
    s_cs->unlock();
}

void VX_Multithread::CalcSlow()
{
    if (debug) printf("VX_Multithread:CalcSlow before cs\n");
    s_cs->lock();
    s_counter.fetch_sub(1, kRelaxed);
    if (enabled && s_interrupt_request.load(kRelaxed)) {
        // A request came before this run got going.
        if (debug) printf("InterruptRequest(%d)\n", 9326);
        s_cs->unlock();
        return;
    }
    s_bg_alive.store(true, kRelaxed);
    if (debug) printf("VX_Multithread:bg thread started\n");
    long pending = s_counter.load(kRelaxed);
    if (pending == 0) {
        function(argument, 1);
    } else if (debug) {
        // A later Calc has queued a newer run: this one is stale.
        printf("******** s_counter = %ld\n", pending);
    }
    if (debug) printf("VX_Multithread:bg thread terminated\n");
    s_bg_alive.store(false, kRelaxed);
    s_cs->unlock();
}

void VX_Multithread::threadProc(VX_Multithread* self) { self->CalcSlow(); }

bool VX_Multithread::InterruptRequest(int code)
{
    if (!enabled) return false;
    bool r = s_interrupt_request.load(kRelaxed);
    if (r && debug && code != 0) printf("InterruptRequest(%d)\n", code);
    return r;
}

void VX_Multithread::SetInterruptRequest(bool b) { s_interrupt_request.store(b, kRelaxed); }

void VX_Multithread::SetBgEnabled(bool b)
{
    StopBackgroundWait(1);
    s_bg_enabled.store(b, kRelaxed);
}

bool VX_Multithread::IsBGAlive() { return s_bg_alive.load(kRelaxed); }

void VX_Multithread::Report()
{
    if (!debug) return;
    printf("VX_Multithread: ");
    printf(s_bg_alive.load(kRelaxed) ? "Bg is alive.\n" : "No bg thread.\n");
}
