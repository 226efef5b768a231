// A second thread that may take a share of a block's work: the caller offers
// it a piece of work, does its own share meanwhile, and then finishes the
// offer: if the helper has not taken the work by then, the caller does it
// itself; if it has, the caller waits until it is done. So a block never
// takes longer than on one thread by more than the hand-over, however late
// the helper wakes. The two shares must touch separate memory, so that each
// result is what it would be on one thread, bit for bit.
//
// Its owner starts it and stops it; whoever holds no helper, or one that
// could not start, does all the work itself. Builds without threads (the
// Windows DLL, whose player calls in on one thread and which starts none)
// never start one.
#pragma once

#include <atomic>
#include <cstdint>

#if !defined(_WIN32)
#include <condition_variable>
#include <mutex>
#include <thread>
#endif

using HelperWork = void (*)(void* context);

struct BlockHelper {
    // Where the work offered stands: none, offered, taken by the helper,
    // done by it.
    enum : int { kIdle, kOffered, kTaken, kDone };
    std::atomic<int> state{kIdle};
    HelperWork work = nullptr;     // the work offered; set before it is offered
    void* context = nullptr;
#if !defined(_WIN32)
    std::thread worker;
    std::mutex lock;
    std::condition_variable wake;  // a new offer, or the helper is to stop
    uint64_t offers = 0;           // offers made, under `lock`
    bool stopping = false;         // under `lock`
#endif
    bool running = false;

    BlockHelper() = default;
    BlockHelper(const BlockHelper&) = delete;
    BlockHelper& operator=(const BlockHelper&) = delete;
    ~BlockHelper();  // stops it, if its owner has not
};

// Starts the thread. False where threads cannot be started.
bool StartBlockHelper(BlockHelper& helper);

// Ends the thread. Nothing happens to a helper that is not running. Every
// offer must have been finished.
void StopBlockHelper(BlockHelper& helper);

// Offers `work(context)` to the helper and returns at once.
void OfferToHelper(BlockHelper& helper, HelperWork work, void* context);

// Returns once the work offered is done: by the helper, or, when it had not
// taken it yet, by the caller now.
void FinishOffer(BlockHelper& helper);
