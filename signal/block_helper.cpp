// A second thread that may take a share of a block's work.
#include "signal/block_helper.h"

BlockHelper::~BlockHelper()
{
    StopBlockHelper(*this);
}

void FinishOffer(BlockHelper& helper)
{
    int expected = BlockHelper::kOffered;
    if (helper.state.compare_exchange_strong(expected, BlockHelper::kIdle, std::memory_order_acq_rel)) {
        helper.work(helper.context);
        return;
    }
    // Taken: the helper is on it and will not be long.
    while (helper.state.load(std::memory_order_acquire) != BlockHelper::kDone) {
#if !defined(_WIN32)
        std::this_thread::yield();
#endif
    }
    helper.state.store(BlockHelper::kIdle, std::memory_order_relaxed);
}

#if defined(_WIN32)

bool StartBlockHelper(BlockHelper&)
{
    return false;
}

void StopBlockHelper(BlockHelper&) {}

void OfferToHelper(BlockHelper& helper, HelperWork work, void* context)
{
    helper.work = work;
    helper.context = context;
    helper.state.store(BlockHelper::kOffered, std::memory_order_release);
}

#else

namespace {

// Wakes at each offer and takes it, unless the caller has taken it back
// already (a late wake-up finds nothing, or a later offer, which is as good).
void RunHelper(BlockHelper& helper)
{
    uint64_t seen = 0;
    for (;;) {
        {
            std::unique_lock<std::mutex> hold(helper.lock);
            helper.wake.wait(hold, [&] { return helper.offers != seen || helper.stopping; });
            if (helper.stopping)
                return;
            seen = helper.offers;
        }
        int expected = BlockHelper::kOffered;
        if (helper.state.compare_exchange_strong(expected, BlockHelper::kTaken, std::memory_order_acq_rel)) {
            helper.work(helper.context);
            helper.state.store(BlockHelper::kDone, std::memory_order_release);
        }
    }
}

}  // namespace

bool StartBlockHelper(BlockHelper& helper)
{
    if (helper.running)
        return true;
    helper.stopping = false;
    helper.state.store(BlockHelper::kIdle, std::memory_order_relaxed);
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

void OfferToHelper(BlockHelper& helper, HelperWork work, void* context)
{
    helper.work = work;
    helper.context = context;
    {
        std::lock_guard<std::mutex> hold(helper.lock);
        ++helper.offers;
        helper.state.store(BlockHelper::kOffered, std::memory_order_release);
    }
    helper.wake.notify_one();
}

#endif
