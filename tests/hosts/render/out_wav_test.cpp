// out_wav.so driven through its record as any host would drive it, and the
// files it leaves read back with libsndfile.
#include <algorithm>
#include <cstdlib>
#include <dlfcn.h>
#include <fstream>
#include <sys/stat.h>

#include <gtest/gtest.h>
#include <sndfile.h>

#include "test_audio.h"
#include "hosts/out_module_host.h"

namespace {

constexpr int kProcessorId = 6546551;

host::Out_Module* LoadWriter()
{
    void* library = dlopen(OutWavPath().c_str(), RTLD_NOW | RTLD_LOCAL);
    EXPECT_NE(library, nullptr) << dlerror();
    if (library == nullptr)
        return nullptr;
    auto get = reinterpret_cast<host::GetOutModuleFunction>(dlsym(library, host::kGetOutModuleName));
    EXPECT_NE(get, nullptr);
    return get != nullptr ? get() : nullptr;
}

// Points the writer's key at `file`, written by hand in the .reg format.
void SetOutFile(const TempFolder& config, const std::string& file)
{
    mkdir(config.File("Morrowfen").c_str(), 0755);
    std::ofstream(config.File("Morrowfen/OutWav.reg"), std::ios::binary)
        << "Windows Registry Editor Version 5.00\n\n"
           "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\OutWav]\n"
           "\"Out_File\"=\"" << file << "\"\n";
}

struct WriterFixture : ::testing::Test {
    TempFolder config;
    TempFolder output;
    host::Out_Module* module = nullptr;
    void SetUp() override
    {
        setenv("XDG_CONFIG_HOME", config.path.c_str(), 1);
        module = LoadWriter();
        ASSERT_NE(module, nullptr);
    }
    int Write(const std::vector<uint8_t>& bytes)
    {
        std::vector<uint8_t> copy = bytes;
        return module->Write(reinterpret_cast<char*>(copy.data()), static_cast<int>(copy.size()));
    }
};

std::vector<uint8_t> Sixteen(const std::vector<int32_t>& samples)
{
    std::vector<uint8_t> bytes;
    for (int32_t sample : samples) {
        bytes.push_back(static_cast<uint8_t>(sample & 0xFF));
        bytes.push_back(static_cast<uint8_t>((sample >> 8) & 0xFF));
    }
    return bytes;
}

}  // namespace

TEST_F(WriterFixture, RecordHasVersion16AndAllFifteenFunctions)
{
    EXPECT_EQ(module->version, 16);
    ASSERT_NE(module->description, nullptr);
    EXPECT_GT(std::string(module->description).size(), 0u);
    EXPECT_NE(module->id, kProcessorId);
    void* slots[] = {reinterpret_cast<void*>(module->Config), reinterpret_cast<void*>(module->About),
                     reinterpret_cast<void*>(module->Init), reinterpret_cast<void*>(module->Quit),
                     reinterpret_cast<void*>(module->Open), reinterpret_cast<void*>(module->Close),
                     reinterpret_cast<void*>(module->Write), reinterpret_cast<void*>(module->CanWrite),
                     reinterpret_cast<void*>(module->IsPlaying), reinterpret_cast<void*>(module->Pause),
                     reinterpret_cast<void*>(module->SetVolume), reinterpret_cast<void*>(module->SetPan),
                     reinterpret_cast<void*>(module->Flush), reinterpret_cast<void*>(module->GetOutputTime),
                     reinterpret_cast<void*>(module->GetWrittenTime)};
    for (void* slot : slots)
        EXPECT_NE(slot, nullptr);
}

TEST_F(WriterFixture, SecondCallKeepsTheHostsHandles)
{
    host::HostWindow window{nullptr};
    module->hMainWindow = &window;
    module->hDllInstance = reinterpret_cast<host::HINSTANCE>(0x1234);
    host::Out_Module* again = LoadWriter();
    EXPECT_EQ(again, module);
    EXPECT_EQ(again->hMainWindow, &window);
    EXPECT_EQ(again->hDllInstance, reinterpret_cast<host::HINSTANCE>(0x1234));
}

