// Sample-rate conversion through libsoxr.
#include "hosts/render/resampler.h"

#include <algorithm>

#include <soxr.h>

namespace {

// Frames asked of the converter at a time.
constexpr size_t kOutChunkFrames = 4096;

// Draws out whatever the converter has ready; with `in` null, its tail.
void Drain(Resampler& resampler, const double* in, size_t frames, std::vector<double>& out)
{
    const size_t channels = static_cast<size_t>(resampler.channels);
    size_t offered = 0;
    for (;;) {
        const size_t start = out.size();
        out.resize(start + kOutChunkFrames * channels);
        size_t used = 0;
        size_t made = 0;
        soxr_process(resampler.converter, in == nullptr ? nullptr : in + offered * channels, frames - offered,
                     in == nullptr ? nullptr : &used, out.data() + start, kOutChunkFrames, &made);
        out.resize(start + made * channels);
        offered += used;
        resampler.out_frames += made;
        if (in != nullptr ? (offered == frames && made < kOutChunkFrames) : made == 0)
            break;
    }
}

}  // namespace

bool OpenResampler(Resampler& resampler, int in_rate, int out_rate, int channels, std::string& error)
{
    resampler = Resampler{};
    soxr_error_t failure = nullptr;
    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT64_I, SOXR_FLOAT64_I);
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_HQ, 0);
    resampler.converter = soxr_create(in_rate, out_rate, static_cast<unsigned>(channels), &failure, &io, &quality,
                                      nullptr);
    if (resampler.converter == nullptr || failure != nullptr) {
        error = std::string("cannot resample from ") + std::to_string(in_rate) + " to " + std::to_string(out_rate) +
                " Hz: " + (failure != nullptr ? failure : "libsoxr failed");
        CloseResampler(resampler);
        return false;
    }
    resampler.channels = channels;
    resampler.in_rate = in_rate;
    resampler.out_rate = out_rate;
    return true;
}

void CloseResampler(Resampler& resampler)
{
    if (resampler.converter != nullptr)
        soxr_delete(resampler.converter);
    resampler.converter = nullptr;
}

void ResampleBlock(Resampler& resampler, const double* in, size_t frames, std::vector<double>& out)
{
    if (frames == 0)
        return;
    resampler.in_frames += frames;
    Drain(resampler, in, frames, out);
}

void FinishResampling(Resampler& resampler, uint64_t total_frames, std::vector<double>& out)
{
    const size_t channels = static_cast<size_t>(resampler.channels);
    const uint64_t before = resampler.out_frames;
    const size_t start = out.size();
    Drain(resampler, nullptr, 0, out);
    // Frames given back before this call are out of reach; cut or fill this
    // call's share so that the whole comes to `total_frames`.
    const uint64_t wanted = total_frames > before ? total_frames - before : 0;
    out.resize(start + static_cast<size_t>(wanted) * channels, 0.0);
    resampler.out_frames = std::max(before, total_frames);
}

uint64_t ResampledLength(uint64_t frames, int in_rate, int out_rate)
{
    const unsigned __int128 scaled = static_cast<unsigned __int128>(frames) * static_cast<unsigned>(out_rate);
    return static_cast<uint64_t>((scaled + static_cast<unsigned>(in_rate) / 2) / static_cast<unsigned>(in_rate));
}
