// One block of frames for a stage under test: six floats a frame in a
// SampleBlock, and the record that carries them, filled as the dispatcher
// hands a stereo write on.
#pragma once

#include <cstdint>
#include <vector>

#include "engine/engine.h"
#include "signal/frame.h"
#include "signal/processor.h"
#include "signal/sample_block.h"
#include "tests/support/test_engine.h"

// The record of a stereo write of `count` frames in `frames`: all switches
// on, no trims, no delay, no bass redirection; every other word 0.
inline ProcessorBlock StereoRecord(SampleBlock& frames, uint32_t count, int32_t rate, int32_t mode)
{
    ProcessorBlock pb{};
    pb.Mode = mode;
    pb.L = pb.R = pb.C = pb.SL = pb.SR = 1;
    pb.Surround_Trim_00 = 3;  // a stored 0, as the dispatcher hands it on
    pb.In_Channels = 2;
    pb.Sample_Rate = rate;
    pb.Frames = count;
    pb.Block = &frames;
    return pb;
}

struct FrameBlock {
    SampleBlock block;  // the frames, zeroed
    ProcessorBlock pb;  // the record of the write

    FrameBlock(uint32_t count, int32_t rate, int32_t mode) : pb(StereoRecord(block, count, rate, mode))
    {
        block.Resize(count * kFrameFloats, true);
    }

    float& at(uint32_t frame, uint32_t slot) { return block.data[frame * kFrameFloats + slot]; }

    // All six slots of every frame from `floats`, frame after frame.
    void Load(const std::vector<float>& floats)
    {
        for (uint32_t i = 0; i < pb.Frames * kFrameFloats; ++i)
            block.data[i] = floats[i];
    }

    // Slot `slot` of frame i holds values[i].
    void Fill(uint32_t slot, const std::vector<float>& values)
    {
        for (uint32_t i = 0; i < pb.Frames; ++i)
            at(i, slot) = values[i];
    }

    // Stereo input with stale values stale + s in slots s = 2 to 5, which a
    // decoder overwrites unread.
    void FillStereo(const std::vector<float>& left, const std::vector<float>& right, float stale)
    {
        for (uint32_t i = 0; i < pb.Frames; ++i) {
            at(i, 0) = left[i];
            at(i, 1) = right[i];
            for (uint32_t s = 2; s < kFrameFloats; ++s)
                at(i, s) = stale + float(s);
        }
    }

    std::vector<float> Copy() const { return std::vector<float>(block.data, block.data + pb.Frames * kFrameFloats); }
};

// Reset, and give the surround rings back so that a test starts from the
// state the engine is made in.
inline void FreshEngine()
{
    EngineReset(TestEngine());
    TestEngine().Surround.SurroundDelayLine[0].Release();
    TestEngine().Surround.SurroundDelayLine[1].Release();
}