TEST_F(WriterFixture, SixChannelsOfSixteenBitsReadBackExactlyWithFiveOneMask)
{
    const std::string file = output.File("six.wav");
    SetOutFile(config, file);
    ASSERT_GE(module->Open(44100, 6, 16, 2000, 500), 0);
    const std::vector<int32_t> samples = Noise16(6 * 1000, 32767, 5);
    const std::vector<uint8_t> bytes = Sixteen(samples);
    // Three writes of unequal length, one of them empty.
    const std::vector<uint8_t> first(bytes.begin(), bytes.begin() + 1200);
    const std::vector<uint8_t> rest(bytes.begin() + 1200, bytes.end());
    EXPECT_EQ(Write(first), 0);
    EXPECT_EQ(Write({}), 0);
    EXPECT_EQ(Write(rest), 0);
    module->Close();

    const TestAudio audio = ReadTestAudio(file);
    EXPECT_EQ(audio.rate, 44100);
    EXPECT_EQ(audio.channels, 6);
    EXPECT_EQ(audio.format, SF_FORMAT_WAVEX | SF_FORMAT_PCM_16);
    EXPECT_EQ(audio.samples, samples);
    const std::vector<int> expected = {SF_CHANNEL_MAP_LEFT, SF_CHANNEL_MAP_RIGHT, SF_CHANNEL_MAP_CENTER,
                                       SF_CHANNEL_MAP_LFE, SF_CHANNEL_MAP_REAR_LEFT, SF_CHANNEL_MAP_REAR_RIGHT};
    EXPECT_EQ(ReadChannelMap(file), expected);
    // A RIFF file whose data chunk holds the samples and nothing else.
    const std::string whole = ReadWholeFile(file);
    ASSERT_EQ(whole.substr(0, 4), "RIFF");
    const size_t data = whole.find("data");
    ASSERT_NE(data, std::string::npos);
    const uint32_t size = static_cast<uint8_t>(whole[data + 4]) | static_cast<uint8_t>(whole[data + 5]) << 8 |
                          static_cast<uint8_t>(whole[data + 6]) << 16 |
                          static_cast<uint32_t>(static_cast<uint8_t>(whole[data + 7])) << 24;
    EXPECT_EQ(size, bytes.size());
    EXPECT_EQ(whole.size(), data + 8 + bytes.size());
}

TEST_F(WriterFixture, TwentyFourAndThirtyTwoBitStreamsKeepTheirWords)
{
    for (int bits : {24, 32}) {
        const std::string file = output.File("deep" + std::to_string(bits) + ".wav");
        SetOutFile(config, file);
        ASSERT_GE(module->Open(48000, 6, bits, 2000, 500), 0);
        std::vector<uint8_t> bytes;
        std::vector<int32_t> expected;
        for (int i = 0; i < 6 * 50; ++i) {
            const int32_t value = (bits == 24 ? -4000000 : -2000000000) + i * 12345;
            expected.push_back(value);
            for (int b = 0; b < bits / 8; ++b)
                bytes.push_back(static_cast<uint8_t>(static_cast<uint32_t>(value) >> (8 * b)));
        }
        EXPECT_EQ(Write(bytes), 0);
        module->Close();
        const TestAudio audio = ReadTestAudio(file);
        EXPECT_EQ(audio.format, SF_FORMAT_WAVEX | (bits == 24 ? SF_FORMAT_PCM_24 : SF_FORMAT_PCM_32));
        EXPECT_EQ(audio.rate, 48000);
        EXPECT_EQ(audio.samples, expected) << bits;
    }
}

