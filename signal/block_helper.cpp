// A second thread that takes a share of a block's work.
#include "signal/block_helper.h"

BlockHelper::~BlockHelper()
{
    StopBlockHelper(*this);
}

#if defined(_WIN32)

bool StartBlockHelper(BlockHelper&)
{
    return false;
}

void StopBlockHelper(BlockHelper&) {}

void BeginOnHelper(BlockHelper&, HelperWork work, void* context)
{
    work(context);
}

void WaitForHelper(BlockHelper&) {}

#else

namespace {

void RunHelper(BlockHelper& helper)
{
    std::unique_lock<std::mutex> hold(helper.lock);
    for (;;) {
        helper.wake.wait(hold, [&] { return helper.work != nullptr || helper.stopping; });
        if (helper.work == nullptr)
            return;
        const HelperWork work = helper.work;
        void* const context = helper.context;
        hold.unlock();
        work(context);
        hold.lock();
        helper.work = nullptr;
        helper.done.notify_one();
    }
}

}  // namespace

bool StartBlockHelper(BlockHelper& helper)
{
    if (helper.running)
        return true;
    helper.stopping = false;
    helper.work = nullptr;
    helper.worker = std::thread(RunHelper, std::ref(helper));
    helper.running = true;
    return true;
}

void StopBlockHelper(BlockHelper& helper)
{
    if (!helper.running)
        return;
    {
        std::lock_guard<std::mutex> hold(helper.lock);
        helper.stopping = true;
    }
    helper.wake.notify_one();
    helper.worker.join();
    helper.running = false;
}

void BeginOnHelper(BlockHelper& helper, HelperWork work, void* context)
{
    {
        std::lock_guard<std::mutex> hold(helper.lock);
        helper.work = work;
        helper.context = context;
    }
    helper.wake.notify_one();
}

void WaitForHelper(BlockHelper& helper)
{
    std::unique_lock<std::mutex> hold(helper.lock);
    helper.done.wait(hold, [&] { return helper.work == nullptr; });
}

#endif
