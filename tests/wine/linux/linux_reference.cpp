// Renders the comparison's scenarios through the engine as the Linux build
// runs it and compares them with the bytes that reached the chained plug-in
// of the Windows DLL under Wine.
//
//   kelvane-linux-reference WINE_DIR
//
// WINE_DIR holds one NAME.pcm per scenario, written by the Windows host. Each
// write goes through the same steps as the plug-in's Write: the frame count by
// two whole-number divisions, ConvertAndProcess, and six channels of
// Output_Bits bits. Modes 0, 1, 2, 3 and 5 must agree bit for bit. Mode 4
// convolves through FFTW, whose measured plans may differ from machine to
// machine and run to run; there each word may differ by 1e-5 of full scale,
// and by one word at 16 bits, where a word is already 3e-5 of full scale.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "engine/pcm_conversion.h"
#include "signal/processor.h"
#include "tests/wine/scenarios.h"
#include "tests/support/test_engine.h"

namespace {

void ApplySettings(const Scenario& s)
{
    ProcessorSettingsRecord& p = TestSettings();
    int32_t* const fields[kSettingCount] = {&p.Mode,       &p.Out_Bits,          &p.Surround_Delay,
                                            &p.Centre_Width, &p.Centre_Trim,     &p.Surround_Trim_00,
                                            &p.Bass_Redir, &p.Bass_Redir_Enable, &p.Bass_Trim,
                                            &p.Bass_Invert, &p.Virtual_C,        &p.L,
                                            &p.R,          &p.C,                 &p.SL,
                                            &p.SR};
    for (int i = 0; i < kSettingCount; ++i)
        *fields[i] = s.settings[i];
}

std::vector<uint8_t> Render(const Scenario& s)
{
    ApplySettings(s);
    StreamWords stream{};
    stream.Stream_Channels = static_cast<uint32_t>(s.channels);
    stream.Stream_Bits = static_cast<uint32_t>(s.bits);
    stream.Stream_Rate = s.rate;
    stream.Output_Bits = static_cast<uint32_t>(s.settings[1]);
    // The DLL starts each scenario after a Quit, which resets the engine.
    EngineReset(TestEngine());

    const std::vector<uint8_t> input = MakeInput(s);
    std::vector<uint8_t> output;
    size_t at = 0;
    for (uint32_t length : MakeWriteLengths(s)) {
        uint32_t frames = (length / stream.Stream_Channels) / (stream.Stream_Bits >> 3);
        ConvertAndProcess(TestEngine(), TestSettings(), stream, input.data() + at, length, frames);
        const uint32_t bytes = (stream.Output_Bits >> 3) * frames * 6;
        const auto* pcm = reinterpret_cast<const uint8_t*>(TestEngine().PcmBlock.data);
        output.insert(output.end(), pcm, pcm + bytes);
        at += length;
    }
    return output;
}

bool ReadFile(const std::string& path, std::vector<uint8_t>& bytes)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return false;
    bytes.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    return true;
}

// The signed word at `index` of a little-endian stream of `bits`-bit words.
int64_t Word(const std::vector<uint8_t>& bytes, size_t index, int bits)
{
    const size_t size = static_cast<size_t>(bits / 8);
    uint64_t value = 0;
    for (size_t b = 0; b < size; ++b)
        value |= static_cast<uint64_t>(bytes[index * size + b]) << (8 * b);
    const uint64_t sign = uint64_t{1} << (bits - 1);
    return static_cast<int64_t>(value ^ sign) - static_cast<int64_t>(sign);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s WINE_DIR\n", argv[0]);
        return 2;
    }
    const std::string dir = argv[1];
    int passed = 0;
    int failed = 0;
    for (const Scenario& s : MakeScenarios()) {
        const std::vector<uint8_t> native = Render(s);
        std::vector<uint8_t> wine;
        if (!ReadFile(dir + "/" + s.name + ".pcm", wine)) {
            std::printf("FAIL %s: no output of the DLL\n", s.name.c_str());
            ++failed;
            continue;
        }
        if (wine.size() != native.size()) {
            std::printf("FAIL %s: %zu bytes from the DLL, %zu from the Linux build\n", s.name.c_str(), wine.size(),
                        native.size());
            ++failed;
            continue;
        }
        const int bits = s.settings[1];
        const bool exact = s.settings[0] != 4;
        if (exact) {
            if (std::memcmp(wine.data(), native.data(), wine.size()) == 0) {
                std::printf("PASS %s: %zu bytes, bit for bit\n", s.name.c_str(), wine.size());
                ++passed;
            } else {
                size_t first = 0;
                while (wine[first] == native[first])
                    ++first;
                std::printf("FAIL %s: first difference at byte %zu of %zu\n", s.name.c_str(), first, wine.size());
                ++failed;
            }
            continue;
        }
        // Mode 4: the largest difference between the two, as a fraction of
        // full scale, with words compared around the circle since output
        // beyond full scale wraps.
        const double fullScale = std::ldexp(1.0, bits - 1);
        const double bound = std::max(1e-5 * fullScale, 1.0);
        const int64_t modulus = int64_t{1} << bits;
        int64_t largest = 0;
        const size_t words = wine.size() / static_cast<size_t>(bits / 8);
        for (size_t i = 0; i < words; ++i) {
            int64_t d = Word(wine, i, bits) - Word(native, i, bits);
            d = ((d % modulus) + modulus) % modulus;
            d = std::min(d, modulus - d);
            largest = std::max(largest, d);
        }
        const bool ok = static_cast<double>(largest) <= bound;
        std::printf("%s %s: %zu bytes, largest difference %lld words (%.3g of full scale, bound %.3g)\n",
                    ok ? "PASS" : "FAIL", s.name.c_str(), wine.size(), static_cast<long long>(largest),
                    static_cast<double>(largest) / fullScale, bound / fullScale);
        ok ? ++passed : ++failed;
    }
    std::printf("%d passed, %d failed\n", passed, failed);
    return failed == 0 && passed > 0 ? 0 : 1;
}
