// A second thread that takes a share of a block's work: the caller hands it
// a piece of work, does its own share meanwhile, and waits for it before it
// uses the results. The two shares must touch separate memory, so that each
// result is what it would be on one thread, bit for bit.
//
// Its owner starts it and stops it; whoever holds no helper, or one that
// could not start, does all the work itself. Builds without threads (the
// Windows DLL, whose player calls in on one thread and which starts none)
// never start one.
#pragma once

#if !defined(_WIN32)
#include <condition_variable>
#include <mutex>
#include <thread>
#endif

using HelperWork = void (*)(void* context);

struct BlockHelper {
#if !defined(_WIN32)
    std::thread worker;
    std::mutex lock;
    std::condition_variable wake;  // work was handed over, or the helper is to stop
    std::condition_variable done;  // the work handed over is done
    HelperWork work = nullptr;     // the work handed over and not done yet
    void* context = nullptr;
    bool stopping = false;
#endif
    bool running = false;

    BlockHelper() = default;
    BlockHelper(const BlockHelper&) = delete;
    BlockHelper& operator=(const BlockHelper&) = delete;
    ~BlockHelper();  // stops it, if its owner has not
};

// Starts the thread. False where threads cannot be started.
bool StartBlockHelper(BlockHelper& helper);

// Waits for work handed over, then ends the thread. Nothing happens to a
// helper that is not running.
void StopBlockHelper(BlockHelper& helper);

// The helper starts `work(context)`; the caller must WaitForHelper before it
// hands over more work or touches what the work writes.
void BeginOnHelper(BlockHelper& helper, HelperWork work, void* context);

// Returns once the work handed over is done.
void WaitForHelper(BlockHelper& helper);
