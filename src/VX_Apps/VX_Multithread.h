#ifndef VX_MULTITHREAD_H
#define VX_MULTITHREAD_H

#include <atomic>
#include <mutex>
#include "../VX_Types/VX_Export.h"

// Shows something now, finishes in the background, and drops the work the
// moment the user moves on. Calc(fn, arg) stops any background run, calls
// fn(arg, 0) on the caller's thread, then fn(arg, 1) on a new detached thread.
// All instances share one static state, so an interrupt reaches every
// calculation in the process; long calculations poll InterruptRequest.
// The messages are printed only when debug is set.
class VX_EXPORT VX_Multithread {
public:
    bool debug;
    bool enabled;                      // false: never reports nor honours interrupts
    bool (*function)(void*, int);
    void* argument;

    VX_Multithread();
    VX_Multithread(VX_Multithread const& o) = default;
    VX_Multithread& operator=(VX_Multithread const& o);
    ~VX_Multithread() {}

    void Calc(bool (*fn)(void*, int), void* arg);
    // The background run, callable on a thread of the caller's choosing.
    void CalcSlow();
    // Raises the interrupt and returns once no background run holds the section.
    // The flag stays set until the next Calc or SetInterruptRequest(false).
    void StopBackgroundWait(int code);
    // The lock-free poll; code names the call site in the log (0: no log line).
    bool InterruptRequest(int code);
    void SetInterruptRequest(bool b);
    void SetBgEnabled(bool b);
    bool IsBGAlive();
    void Enable() { enabled = true; }
    void Disable() { enabled = false; }
    void SetDebugMode(bool b) { debug = b; }
    void Report();

    // Called where pending host events of id 1036 are dropped from the calling
    // thread's queue, until it returns false (none left). A no-op by default;
    // the host installs its own before the first Calc.
    static void SetEventFlushHook(bool (*hook)(int eventId));

    // The one state of the process. The critical section is re-entrant on the
    // thread that holds it and is never destroyed.
    static std::recursive_mutex* s_cs;
    static std::atomic<bool> s_initialized;
    static std::atomic<bool> s_bg_alive;
    static std::atomic<bool> s_bg_enabled;
    static std::atomic<bool> s_interrupt_request;
    static std::atomic<long> s_counter;   // changed only inside s_cs

private:
    static void threadProc(VX_Multithread* self);
};

#endif
