// The surround tail: SL and SR low-passed at 7000 Hz, then delayed.
//
// The delay line is a SampleBlock used as a ring whose `size` is the length in
// samples. Its length is recomputed on every call and any change clears the
// ring, so a change of delay or rate gives n samples of silence. The length
// truncates a product with a constant just below one millionth, so a delay
// that would be a whole number of samples comes out one sample short; that
// is how the surrounds have always sat against the fronts.
#include "filters/surround_tail.h"

#include <cmath>

#include "signal/frame.h"

namespace {

constexpr float kMicrosecond = 9.99999997e-07f;  // 9.999999974752427e-07, below 1e-6
constexpr float kSurroundCutoff = 7000.0f;
constexpr int32_t kSurroundLowPassMinRate = 44100;
constexpr uint32_t kMicrosecondsPerMs = 1000;

}  // namespace

uint32_t DelayLength(int32_t sampleRate, uint32_t microseconds)
{
    // (rate x k) x microseconds in double precision, truncated toward zero;
    // the length is the lower 32 bits of the result.
    const double n = (double(sampleRate) * double(kMicrosecond)) * double(microseconds);
    return uint32_t(int64_t(std::trunc(n)));
}

void DelayRun(SampleBlock& line, uint32_t microseconds, const ProcessorBlock& block, float* frames,
              uint32_t slot)
{
    const uint32_t n = DelayLength(block.Sample_Rate, microseconds);
    if (n != line.size) {
        // Grow only beyond the capacity; every change clears the first n
        // floats and starts the ring at 0. This is Resize with clearing.
        line.Resize(n, true);
    }
    // A length of 0 (1 ms at 1000 Hz and below) means no delay: the samples
    // pass as they are.
    if (n == 0)
        return;
    // A block of no frames moves no sample, and its array may not exist
    // yet: no address is formed from it.
    if (block.Frames == 0)
        return;

    float* ring = line.data;
    uint32_t position = line.position;
    float* p = frames + slot;
    for (uint32_t i = 0; i < block.Frames; ++i, p += kFrameFloats) {
        const float out = ring[position];
        ring[position] = *p;
        if (++position == n)
            position = 0;
        *p = out;
    }
    line.position = position;
}

void SurroundLowPass(SurroundTailState& tail, ProcessorBlock& block)
{
    // With 0 frames there is nothing to filter and no address is formed in
    // frames a first write of 0 frames has not made yet.
    if (block.Sample_Rate < kSurroundLowPassMinRate || block.Frames == 0)
        return;
    float* frames = block.Block->data;
    const SectionLane lanes[2] = {{&tail.SurroundFilter[0], frames + kSlotSL},
                                  {&tail.SurroundFilter[1], frames + kSlotSR}};
    LowPass2Lanes(lanes, kFrameFloats, kSurroundCutoff, block);
}

void SurroundDelay(SurroundTailState& tail, ProcessorBlock& block)
{
    if (block.Surround_Delay == 0)
        return;
    // A negative setting wraps to a very long unsigned delay; nothing limits it.
    const uint32_t microseconds = uint32_t(block.Surround_Delay) * kMicrosecondsPerMs;
    float* frames = block.Block->data;
    DelayRun(tail.SurroundDelayLine[0], microseconds, block, frames, kSlotSL);
    DelayRun(tail.SurroundDelayLine[1], microseconds, block, frames, kSlotSR);
}

void SurroundTail(SurroundTailState& tail, ProcessorBlock& block)
{
    // With both surround speakers off the tail stands still; with one on,
    // both channels run, the silent one carrying zeros through its ring.
    if (block.SL == 0 && block.SR == 0)
        return;
    SurroundLowPass(tail, block);
    SurroundDelay(tail, block);
}
