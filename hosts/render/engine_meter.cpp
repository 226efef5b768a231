// Levels before the output conversion, from an engine in this process.
#include "hosts/render/engine_meter.h"

#include <cmath>

#include "engine/pcm_conversion.h"
#include "settings/settings_store.h"

void StartEngineMeter(EngineMeter& meter)
{
    if (!meter.engine)
        meter.engine = std::make_unique<Engine>();
    meter.settings = ProcessorSettingsRecord{};
    LoadSettings(meter.settings);
}

void OpenEngineMeter(EngineMeter& meter, int rate, int channels, int bits)
{
    meter.stream = StreamWords{static_cast<uint32_t>(channels), static_cast<uint32_t>(bits), rate,
                               static_cast<uint32_t>(meter.settings.Out_Bits)};
}

void ResetEngineMeter(EngineMeter& meter)
{
    EngineReset(*meter.engine);
}

const float* MeterWrite(EngineMeter& meter, const uint8_t* source, uint32_t bytes, uint32_t& out_frames)
{
    // The frame count as the shell's Write forms it from the byte count.
    out_frames = (bytes / meter.stream.Stream_Channels) / (meter.stream.Stream_Bits / 8);
    ConvertAndProcess(*meter.engine, meter.settings, meter.stream, source, bytes, out_frames);
    return meter.engine->FrameBlock.data;
}

FullScaleLimits FullScaleOf(int bits)
{
    float scale = kOutputScale16;
    if (bits == 24)
        scale = kOutputScale24;
    else if (bits == 32)
        scale = kOutputScale32;
    // Truncation keeps anything above one step past negative full scale,
    // so the lower bound is that step; it is compared in double precision,
    // where it exists at 32 bits too.
    const double steps = static_cast<double>(int64_t{1} << (bits - 1));
    return {scale, steps, -steps - 1.0};
}

// The product in single precision, as the conversion forms it.
bool OverFullScale(float sample, int bits)
{
    const FullScaleLimits limits = FullScaleOf(bits);
    const double value = sample * limits.scale;
    return value != value || value >= limits.high || value <= limits.low;
}
