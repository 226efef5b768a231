// The helper thread: work offered runs exactly once, on the helper when it
// takes it in time and on the caller otherwise, and is done when the offer
// is finished; the helper stops and starts again.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "signal/block_helper.h"

namespace {

struct Share {
    std::thread::id ranOn;
    int runs = 0;
    long sum = 0;
};

void AddUp(void* context)
{
    Share& share = *static_cast<Share*>(context);
    share.ranOn = std::this_thread::get_id();
    ++share.runs;
    for (long k = 1; k <= 100000; ++k)
        share.sum += k;
}

// Waits, up to five seconds, until the helper has taken the offer.
bool TakenInTime(const BlockHelper& helper)
{
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (helper.state.load() == BlockHelper::kOffered && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    return helper.state.load() != BlockHelper::kOffered;
}

}  // namespace

TEST(BlockHelper, WorkTakenByTheHelperRunsOnItsThreadAndIsDoneWhenTheOfferIsFinished)
{
    BlockHelper helper;
    ASSERT_TRUE(StartBlockHelper(helper));
    for (int round = 0; round < 50; ++round) {
        Share share;
        OfferToHelper(helper, AddUp, &share);
        ASSERT_TRUE(TakenInTime(helper)) << round;
        FinishOffer(helper);
        ASSERT_EQ(share.runs, 1) << round;
        ASSERT_EQ(share.sum, 5000050000L) << round;
        ASSERT_NE(share.ranOn, std::this_thread::get_id()) << round;
    }
    StopBlockHelper(helper);
    EXPECT_FALSE(helper.running);
}

TEST(BlockHelper, WorkNotTakenYetIsDoneByTheCallerAndNeverAgain)
{
    BlockHelper stopped;  // never started: every offer comes back
    Share alone;
    OfferToHelper(stopped, AddUp, &alone);
    FinishOffer(stopped);
    EXPECT_EQ(alone.runs, 1);
    EXPECT_EQ(alone.ranOn, std::this_thread::get_id());

    // Offers finished at once, over and over: whoever takes each one, it
    // runs once, and a helper that wakes late takes nothing that was taken
    // back.
    BlockHelper helper;
    ASSERT_TRUE(StartBlockHelper(helper));
    Share shares[2000];
    for (Share& share : shares) {
        OfferToHelper(helper, AddUp, &share);
        FinishOffer(helper);
    }
    StopBlockHelper(helper);
    for (const Share& share : shares) {
        ASSERT_EQ(share.runs, 1);
        ASSERT_EQ(share.sum, 5000050000L);
    }
}

TEST(BlockHelper, StopsAndStartsAgainAndStoppingTwiceIsHarmless)
{
    BlockHelper helper;
    for (int round = 0; round < 20; ++round) {
        ASSERT_TRUE(StartBlockHelper(helper));
        ASSERT_TRUE(StartBlockHelper(helper));  // running already: the same thread
        Share share;
        OfferToHelper(helper, AddUp, &share);
        FinishOffer(helper);
        EXPECT_EQ(share.runs, 1);
        StopBlockHelper(helper);
        StopBlockHelper(helper);
        EXPECT_FALSE(helper.running);
    }
}

TEST(BlockHelper, AHelperLeftRunningIsStoppedWithIt)
{
    std::thread::id helperThread;
    {
        BlockHelper helper;
        ASSERT_TRUE(StartBlockHelper(helper));
        helperThread = helper.worker.get_id();
        EXPECT_NE(helperThread, std::thread::id());
    }
    // The destructor joined it: nothing is left to join or detach.
    SUCCEED();
}
