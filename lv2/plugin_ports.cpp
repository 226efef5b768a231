// The port table of the bundle. Ranges, defaults and labels are those of the
// player's configuration dialog and settings store; each plug-in carries the
// controls that act in its modes and no others (the dialog greys out the
// rest in those modes, and the engine does not read them there).
#include "lv2/plugin_ports.h"

#include <cmath>
#include <cstring>

#include "encoders/headphone_convolver.h"
#include "signal/frame.h"
#include "signal/mode.h"

namespace {

constexpr PortRow Audio(PortKind kind, const char* symbol, const char* name, uint32_t slot)
{
    return PortRow{kind, symbol, name, slot, SettingWord::Count, ControlForm::Range, 0, 0, 0,
                   PortUnit::None, nullptr, 0};
}

constexpr PortRow Control(const char* symbol, const char* name, SettingWord setting, ControlForm form,
                          int32_t minimum, int32_t maximum, int32_t defaultValue, PortUnit unit,
                          const ScalePoint* points = nullptr, uint32_t pointCount = 0)
{
    return PortRow{PortKind::ControlIn, symbol, name, 0, setting, form, minimum, maximum, defaultValue,
                   unit, points, pointCount};
}

constexpr PortRow Switch(const char* symbol, const char* name, SettingWord setting, int32_t defaultValue)
{
    return Control(symbol, name, setting, ControlForm::Toggle, 0, 1, defaultValue, PortUnit::None);
}

// The speaker order of a six-channel source and of the frames.
constexpr PortRow kInL = Audio(PortKind::AudioIn, "in_l", "In L", kSlotL);
constexpr PortRow kInR = Audio(PortKind::AudioIn, "in_r", "In R", kSlotR);
constexpr PortRow kInC = Audio(PortKind::AudioIn, "in_c", "In C", kSlotC);
constexpr PortRow kInLFE = Audio(PortKind::AudioIn, "in_lfe", "In LFE", kSlotLFE);
constexpr PortRow kInSL = Audio(PortKind::AudioIn, "in_sl", "In SL", kSlotSL);
constexpr PortRow kInSR = Audio(PortKind::AudioIn, "in_sr", "In SR", kSlotSR);
constexpr PortRow kOutL = Audio(PortKind::AudioOut, "out_l", "Out L", kSlotL);
constexpr PortRow kOutR = Audio(PortKind::AudioOut, "out_r", "Out R", kSlotR);
constexpr PortRow kOutC = Audio(PortKind::AudioOut, "out_c", "Out C", kSlotC);
constexpr PortRow kOutLFE = Audio(PortKind::AudioOut, "out_lfe", "Out LFE", kSlotLFE);
constexpr PortRow kOutSL = Audio(PortKind::AudioOut, "out_sl", "Out SL", kSlotSL);
constexpr PortRow kOutSR = Audio(PortKind::AudioOut, "out_sr", "Out SR", kSlotSR);

// The dialog's mode list, as far as the upmix runs it.
constexpr ScalePoint kUpmixModes[] = {
    {kModeBypass, kModeLabels[kModeBypass]},
    {kModeFixedMatrix, kModeLabels[kModeFixedMatrix]},
    {kModeSteered, kModeLabels[kModeSteered]},
    {kModeSteeredTwoSurround, kModeLabels[kModeSteeredTwoSurround]},
};

// Channel counts of a surround source on six ports, by the player's channel
// table: four fill L, R, SL, SR; five add C; six add LFE.
constexpr ScalePoint kHeadphoneSources[] = {
    {2, "Stereo, decoded first"},
    {4, "Four channels: L, R, SL, SR"},
    {5, "Five channels: L, R, C, SL, SR"},
    {6, "Six channels: L, R, C, LFE, SL, SR"},
};
constexpr const ScalePoint* kEncodeSources = kHeadphoneSources + 1;
constexpr uint32_t kEncodeSourceCount = 3;

constexpr PortRow kMode = Control("mode", "Mode", SettingWord::Mode, ControlForm::Enumeration, kModeBypass,
                                  kModeSteeredTwoSurround, kModeSteeredTwoSurround, PortUnit::None, kUpmixModes, 4);
constexpr PortRow kSurroundDelay = Control("surround_delay", "Surround delay", SettingWord::Surround_Delay,
                                           ControlForm::Range, 0, 100, 10, PortUnit::Milliseconds);
constexpr PortRow kCentreWidth = Control("centre_width", "Centre width", SettingWord::Centre_Width,
                                         ControlForm::Range, 0, 100, 0, PortUnit::Percent);
constexpr PortRow kCentreTrim = Control("centre_trim", "Centre trim", SettingWord::Centre_Trim,
                                        ControlForm::Range, -12, 12, 0, PortUnit::Decibels);
constexpr PortRow kSurroundTrim = Control("surround_trim", "Surround trim", SettingWord::Surround_Trim_00,
                                          ControlForm::Range, -12, 12, 0, PortUnit::Decibels);
constexpr PortRow kBassRedir = Control("bass_redir", "Bass redirection", SettingWord::Bass_Redir,
                                       ControlForm::Range, 10, 200, 120, PortUnit::Hertz);
constexpr PortRow kBassRedirEnable = Switch("bass_redir_enable", "Bass redirection enable",
                                            SettingWord::Bass_Redir_Enable, 0);
constexpr PortRow kBassTrim = Control("bass_trim", "Bass redirection trim", SettingWord::Bass_Trim,
                                      ControlForm::Range, -12, 12, 0, PortUnit::Decibels);
constexpr PortRow kBassInvert = Switch("bass_invert", "Invert phase", SettingWord::Bass_Invert, 0);
constexpr PortRow kVirtualC = Switch("virtual_c", "Virtual centre speaker", SettingWord::Virtual_C, 0);
constexpr PortRow kSpeakerL = Switch("speaker_l", "Speaker L", SettingWord::L, 1);
constexpr PortRow kSpeakerR = Switch("speaker_r", "Speaker R", SettingWord::R, 1);
constexpr PortRow kSpeakerC = Switch("speaker_c", "Speaker C", SettingWord::C, 1);
constexpr PortRow kSpeakerSL = Switch("speaker_sl", "Speaker SL", SettingWord::SL, 1);
constexpr PortRow kSpeakerSR = Switch("speaker_sr", "Speaker SR", SettingWord::SR, 1);
constexpr PortRow kHeadphoneSource = Control("source", "Source channels", SettingWord::Source,
                                             ControlForm::Enumeration, 2, 6, 2, PortUnit::None,
                                             kHeadphoneSources, 4);
constexpr PortRow kEncodeSource = Control("source", "Source channels", SettingWord::Source,
                                          ControlForm::Enumeration, 4, 6, 6, PortUnit::None, kEncodeSources,
                                          kEncodeSourceCount);
constexpr PortRow kLatency = PortRow{PortKind::LatencyOut, "latency", "Latency", 0, SettingWord::Count,
                                     ControlForm::Range, 0, int32_t(kBlockFrames), 0, PortUnit::None,
                                     nullptr, 0};

constexpr PortRow kUpmixPorts[] = {
    kInL,         kInR,           kOutL,        kOutR,          kOutC,      kOutLFE,
    kOutSL,       kOutSR,         kMode,        kSurroundDelay, kCentreWidth, kCentreTrim,
    kSurroundTrim, kBassRedir,    kBassRedirEnable, kBassTrim,  kBassInvert, kVirtualC,
    kSpeakerL,    kSpeakerR,      kSpeakerC,    kSpeakerSL,     kSpeakerSR,
};

// In the headphone mode the engine clears width, virtual centre, both trims
// and bass redirection; the surround delay acts on a stereo source through
// the decoder, the switches on every source.
constexpr PortRow kHeadphonePorts[] = {
    kInL,       kInR,           kInC,      kInLFE,    kInSL,     kInSR,      kOutL,       kOutR,
    kHeadphoneSource, kSurroundDelay, kSpeakerL, kSpeakerR, kSpeakerC, kSpeakerSL, kSpeakerSR, kLatency,
};

// The encoder reads no setting.
constexpr PortRow kEncodePorts[] = {
    kInL, kInR, kInC, kInLFE, kInSL, kInSR, kOutL, kOutR, kEncodeSource,
};

template <uint32_t N>
constexpr uint32_t CountOf(const PortRow (&)[N])
{
    return N;
}

}  // namespace

