// PCM conversion. In: samples little-endian, packed, channel by channel
// within a frame, scaled to float (8-bit: a byte of 0 is silence, not full
// negative scale; 24-bit: the three bytes are the top of a 32-bit word).
// Out: six channels, each float times 0.85 of the word's full scale,
// truncated toward zero and stored in its low bytes, so that anything beyond
// full scale wraps rather than clips.
//
// Two conversions run on into a second pass, and that is how they sound:
// 32-bit four-channel sources are read again by the five-channel pass from
// the start (a stride of five), and 24-bit five-channel frames are replaced
// by the six-channel pass reading on from where the first pass stopped.
// Those second passes reach behind the frames the host wrote. They read the
// bytes of the host's buffer as they are, a partial frame at its end
// included, and never read outside it: a byte at or behind the buffer's
// length reads as 0. So with whole frames only, the 24-bit five-channel
// frames come out silent and the last fifth of the 32-bit four-channel reads
// are 0.0. The 24-bit fetch reads its three bytes, never a fourth one behind
// the sample.
#include "engine/pcm_conversion.h"

#include <cstddef>
#include <cstring>

#if defined(__SSE__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 1)
#include <xmmintrin.h>
#define KELVANE_HAVE_SSE_TRUNCATE 1
#endif
#if defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)
#include <emmintrin.h>
#define KELVANE_HAVE_SSE2_STORE 1
#endif

#include "engine/dispatch.h"
#include "signal/frame.h"

int32_t TruncateToInt32(float value)
{
#ifdef KELVANE_HAVE_SSE_TRUNCATE
    // The processor's truncating conversion gives 0x80000000 for anything
    // out of range and for NaN, which is the required behaviour.
    return _mm_cvtt_ss2si(_mm_set_ss(value));
#else
    if (value >= -2147483648.0f && value < 2147483648.0f)
        return int32_t(value);
    return INT32_MIN;
#endif
}

namespace {

// Integer value of one sample from its bytes, as a float times the depth's scale.
template <uint32_t Bits>
inline float SampleValue(const uint8_t* b);

template <>
inline float SampleValue<8>(const uint8_t* b)
{
    const int32_t v = b[0] == 0 ? 0 : int32_t(b[0]) - 128;
    return float(v) * kScale8;
}

template <>
inline float SampleValue<16>(const uint8_t* b)
{
    const int16_t v = int16_t(uint16_t(b[0]) | uint16_t(b[1]) << 8);
    return float(v) * kScale16;
}

template <>
inline float SampleValue<24>(const uint8_t* b)
{
    const int32_t v = int32_t(uint32_t(b[0]) << 8 | uint32_t(b[1]) << 16 | uint32_t(b[2]) << 24);
    return float(v) * kScale32;
}

template <>
inline float SampleValue<32>(const uint8_t* b)
{
    const int32_t v =
        int32_t(uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24);
    return float(v) * kScale32;
}

// Writes all six slots of one frame from the source frame's samples.
template <uint32_t Channels>
inline void PlaceFrame(float* f, const float* s)
{
    if constexpr (Channels == 1) {
        f[0] = s[0], f[1] = s[0], f[2] = 0.0f, f[3] = 0.0f, f[4] = 0.0f, f[5] = 0.0f;
    } else if constexpr (Channels == 2) {
        f[0] = s[0], f[1] = s[1], f[2] = 0.0f, f[3] = 0.0f, f[4] = 0.0f, f[5] = 0.0f;
    } else if constexpr (Channels == 4) {
        f[0] = s[0], f[1] = s[1], f[2] = 0.0f, f[3] = 0.0f, f[4] = s[2], f[5] = s[3];
    } else if constexpr (Channels == 5) {
        f[0] = s[0], f[1] = s[1], f[2] = s[2], f[3] = 0.0f, f[4] = s[3], f[5] = s[4];
    } else {
        static_assert(Channels == 6, "no frame layout for this channel count");
        f[0] = s[0], f[1] = s[1], f[2] = s[2], f[3] = s[3], f[4] = s[4], f[5] = s[5];
    }
}

// One conversion pass of `count` frames of `Channels` samples, reading from
// byte `offset` of the source. A bounded pass (the run-on passes only) reads
// every byte at or behind `end` as 0.
template <uint32_t Bits, uint32_t Channels, bool Bounded>
void ConvertPass(const uint8_t* source, std::size_t offset, std::size_t end, float* frames,
                 uint32_t count)
{
    constexpr std::size_t bytes = Bits / 8;
    std::size_t at = offset;
    float* f = frames;
    for (uint32_t i = 0; i < count; ++i, f += kFrameFloats) {
        float s[Channels];
        for (uint32_t c = 0; c < Channels; ++c, at += bytes) {
            if constexpr (Bounded) {
                uint8_t b[bytes] = {};
                for (std::size_t k = 0; k < bytes; ++k)
                    if (at + k < end)
                        b[k] = source[at + k];
                s[c] = SampleValue<Bits>(b);
            } else {
                s[c] = SampleValue<Bits>(source + at);
            }
        }
        PlaceFrame<Channels>(f, s);
    }
}

void SilencePass(float* frames, uint32_t count)
{
    std::memset(frames, 0, std::size_t(count) * kFrameFloats * sizeof(float));
}

// The conversions of one depth, chosen by channel count outside the loops.
// `sourceBytes` is the length of the host's buffer, the limit of the run-on
// passes.
template <uint32_t Bits>
void ConvertDepth(uint32_t channels, const uint8_t* source, std::size_t sourceBytes, float* frames, uint32_t count)
{
    constexpr std::size_t bytes = Bits / 8;
    switch (channels) {
    case 1:
        ConvertPass<Bits, 1, false>(source, 0, 0, frames, count);
        break;
    case 2:
        ConvertPass<Bits, 2, false>(source, 0, 0, frames, count);
        break;
    case 4:
        ConvertPass<Bits, 4, false>(source, 0, 0, frames, count);
        if constexpr (Bits == 32) {
            // Runs on into the five-channel pass, from the start of the source
            // and of the block: frame i becomes words 5i..5i+4.
            ConvertPass<Bits, 5, true>(source, 0, sourceBytes, frames, count);
        }
        break;
    case 5:
        ConvertPass<Bits, 5, false>(source, 0, 0, frames, count);
        if constexpr (Bits == 24) {
            // Runs on into the six-channel pass from the start of the block
            // but with the source position where the first pass stopped.
            const std::size_t stop = 5 * bytes * count;
            ConvertPass<Bits, 6, true>(source, stop, sourceBytes, frames, count);
        }
        break;
    case 6:
        ConvertPass<Bits, 6, false>(source, 0, 0, frames, count);
        break;
    default:  // 3 channels, or more than 6: silence for as long as the source
        SilencePass(frames, count);
        break;
    }
}

// Stores `count` floats as words of Bits bits, truncating and keeping the
// low bytes of the 32-bit conversion.
template <uint32_t Bits>
void StorePcm(const float* f, uint8_t* out, uint32_t count, float scale)
{
    constexpr uint32_t bytes = Bits / 8;
    uint32_t k = 0;
#ifdef KELVANE_HAVE_SSE2_STORE
    // Eight floats at a time: the same products and the same truncating
    // conversion, 0x80000000 out of range, as TruncateToInt32.
    if constexpr (Bits == 16 || Bits == 32) {
        const __m128 factor = _mm_set1_ps(scale);
        for (; k + 8 <= count; k += 8, out += 8 * bytes) {
            __m128i a = _mm_cvttps_epi32(_mm_mul_ps(_mm_loadu_ps(f + k), factor));
            __m128i b = _mm_cvttps_epi32(_mm_mul_ps(_mm_loadu_ps(f + k + 4), factor));
            if constexpr (Bits == 16) {
                // The low halves, sign-extended so that packing keeps them as they are.
                a = _mm_srai_epi32(_mm_slli_epi32(a, 16), 16);
                b = _mm_srai_epi32(_mm_slli_epi32(b, 16), 16);
                _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_packs_epi32(a, b));
            } else {
                _mm_storeu_si128(reinterpret_cast<__m128i*>(out), a);
                _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 16), b);
            }
        }
    }
