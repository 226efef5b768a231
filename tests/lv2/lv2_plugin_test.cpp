// The three plug-ins of kelvane.lv2 loaded by lilv into this process and run
// as a host runs them, in blocks of many sizes, against the engine's own
// float output for the same frames and settings: sample for sample, bit for
// bit. Also: what the bundle tells a host about ports, ranges and defaults,
// the latency of the headphone mode, settings that change between runs, and
// a host that runs with denormals flushed.
#include <gtest/gtest.h>

#include <xmmintrin.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tests/lv2/engine_reference.h"
#include "tests/lv2/lv2_host.h"

namespace {

constexpr double kRate = 48000.0;
constexpr uint32_t kHoldBack = 8192;  // the headphone mode's block
// Host block sizes, cycled: a PipeWire quantum, a single frame, odd sizes, one
// whole convolver block and a block longer than two of them.
const std::vector<uint32_t> kHostBlocks = {1024, 1, 333, 8192, 20000, 64, 4095};
constexpr uint32_t kLargestBlock = 20000;
constexpr uint32_t kSourceFrames = 60000;

const char* const kUpmix = "urn:kelvane:upmix";
const char* const kHeadphone = "urn:kelvane:headphone";
const char* const kEncode = "urn:kelvane:encode";

Lv2World& World()
{
    static Lv2World world;
    return world;
}

// Settings that make every stage of the upmix do something.
SettingsWords BusySettings(int32_t mode)
{
    SettingsWords s;
    s.Mode = mode;
    s.Surround_Delay = 17;
    s.Centre_Width = 40;
    s.Centre_Trim = -3;
    s.Surround_Trim_00 = 2;
    s.Bass_Redir = 90;
    s.Bass_Redir_Enable = 1;
    s.Bass_Trim = 4;
    s.Bass_Invert = 1;
    s.SR = 0;
    return s;
}

void SetUpmixControls(HostedPlugin& plugin, const SettingsWords& s)
{
    plugin.Set("mode", float(s.Mode));
    plugin.Set("surround_delay", float(s.Surround_Delay));
    plugin.Set("centre_width", float(s.Centre_Width));
    plugin.Set("centre_trim", float(s.Centre_Trim));
    plugin.Set("surround_trim", float(s.Surround_Trim_00));
    plugin.Set("bass_redir", float(s.Bass_Redir));
    plugin.Set("bass_redir_enable", float(s.Bass_Redir_Enable));
    plugin.Set("bass_trim", float(s.Bass_Trim));
    plugin.Set("bass_invert", float(s.Bass_Invert));
    plugin.Set("virtual_c", float(s.Virtual_C));
    plugin.Set("speaker_l", float(s.L));
    plugin.Set("speaker_r", float(s.R));
    plugin.Set("speaker_c", float(s.C));
    plugin.Set("speaker_sl", float(s.SL));
    plugin.Set("speaker_sr", float(s.SR));
}

void ExpectSlotsIdentical(const SlotSignals& actual, const SlotSignals& expected, int slots)
{
    for (int s = 0; s < slots; ++s) {
        ASSERT_EQ(actual[s].size(), expected[s].size()) << "slot " << s;
        const long at = FirstDifference(actual, expected, s);
        EXPECT_EQ(at, -1) << "slot " << s << " first differs at frame " << at << ": " << actual[s][at]
                          << " against the engine's " << expected[s][at];
    }
}

struct PortExpectation {
    const char* symbol;
    float minimum;
    float maximum;
    float defaultValue;
};

TEST(Lv2Bundle, DescribesEachPluginsAudioPortsInSpeakerOrder)
{
    const struct {
        const char* uri;
        std::vector<std::string> audio;
    } plugins[] = {
        {kUpmix, {"in_l", "in_r", "out_l", "out_r", "out_c", "out_lfe", "out_sl", "out_sr"}},
        {kHeadphone, {"in_l", "in_r", "in_c", "in_lfe", "in_sl", "in_sr", "out_l", "out_r"}},
        {kEncode, {"in_l", "in_r", "in_c", "in_lfe", "in_sl", "in_sr", "out_l", "out_r"}},
    };
    for (const auto& p : plugins) {
        const LilvPlugin* plugin = World().Plugin(p.uri);
        ASSERT_NE(plugin, nullptr) << p.uri;
        LilvNode* audioClass = lilv_new_uri(World().world(), LILV_URI_AUDIO_PORT);
        std::vector<std::string> audio;
        for (uint32_t i = 0; i < lilv_plugin_get_num_ports(plugin); ++i) {
            const LilvPort* port = lilv_plugin_get_port_by_index(plugin, i);
            if (lilv_port_is_a(plugin, port, audioClass))
                audio.push_back(lilv_node_as_string(lilv_port_get_symbol(plugin, port)));
        }
        lilv_node_free(audioClass);
        EXPECT_EQ(audio, p.audio) << p.uri;
    }
}

TEST(Lv2Bundle, ControlsCarryTheDialogsRangesAndDefaults)
{
    // The dialog's track bars and check boxes, and the settings' defaults.
    const PortExpectation upmix[] = {
        {"mode", 0, 3, 3},          {"surround_delay", 0, 100, 10}, {"centre_width", 0, 100, 0},
        {"centre_trim", -12, 12, 0}, {"surround_trim", -12, 12, 0},  {"bass_redir", 10, 200, 120},
        {"bass_redir_enable", 0, 1, 0}, {"bass_trim", -12, 12, 0},  {"bass_invert", 0, 1, 0},
        {"virtual_c", 0, 1, 0},     {"speaker_l", 0, 1, 1},         {"speaker_r", 0, 1, 1},
        {"speaker_c", 0, 1, 1},     {"speaker_sl", 0, 1, 1},        {"speaker_sr", 0, 1, 1},
    };
    HostedPlugin plugin(World(), kUpmix, kRate, 64);
    ASSERT_TRUE(plugin.ok());
    for (const PortExpectation& e : upmix) {
        HostedPort* port = plugin.Port(e.symbol);
        ASSERT_NE(port, nullptr) << e.symbol;
        EXPECT_EQ(port->minimum, e.minimum) << e.symbol;
        EXPECT_EQ(port->maximum, e.maximum) << e.symbol;
        EXPECT_EQ(port->defaultValue, e.defaultValue) << e.symbol;
    }
}

TEST(Lv2Bundle, ModeNamesAreTheDialogsAndUnitsAreTheLabels)
{
    const LilvPlugin* plugin = World().Plugin(kUpmix);
    ASSERT_NE(plugin, nullptr);
    LilvNode* symbol = lilv_new_string(World().world(), "mode");
    const LilvPort* mode = lilv_plugin_get_port_by_symbol(plugin, symbol);
    lilv_node_free(symbol);
    ASSERT_NE(mode, nullptr);
    const char* const expected[] = {"Bypass", "Kelvane+C (3/1) = L,R,C,S", "Kelvane-AS (3/1) = L,R,C,S",
                                    "Kelvane-ASr (3/2) = L,R,C,SL,SR"};
    LilvScalePoints* points = lilv_port_get_scale_points(plugin, mode);
    ASSERT_NE(points, nullptr);
    EXPECT_EQ(lilv_scale_points_size(points), 4u);
    LILV_FOREACH (scale_points, i, points) {
        const LilvScalePoint* point = lilv_scale_points_get(points, i);
        const int value = lilv_node_as_int(lilv_scale_point_get_value(point));
        ASSERT_GE(value, 0);
        ASSERT_LE(value, 3);
        EXPECT_STREQ(lilv_node_as_string(lilv_scale_point_get_label(point)), expected[value]);
    }
    lilv_scale_points_free(points);

    const struct {
        const char* symbol;
        const char* unit;
    } units[] = {
        {"surround_delay", "http://lv2plug.in/ns/extensions/units#ms"},
        {"centre_width", "http://lv2plug.in/ns/extensions/units#pc"},
        {"centre_trim", "http://lv2plug.in/ns/extensions/units#db"},
        {"bass_redir", "http://lv2plug.in/ns/extensions/units#hz"},
    };
    LilvNode* unitPredicate = lilv_new_uri(World().world(), "http://lv2plug.in/ns/extensions/units#unit");
    for (const auto& u : units) {
        LilvNode* s = lilv_new_string(World().world(), u.symbol);
        const LilvPort* port = lilv_plugin_get_port_by_symbol(plugin, s);
        lilv_node_free(s);
        LilvNodes* values = lilv_port_get_value(plugin, port, unitPredicate);
        ASSERT_NE(values, nullptr) << u.symbol;
        EXPECT_STREQ(lilv_node_as_uri(lilv_nodes_get_first(values)), u.unit) << u.symbol;
        lilv_nodes_free(values);
    }
    lilv_node_free(unitPredicate);
}

TEST(Lv2Bundle, HeadphoneReportsItsLatencyAndEncoderHasNoSettings)
{
    const LilvPlugin* headphone = World().Plugin(kHeadphone);
    ASSERT_NE(headphone, nullptr);
    EXPECT_TRUE(lilv_plugin_has_latency(headphone));
    HostedPlugin encode(World(), kEncode, kRate, 64);
    ASSERT_TRUE(encode.ok());
    ASSERT_NE(encode.Port("source"), nullptr);
    EXPECT_EQ(encode.Port("source")->defaultValue, 6.0f);
    EXPECT_EQ(encode.Port("mode"), nullptr);
    EXPECT_EQ(encode.Port("surround_delay"), nullptr);
}

class UpmixMode : public testing::TestWithParam<int32_t> {};

TEST_P(UpmixMode, EqualsTheEnginesFloatOutputForEveryHostBlockSize)
{
    const SettingsWords words = BusySettings(GetParam());
    const SlotSignals source = TestSource(2, kSourceFrames);
    HostedPlugin plugin(World(), kUpmix, kRate, kLargestBlock);
    ASSERT_TRUE(plugin.ok());
    SetUpmixControls(plugin, words);
    const SlotSignals actual = plugin.Process(source, kHostBlocks);
    ExpectSlotsIdentical(actual, EngineFloatOutput(words, 2, int32_t(kRate), source, kHostBlocks), 6);
}

INSTANTIATE_TEST_SUITE_P(Modes0To3, UpmixMode, testing::Values(0, 1, 2, 3));

TEST(UpmixPlugin, BypassIsThePassThroughGainAndNothingElse)
{
    // 0.707 as a float, applied once: no input scale, no output factor.
    const SlotSignals source = TestSource(2, 5000);
    HostedPlugin plugin(World(), kUpmix, kRate, 1024);
    ASSERT_TRUE(plugin.ok());
    plugin.Set("mode", 0.0f);
    const SlotSignals out = plugin.Process(source, {1024});
    for (uint32_t i = 0; i < 5000; ++i) {
        ASSERT_EQ(out[0][i], source[0][i] * 0.707f) << i;
        ASSERT_EQ(out[1][i], source[1][i] * 0.707f) << i;
        for (int s = 2; s < 6; ++s)
            ASSERT_EQ(out[s][i], 0.0f) << "slot " << s << " frame " << i;
    }
}

TEST(UpmixPlugin, ASettingChangedBetweenRunsActsFromTheNextRun)
{
    // Two stretches with different settings: the plug-in reads the controls
    // at each run, as the player reads the settings at each write.
    const SlotSignals source = TestSource(2, 30000);
    const SettingsWords first = BusySettings(3);
    SettingsWords second = BusySettings(1);
    second.Surround_Delay = 55;
    second.Centre_Trim = 6;
    second.Virtual_C = 1;
    second.SR = 1;
    HostedPlugin plugin(World(), kUpmix, kRate, 12000);
    ASSERT_TRUE(plugin.ok());

    SlotSignals head, tail;
    for (int s = 0; s < 2; ++s) {
        head[s].assign(source[s].begin(), source[s].begin() + 12000);
        tail[s].assign(source[s].begin() + 12000, source[s].end());
    }
    SetUpmixControls(plugin, first);
    SlotSignals actual = plugin.Process(head, {12000});
    SetUpmixControls(plugin, second);
    const SlotSignals rest = plugin.Process(tail, {1000, 9000});
    for (int s = 0; s < 6; ++s)
        actual[s].insert(actual[s].end(), rest[s].begin(), rest[s].end());

    const SlotSignals expected =
        EngineFloatOutput({SettingsSegment{first, 12000, {12000}}, SettingsSegment{second, 18000, {1000, 9000}}}, 2,
                          int32_t(kRate), source);
    ExpectSlotsIdentical(actual, expected, 6);
}

TEST(UpmixPlugin, ControlsOutsideTheirRangeAreHeldToIt)
{
    // Mode 9 would be the fixed matrix in the player; the upmix keeps to its
    // four modes and takes the nearest, 3. A delay of 250 ms is 100.
    const SlotSignals source = TestSource(2, 20000);
    HostedPlugin plugin(World(), kUpmix, kRate, 4096);
    ASSERT_TRUE(plugin.ok());
    SettingsWords held = BusySettings(3);
    SetUpmixControls(plugin, held);
    plugin.Set("mode", 9.0f);
    plugin.Set("surround_delay", 250.0f);
    plugin.Set("centre_trim", -40.0f);
    plugin.Set("speaker_sr", 0.4f);  // a toggle is on above zero
    held.Surround_Delay = 100;
    held.Centre_Trim = -12;
    held.SR = 1;
    ExpectSlotsIdentical(plugin.Process(source, {4096}), EngineFloatOutput(held, 2, int32_t(kRate), source, {4096}),
                         6);
}

TEST(UpmixPlugin, ActivationStartsAFreshStream)
{
    const SlotSignals source = TestSource(2, 20000);
    const SettingsWords words = BusySettings(3);
    HostedPlugin plugin(World(), kUpmix, kRate, 4096);
    ASSERT_TRUE(plugin.ok());
    SetUpmixControls(plugin, words);
    plugin.Process(source, {4096});
    plugin.Deactivate();
    plugin.Activate();
    ExpectSlotsIdentical(plugin.Process(source, {777}), EngineFloatOutput(words, 2, int32_t(kRate), source, {777}),
                         6);
}

TEST(UpmixPlugin, DenormalsFlushedByTheHostDoNotChangeTheOutput)
{
    // A quiet source whose filters run through subnormal values; the host's
    // thread flushes them, the plug-in's arithmetic must not.
    SlotSignals source = TestSource(2, 20000);
    for (int s = 0; s < 2; ++s)
        for (float& x : source[s])
            x *= 1e-36f;
    const SettingsWords words = BusySettings(3);
    const SlotSignals expected = EngineFloatOutput(words, 2, int32_t(kRate), source, {1024});
    HostedPlugin plugin(World(), kUpmix, kRate, 1024);
    ASSERT_TRUE(plugin.ok());
    SetUpmixControls(plugin, words);

    const unsigned saved = _mm_getcsr();
    const unsigned host = saved | 0x8040u;  // flush-to-zero and denormals-are-zero
    _mm_setcsr(host);
    const SlotSignals actual = plugin.Process(source, {1024});
    const unsigned after = _mm_getcsr();
    _mm_setcsr(saved);

    EXPECT_EQ(after, host) << "the host's control word is given back";
    ExpectSlotsIdentical(actual, expected, 6);
}

struct HeadphoneCase {
    int32_t channels;
    double rate;
};

class HeadphoneSource : public testing::TestWithParam<HeadphoneCase> {};

TEST_P(HeadphoneSource, EqualsTheEnginesEarsOneBlockLate)
{
    const HeadphoneCase c = GetParam();
    SettingsWords words;
    words.Mode = 4;
    words.Surround_Delay = 23;
    words.C = 0;
    const SlotSignals source = TestSource(c.channels, kSourceFrames);
    HostedPlugin plugin(World(), kHeadphone, c.rate, kLargestBlock);
    ASSERT_TRUE(plugin.ok());
    plugin.Set("source", float(c.channels));
    plugin.Set("surround_delay", 23.0f);
    plugin.Set("speaker_c", 0.0f);
    const SlotSignals actual = plugin.Process(source, kHostBlocks);
    EXPECT_EQ(plugin.Latency(), float(kHoldBack));

    const SlotSignals ears = EngineFloatOutput(words, c.channels, int32_t(c.rate), source, kHostBlocks);
    // The engine hands out whole blocks only: 7 of them for 60000 frames.
    ASSERT_EQ(ears[0].size(), 57344u);
    ExpectSlotsIdentical(actual, Delayed(ears, kHoldBack, kSourceFrames), 2);
}

INSTANTIATE_TEST_SUITE_P(StereoAndSurround, HeadphoneSource,
                         testing::Values(HeadphoneCase{2, 48000.0}, HeadphoneCase{2, 44100.0},
                                         HeadphoneCase{4, 48000.0}, HeadphoneCase{5, 44100.0},
                                         HeadphoneCase{6, 48000.0}));

TEST(HeadphonePlugin, OutsideItsRatesTheFramesPassUntouchedAndOnTime)
{
    // At 96000 Hz the Headphone mode does nothing at all: no decoder, no
    // gain, nothing held back.
    const SlotSignals source = TestSource(2, 20000);
    HostedPlugin plugin(World(), kHeadphone, 96000.0, 4096);
    ASSERT_TRUE(plugin.ok());
    const SlotSignals out = plugin.Process(source, {4096, 100});
    EXPECT_EQ(plugin.Latency(), 0.0f);
    ExpectSlotsIdentical(out, source, 2);
}

class EncodeSource : public testing::TestWithParam<int32_t> {};

TEST_P(EncodeSource, EqualsTheEnginesTwoChannels)
{
    SettingsWords words;
    words.Mode = 5;
    const SlotSignals source = TestSource(GetParam(), kSourceFrames);
    HostedPlugin plugin(World(), kEncode, kRate, kLargestBlock);
    ASSERT_TRUE(plugin.ok());
    plugin.Set("source", float(GetParam()));
    const SlotSignals actual = plugin.Process(source, kHostBlocks);
    ExpectSlotsIdentical(actual, EngineFloatOutput(words, GetParam(), int32_t(kRate), source, kHostBlocks), 2);
}

INSTANTIATE_TEST_SUITE_P(FourFiveSix, EncodeSource, testing::Values(4, 5, 6));

}  // namespace