const PluginRow kPlugins[kPluginCount] = {
    {"urn:kelvane:upmix", "Kelvane upmix", "upmix.ttl", -1, 2, kUpmixPorts, CountOf(kUpmixPorts)},
    {"urn:kelvane:headphone", "Kelvane headphone", "headphone.ttl", kModeHeadphone, -1, kHeadphonePorts,
     CountOf(kHeadphonePorts)},
    {"urn:kelvane:encode", "Kelvane encode", "encode.ttl", kModeEncode, -1, kEncodePorts, CountOf(kEncodePorts)},
};

const PluginRow* FindPlugin(const char* uri)
{
    for (const PluginRow& plugin : kPlugins)
        if (std::strcmp(plugin.uri, uri) == 0)
            return &plugin;
    return nullptr;
}

int32_t ControlWord(const PortRow& port, float value)
{
    if (port.form == ControlForm::Toggle)
        return value > 0.0f ? 1 : 0;
    // NaN and anything outside the range land on an end of it.
    if (!(value >= float(port.minimum)))
        return port.minimum;
    if (value >= float(port.maximum))
        return port.maximum;
    const int32_t word = int32_t(std::lround(value));
    if (port.form != ControlForm::Enumeration)
        return word;
    // An enumeration takes the nearest of its points.
    int32_t nearest = port.points[0].value;
    for (uint32_t k = 1; k < port.pointCount; ++k)
        if (std::abs(port.points[k].value - word) < std::abs(nearest - word))
            nearest = port.points[k].value;
    return nearest;
}
