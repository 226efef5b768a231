// The helper thread: work handed over runs on another thread, the wait
// returns only once it is done, and the helper stops and starts again.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "signal/block_helper.h"

namespace {

struct Share {
    std::thread::id ranOn;
    long sum = 0;
};

void AddUp(void* context)
{
    Share& share = *static_cast<Share*>(context);
    share.ranOn = std::this_thread::get_id();
    for (long k = 1; k <= 100000; ++k)
        share.sum += k;
}

}  // namespace

TEST(BlockHelper, WorkRunsOnItsOwnThreadAndIsDoneWhenTheWaitReturns)
{
    BlockHelper helper;
    ASSERT_TRUE(StartBlockHelper(helper));
    for (int round = 0; round < 200; ++round) {
        Share share;
        BeginOnHelper(helper, AddUp, &share);
        WaitForHelper(helper);
        ASSERT_EQ(share.sum, 5000050000L) << round;
        ASSERT_NE(share.ranOn, std::this_thread::get_id()) << round;
    }
    StopBlockHelper(helper);
    EXPECT_FALSE(helper.running);
}

TEST(BlockHelper, StopsAndStartsAgainAndStoppingTwiceIsHarmless)
{
    BlockHelper helper;
    for (int round = 0; round < 20; ++round) {
        ASSERT_TRUE(StartBlockHelper(helper));
        ASSERT_TRUE(StartBlockHelper(helper));  // running already: the same thread
        Share share;
        BeginOnHelper(helper, AddUp, &share);
        StopBlockHelper(helper);  // the work handed over is done first
        EXPECT_EQ(share.sum, 5000050000L);
        StopBlockHelper(helper);
    }
}

TEST(BlockHelper, AHelperLeftRunningIsStoppedWithIt)
{
    std::atomic<int> done{0};
    {
        BlockHelper helper;
        ASSERT_TRUE(StartBlockHelper(helper));
        BeginOnHelper(helper, [](void* context) { static_cast<std::atomic<int>*>(context)->fetch_add(1); }, &done);
    }
    EXPECT_EQ(done.load(), 1);
}
