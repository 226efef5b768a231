// Engine: the one record of all processing state. Building one makes every
// FFT plan and transforms the impulse tables; nothing of that ever happens
// on the write path. Filter memories and delay rings run on from write to
// write and from track to track; EngineReset clears what must not sound
// across a break in the audio.
//
// Each stage keeps its memory in a record of its own and is handed just that
// record by the dispatcher, so a stage's real inputs show in its signature
// and no stage reaches any state but its own. Engines are independent: any
// number may live in one process. The plug-in shell owns exactly one.
#pragma once

#include <cstdint>

#include "decoders/steering_detect.h"
#include "encoders/headphone_convolver.h"
#include "encoders/matrix_encoder.h"
#include "filters/bass_redirect.h"
#include "filters/surround_tail.h"
#include "signal/sample_block.h"

struct Engine {
    BassRedirectState Bass;        // bass redirection: split high-passes, bass sum
    SurroundTailState Surround;    // surround low-pass memories and delay rings
    MatrixEncoderState Encoder;    // the encoder's LFE-slot filters and phase chain
    SteeringState Steering;        // band split, smoothers and the steered decoder's scratch
    HeadphoneConvolver Headphone;  // spectra, blocks, plans and held-back frame count

    // The two blocks of the PCM conversion, built after the state above and
    // released before it.
    SampleBlock FrameBlock;        // the frames of a write; keeps earlier writes' frames behind them
    SampleBlock PcmBlock;          // the output PCM as bytes; its size counts four-byte units

    Engine();
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;
};

// Clears all filter memories, the overlap and both delay rings, and drops the
// frames the convolver holds back. Never during a write.
void EngineReset(Engine& engine);
