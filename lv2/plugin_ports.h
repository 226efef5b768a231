// The three plug-ins of the kelvane.lv2 bundle as data: their URIs, names and
// ports in index order. An LV2 plug-in has a fixed set of ports, so there is
// one plug-in per channel shape: the upmix (stereo to six speakers, modes 0
// to 3), the headphone mode (stereo or surround to two ears) and the encoder
// (surround to two channels). The plug-in reads this table to tell what a
// port index means, and the build writes the bundle's Turtle files from it,
// so the description that a host reads and the code that runs cannot differ.
#pragma once

#include <cstdint>

// What a port carries.
enum class PortKind : uint8_t {
    AudioIn,     // one speaker slot of the frames, from the host
    AudioOut,    // one speaker slot of the frames, to the host
    ControlIn,   // one setting word
    LatencyOut,  // the frames that the plug-in holds back
};

// The words that a control port sets. The first fifteen are the settings of
// the player's dialog; Source stands for the channel count of the stream,
// which the player takes from the host and a fixed-port plug-in must be told.
enum class SettingWord : uint8_t {
    Mode,
    Surround_Delay,
    Centre_Width,
    Centre_Trim,
    Surround_Trim_00,
    Bass_Redir,
    Bass_Redir_Enable,
    Bass_Trim,
    Bass_Invert,
    Virtual_C,
    L,
    R,
    C,
    SL,
    SR,
    Source,
    Count
};
constexpr uint32_t kSettingWordCount = uint32_t(SettingWord::Count);

enum class PortUnit : uint8_t { None, Milliseconds, Percent, Decibels, Hertz };

// How a host should present a control.
enum class ControlForm : uint8_t {
    Range,        // an integer slider from minimum to maximum
    Toggle,       // on (1) or off (0)
    Enumeration,  // one of the scale points
};

struct ScalePoint {
    int32_t value;
    const char* label;
};

struct PortRow {
    PortKind kind;
    const char* symbol;  // the port's LV2 symbol, also its name in a PipeWire filter graph
    const char* name;    // what a host shows
    uint32_t slot;       // audio ports: the Frame6 slot; others: unused
    // Control ports only.
    SettingWord setting;
    ControlForm form;
    int32_t minimum;
    int32_t maximum;
    int32_t defaultValue;
    PortUnit unit;
    const ScalePoint* points;
    uint32_t pointCount;
};

struct PluginRow {
    const char* uri;
    const char* name;
    const char* ttlFile;  // its description in the bundle
    int32_t fixedMode;    // the mode of a plug-in without a Mode port; -1 for none
    int32_t fixedSource;  // the channel count of a plug-in without a Source port; -1 for none
    const PortRow* ports;
    uint32_t portCount;
};

constexpr uint32_t kPluginCount = 3;
// Upmix, headphone, encode, in this order.
extern const PluginRow kPlugins[kPluginCount];

// The plug-in of a URI, or null.
const PluginRow* FindPlugin(const char* uri);

// A control value from the host as the integer word the engine takes:
// rounded to the nearest integer and held inside the port's range; a toggle
// is on for any value above zero.
int32_t ControlWord(const PortRow& port, float value);

