// The engine's one state object and the two blocks of the PCM conversion.
//
// All three are defined in this one file so that their construction order is
// the order written (EngineState, FrameBlock, PcmBlock) and their destruction
// the reverse. Construction makes every FFT plan and transforms the impulse
// tables; nothing of that ever happens on the write path.
#include "signal/engine_state.h"

#include "encoders/headphone_convolver.h"
#include "signal/pcm_conversion.h"

EngineStateRecord::EngineStateRecord()
{
    // The 32 blocks start with all four words 0 (their own constructors); the
    // filter memories and Pending_Frames are zero as static storage and are
    // not touched here. Should an allocation throw, the blocks built so far
    // release their arrays as the exception passes.
    BuildHeadphoneConvolver(*this);
    Pending_Frames = 0;
}

EngineStateRecord::~EngineStateRecord()
{
    EngineReset();
    DestroyHeadphonePlans();
    // Release in reverse order of declaration.
    for (int k = 9; k >= 0; --k)
        ProductBlock[k].Release();
    OverlapBlock.Release();
    for (int k = 4; k >= 0; --k)
        InputBlock[k].Release();
    EarBlock.Release();
    for (int k = 5; k >= 0; --k)
        ImpulseSpectrum[k].Release();
    BassSum.Release();
    SteerLowCS.Release();
    SteerLowLR.Release();
    SteerHighCS.Release();
    SteerHighLR.Release();
    LowBand.Release();
    HighBand.Release();
    SurroundDelayLine[1].Release();
    SurroundDelayLine[0].Release();
}

EngineStateRecord EngineState;
SampleBlock FrameBlock;
SampleBlock PcmBlock;

// write path / Flush / Open / Close / Quit: never during a write.
void EngineReset()
{
    FilterState* const memories[] = {
        &EngineState.BassFilter[0],  &EngineState.BassFilter[1],     &EngineState.BassFilter[2],
        &EngineState.SurroundFilter[0], &EngineState.SurroundFilter[1], &EngineState.LfeHighPass,
        &EngineState.LfeLowPass,     &EngineState.LfeChain,          &EngineState.BandFilter[0],
        &EngineState.BandFilter[1],  &EngineState.SteerFilter[0],    &EngineState.SteerFilter[1],
        &EngineState.SteerFilter[2], &EngineState.SteerFilter[3],
    };
    for (FilterState* m : memories)
        *m = FilterState{0.0f, 0.0f, 0.0f, 0.0f};
    // The rings keep their length and position; only their contents go.
    EngineState.OverlapBlock.Zero();
    EngineState.SurroundDelayLine[0].Zero();
    EngineState.SurroundDelayLine[1].Zero();
    // Held-back frames are dropped for good, with no silence in their place.
    EngineState.Pending_Frames = 0;
}
