// The engine's one state object and the two blocks of the PCM conversion.
//
// All three are defined in this one file so that their construction order is
// the order written (EngineState, FrameBlock, PcmBlock) and their destruction
// the reverse. Construction makes every FFT plan and transforms the impulse
// tables; nothing of that ever happens on the write path.
#include "engine/engine.h"

#include "encoders/headphone_convolver.h"
#include "engine/pcm_conversion.h"

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
    ResetEngineState(*this);
    DestroyHeadphonePlans(*this);
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

void ResetEngineState(EngineStateRecord& engine)
{
    FilterState* const memories[] = {
        &engine.BassFilter[0],     &engine.BassFilter[1],     &engine.BassFilter[2],
        &engine.SurroundFilter[0], &engine.SurroundFilter[1], &engine.LfeHighPass,
        &engine.LfeLowPass,        &engine.LfeChain,          &engine.BandFilter[0],
        &engine.BandFilter[1],     &engine.SteerFilter[0],    &engine.SteerFilter[1],
        &engine.SteerFilter[2],    &engine.SteerFilter[3],
    };
    for (FilterState* m : memories)
        *m = FilterState{0.0f, 0.0f, 0.0f, 0.0f};
    // The rings keep their length and position; only their contents go.
    engine.OverlapBlock.Zero();
    engine.SurroundDelayLine[0].Zero();
    engine.SurroundDelayLine[1].Zero();
    // Held-back frames are dropped for good, with no silence in their place.
    engine.Pending_Frames = 0;
}

// Flush, Open, Close, Quit and the destructor: never during a write.
void EngineReset()
{
    ResetEngineState(EngineState);
}
