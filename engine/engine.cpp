// Building and taking down the engine, and its reset.
//
// Construction makes every FFT plan and transforms the impulse tables; it is
// the only place where plans are made. Should an allocation throw, the blocks
// built so far release their arrays as the exception passes.
#include "engine/engine.h"

Engine::Engine()
{
    // Every block starts with all four words 0 and every filter memory and
    // the held-back count at 0 (their records' own initialisers).
    BuildHeadphoneConvolver(Headphone);
    Headphone.Pending_Frames = 0;
}

Engine::~Engine()
{
    // The conversion's blocks go first, as they were built last.
    PcmBlock.Release();
    FrameBlock.Release();
    EngineReset(*this);
    DestroyHeadphonePlans(Headphone);
    // The remaining blocks release their arrays as the members go, in
    // reverse order of declaration.
}

void EngineReset(Engine& engine)
{
    FilterState* const memories[] = {
        &engine.Bass.BassFilter[0],       &engine.Bass.BassFilter[1],       &engine.Bass.BassFilter[2],
        &engine.Surround.SurroundFilter[0], &engine.Surround.SurroundFilter[1], &engine.Encoder.LfeHighPass,
        &engine.Encoder.LfeLowPass,       &engine.Encoder.LfeChain,         &engine.Steering.BandFilter[0],
        &engine.Steering.BandFilter[1],   &engine.Steering.SteerFilter[0],  &engine.Steering.SteerFilter[1],
        &engine.Steering.SteerFilter[2],  &engine.Steering.SteerFilter[3],
    };
    for (FilterState* m : memories)
        *m = FilterState{0.0f, 0.0f, 0.0f, 0.0f};
    // The rings keep their length and position; only their contents go.
    engine.Headphone.OverlapBlock.Zero();
    engine.Surround.SurroundDelayLine[0].Zero();
    engine.Surround.SurroundDelayLine[1].Zero();
    // Held-back frames are dropped for good, with no silence in their place.
    engine.Headphone.Pending_Frames = 0;
}