TEST_F(WriterFixture, TimesAreDerivedFromTheBytesWritten)
{
    SetOutFile(config, output.File("time.wav"));
    ASSERT_GE(module->Open(44100, 2, 16, 2000, 500), 0);
    EXPECT_EQ(module->GetWrittenTime(), 0);
    std::vector<uint8_t> second(44100 * 4, 0);
    EXPECT_EQ(Write(second), 0);
    EXPECT_EQ(module->GetWrittenTime(), 1000);
    EXPECT_EQ(module->GetOutputTime(), 1000);
    // A seek: the clock restarts at the host's time.
    module->Flush(5000);
    EXPECT_EQ(module->GetWrittenTime(), 5000);
    std::vector<uint8_t> half(22050 * 4, 0);
    EXPECT_EQ(Write(half), 0);
    EXPECT_EQ(module->GetWrittenTime(), 5500);
    EXPECT_EQ(module->IsPlaying(), 0);
    module->Close();
    // Flush does not cut the file: all 1.5 s are in it.
    EXPECT_EQ(ReadTestAudio(output.File("time.wav")).Frames(), 44100 + 22050);
}

TEST_F(WriterFixture, CanWriteIsGenerousAndZeroWhilePaused)
{
    SetOutFile(config, output.File("pause.wav"));
    ASSERT_GE(module->Open(44100, 6, 32, 2000, 500), 0);
    // Room for the largest block a processor sends: 8192 frames of 6 x 32 bits.
    EXPECT_GE(module->CanWrite(), 8192 * 6 * 4);
    EXPECT_EQ(module->Pause(1), 0);
    EXPECT_EQ(module->CanWrite(), 0);
    EXPECT_EQ(module->Pause(0), 1);
    EXPECT_GE(module->CanWrite(), 8192 * 6 * 4);
    module->SetVolume(10);
    module->SetPan(-127);
    std::vector<uint8_t> bytes(24, 0x55);
    EXPECT_EQ(Write(bytes), 0);
    module->Close();
    // Volume and pan leave the samples alone.
    const TestAudio audio = ReadTestAudio(output.File("pause.wav"));
    ASSERT_EQ(audio.samples.size(), 6u);
    EXPECT_EQ(audio.samples[0], 0x55555555);
}

TEST_F(WriterFixture, OddDataIsFollowedByAPadByte)
{
    const std::string file = output.File("odd.wav");
    SetOutFile(config, file);
    ASSERT_GE(module->Open(8000, 1, 8, 2000, 500), 0);
    EXPECT_EQ(Write({0x80, 0xFF, 0x00}), 0);
    module->Close();
    // RIFF chunks are padded to an even size, the file with them.
    EXPECT_EQ(ReadWholeFile(file).size() % 2, 0u);
    const TestAudio audio = ReadTestAudio(file);
    EXPECT_EQ(audio.samples, (std::vector<int32_t>{0, 127, -128}));
}

TEST_F(WriterFixture, AFrameCutByOneWriteIsCompletedByTheNext)
{
    const std::string file = output.File("cut.wav");
    SetOutFile(config, file);
    ASSERT_GE(module->Open(44100, 2, 16, 2000, 500), 0);
    // Frames (0x0201, 0x0403) and (0x0605, 0x0807), split after five bytes.
    EXPECT_EQ(Write({0x01, 0x02, 0x03, 0x04, 0x05}), 0);
    EXPECT_EQ(Write({0x06, 0x07, 0x08}), 0);
    module->Close();
    EXPECT_EQ(ReadTestAudio(file).samples, (std::vector<int32_t>{0x0201, 0x0403, 0x0605, 0x0807}));
}