#endif
    for (; k < count; ++k, out += bytes) {
        const uint32_t v = uint32_t(TruncateToInt32(f[k] * scale));
        for (uint32_t b = 0; b < bytes; ++b)
            out[b] = uint8_t(v >> (8 * b));
    }
}

}  // namespace

void ConvertAndProcess(Engine& engine, const ProcessorSettingsRecord& settings, const StreamWords& stream,
                       const uint8_t* source, uint32_t sourceBytes, uint32_t& frames)
{
    float* f = engine.FrameBlock.Resize(kFrameBlockFloats, false);
    switch (stream.Stream_Bits) {
    case 8:
        ConvertDepth<8>(stream.Stream_Channels, source, sourceBytes, f, frames);
        break;
    case 16:
        ConvertDepth<16>(stream.Stream_Channels, source, sourceBytes, f, frames);
        break;
    case 24:
        ConvertDepth<24>(stream.Stream_Channels, source, sourceBytes, f, frames);
        break;
    case 32:
        ConvertDepth<32>(stream.Stream_Channels, source, sourceBytes, f, frames);
        break;
    default:
        // No conversion: the frames that earlier writes left go on.
        break;
    }

    const ProcessorSettingsRecord& s = settings;
    ProcessorBlock block;
    block.Mode = s.Mode;
    block.Surround_Delay = s.Surround_Delay;
    block.Centre_Width = s.Centre_Width;
    block.Centre_Trim = s.Centre_Trim;
    block.Surround_Trim_00 = s.Surround_Trim_00;
    block.Bass_Redir = s.Bass_Redir;
    block.Bass_Redir_Enable = s.Bass_Redir_Enable;
    block.Bass_Trim = s.Bass_Trim;
    block.Bass_Invert = s.Bass_Invert;
    block.Virtual_C = s.Virtual_C;
    block.L = s.L;
    block.R = s.R;
    block.C = s.C;
    block.SL = s.SL;
    block.SR = s.SR;
    block.In_Channels = int32_t(stream.Stream_Channels);
    block.Sample_Rate = stream.Stream_Rate;
    block.Frames = frames;
    block.Block = &engine.FrameBlock;

    DispatchMode(engine, block);

    frames = block.Frames;
    const float* out = engine.FrameBlock.data;  // anew: a stage may have reallocated it
    const uint32_t floats = block.Frames * kFrameFloats;
    // The bytes in four-byte units, plus one.
    const uint32_t n = (((stream.Output_Bits / 8) * block.Frames * 6) / 4) + 1;
    switch (stream.Output_Bits) {
    case 16:
        engine.PcmBlock.Resize(n, false);
        StorePcm<16>(out, reinterpret_cast<uint8_t*>(engine.PcmBlock.data), floats, kOutputScale16);
        break;
    case 24:
        engine.PcmBlock.Resize(n, false);
        StorePcm<24>(out, reinterpret_cast<uint8_t*>(engine.PcmBlock.data), floats, kOutputScale24);
        break;
    case 32:
        engine.PcmBlock.Resize(n, false);
        StorePcm<32>(out, reinterpret_cast<uint8_t*>(engine.PcmBlock.data), floats, kOutputScale32);
        break;
    default:
        // Any other word size: PcmBlock keeps its size and contents.
        break;
    }
}