TEST_F(WriterFixture, OutChannelsKeepsTheFirstChannelsOfEachFrame)
{
    const std::string file = output.File("two.wav");
    mkdir(config.File("Morrowfen").c_str(), 0755);
    std::ofstream(config.File("Morrowfen/OutWav.reg"), std::ios::binary)
        << "Windows Registry Editor Version 5.00\n\n"
           "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\OutWav]\n"
           "\"Out_File\"=\"" << file << "\"\n\"Out_Channels\"=dword:00000002\n";
    ASSERT_GE(module->Open(44100, 6, 16, 2000, 500), 0);
    // Two frames of six channels, the second cut after three bytes of it.
    const std::vector<uint8_t> frames = Sixteen({1, 2, 3, 4, 5, 6, -7, -8, 9, 10, 11, 12});
    EXPECT_EQ(Write(std::vector<uint8_t>(frames.begin(), frames.begin() + 15)), 0);
    EXPECT_EQ(Write(std::vector<uint8_t>(frames.begin() + 15, frames.end())), 0);
    module->Close();
    const TestAudio audio = ReadTestAudio(file);
    EXPECT_EQ(audio.channels, 2);
    EXPECT_EQ(audio.samples, (std::vector<int32_t>{1, 2, -7, -8}));
}

// Out_Format names the container exactly: a plain WAV format chunk
// (WAVE_FORMAT_PCM, 1) for stereo of 16 bits, W64, RF64, where the default
// is RF64 turned into WAVE_FORMAT_EXTENSIBLE (0xFFFE).
TEST_F(WriterFixture, OutFormatNamesTheContainer)
{
    struct Case {
        const char* name;
        const char* value;  // the dword, empty for none
        int format;
    };
    const Case cases[] = {{"plain.wav", "00010000", SF_FORMAT_WAV | SF_FORMAT_PCM_16},
                          {"o.w64", "000b0000", SF_FORMAT_W64 | SF_FORMAT_PCM_16},
                          {"o.rf64", "00220000", SF_FORMAT_RF64 | SF_FORMAT_PCM_16},
                          {"default.wav", "", SF_FORMAT_WAVEX | SF_FORMAT_PCM_16},
                          {"unknown.wav", "00170000", SF_FORMAT_WAVEX | SF_FORMAT_PCM_16}};
    for (const Case& c : cases) {
        const std::string file = output.File(c.name);
        mkdir(config.File("Morrowfen").c_str(), 0755);
        std::ofstream reg(config.File("Morrowfen/OutWav.reg"), std::ios::binary);
        reg << "Windows Registry Editor Version 5.00\n\n"
               "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\OutWav]\n"
               "\"Out_File\"=\"" << file << "\"\n";
        if (c.value[0] != '\0')
            reg << "\"Out_Format\"=dword:" << c.value << "\n";
        reg.close();
        ASSERT_GE(module->Open(44100, 2, 16, 2000, 500), 0) << c.name;
        EXPECT_EQ(Write(Sixteen({1, -2, 3, -4})), 0);
        module->Close();
        const TestAudio audio = ReadTestAudio(file);
        EXPECT_EQ(audio.format, c.format) << c.name;
        EXPECT_EQ(audio.samples, (std::vector<int32_t>{1, -2, 3, -4})) << c.name;
    }
    std::ifstream plain(output.File("plain.wav"), std::ios::binary);
    char header[22] = {};
    plain.read(header, sizeof header);
    EXPECT_EQ(header[20], 1);
    EXPECT_EQ(header[21], 0);
}

// The bytes are gathered and go to the file a megabyte at a time: a stream
// of player-sized writes, frames cut across writes, reads back whole and in
// order well past several megabytes, and with Out_Channels too.
TEST_F(WriterFixture, ManySmallWritesReadBackWholeAcrossTheGatheredMegabytes)
{
    for (const char* channels : {"", "00000002"}) {
        const std::string file = output.File("long.wav");
        mkdir(config.File("Morrowfen").c_str(), 0755);
        std::ofstream reg(config.File("Morrowfen/OutWav.reg"), std::ios::binary);
        reg << "Windows Registry Editor Version 5.00\n\n"
               "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Morrowfen\\OutWav]\n"
               "\"Out_File\"=\"" << file << "\"\n";
        if (channels[0] != '\0')
            reg << "\"Out_Channels\"=dword:" << channels << "\n";
        reg.close();
        ASSERT_GE(module->Open(44100, 6, 16, 2000, 500), 0);
        // 400000 frames of six channels (4.8 MB), sample k of the stream
        // holding k modulo 65536 as a signed word, in writes of 6911 bytes:
        // not a whole number of frames.
        constexpr int kFrames = 400000;
        std::vector<uint8_t> stream;
        for (int k = 0; k < kFrames * 6; ++k) {
            stream.push_back(static_cast<uint8_t>(k & 0xFF));
            stream.push_back(static_cast<uint8_t>((k >> 8) & 0xFF));
        }
        for (size_t at = 0; at < stream.size(); at += 6911) {
            const size_t end = std::min(stream.size(), at + 6911);
            ASSERT_EQ(Write(std::vector<uint8_t>(stream.begin() + static_cast<long>(at), stream.begin() + static_cast<long>(end))), 0);
        }
        module->Close();
        const TestAudio audio = ReadTestAudio(file);
        const int kept = channels[0] == '\0' ? 6 : 2;
        ASSERT_EQ(audio.channels, kept);
        ASSERT_EQ(audio.Frames(), kFrames);
        for (int64_t i = 0; i < kFrames; ++i)
            for (int c = 0; c < kept; ++c)
                ASSERT_EQ(audio.At(i, c), static_cast<int16_t>((i * 6 + c) & 0xFFFF)) << "frame " << i << " channel " << c;
    }
}

TEST_F(WriterFixture, EachOpenReadsTheFileNameAnew)
{
    SetOutFile(config, output.File("one.wav"));
    ASSERT_GE(module->Open(44100, 2, 16, 2000, 500), 0);
    EXPECT_EQ(Write(std::vector<uint8_t>(40, 1)), 0);
    module->Close();
    SetOutFile(config, output.File("two.wav"));
    ASSERT_GE(module->Open(22050, 2, 16, 2000, 500), 0);
    EXPECT_EQ(Write(std::vector<uint8_t>(80, 2)), 0);
    module->Close();
    EXPECT_EQ(ReadTestAudio(output.File("one.wav")).Frames(), 10);
    const TestAudio two = ReadTestAudio(output.File("two.wav"));
    EXPECT_EQ(two.Frames(), 20);
    EXPECT_EQ(two.rate, 22050);
}

TEST_F(WriterFixture, UnwritablePlaceFailsOpenAndRefusesWrites)
{
    SetOutFile(config, output.File("missing/folder/x.wav"));
    EXPECT_LT(module->Open(44100, 6, 16, 2000, 500), 0);
    EXPECT_NE(Write(std::vector<uint8_t>(12, 0)), 0);
    module->Close();
    EXPECT_EQ(FolderEntries(output.path).size(), 0u);
}

TEST_F(WriterFixture, WithoutItsKeyItWritesToTheHomeFolder)
{
    TempFolder home;
    setenv("HOME", home.path.c_str(), 1);
    ASSERT_GE(module->Open(44100, 2, 16, 2000, 500), 0);
    EXPECT_EQ(Write(std::vector<uint8_t>(8, 0)), 0);
    module->Close();
    EXPECT_EQ(ReadTestAudio(home.File("out_wav.wav")).Frames(), 2);
}

TEST_F(WriterFixture, InitAndQuitAroundAPlaybackFinishTheFile)
{
    module->Init();
    SetOutFile(config, output.File("quit.wav"));
    ASSERT_GE(module->Open(44100, 2, 16, 2000, 500), 0);
    EXPECT_EQ(Write(std::vector<uint8_t>(400, 0)), 0);
    // Quit without Close still leaves a finished file.
    module->Quit();
    EXPECT_EQ(ReadTestAudio(output.File("quit.wav")).Frames(), 100);
}
