// The command line of kelvane-render.
#include "hosts/render/render_options.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "signal/mode.h"
#include "signal/processor.h"

namespace {

// What --mode takes and --help and the demo show.
constexpr const char* kModeNames[kModeCount] = {
    "bypass", "kelvane+c", "as", "asr", "headphone", "encode",
};

// The same for file names, where a plus sign is unwelcome.
constexpr const char* kModeFileNames[kModeCount] = {
    "bypass", "plus-c", "as", "asr", "headphone", "encode",
};

// The processor's defaults for values that the store does not hold, in the
// order of its key.
#define KELVANE_SETTING_DEFAULT(name, fallback) {#name, fallback},
const std::vector<SettingDefault> kSettingDefaults = {KELVANE_NUMBER_SETTINGS(KELVANE_SETTING_DEFAULT)};
constexpr int kDefaultMode = kModeSteeredTwoSurround;  // the default of Mode

// An option that sets one integer setting within the dialog's range.
struct RangeOption {
    const char* option;
    const char* setting;
    int32_t low;
    int32_t high;
};

constexpr RangeOption kRangeOptions[] = {
    {"--surround-delay", "Surround_Delay", 0, 100},
    {"--centre-width", "Centre_Width", 0, 100},
    {"--center-width", "Centre_Width", 0, 100},
    {"--centre-trim", "Centre_Trim", -12, 12},
    {"--center-trim", "Centre_Trim", -12, 12},
    {"--surround-trim", "Surround_Trim_00", -12, 12},
    {"--bass-trim", "Bass_Trim", -12, 12},
};

// An option without argument that sets a switch.
struct FlagOption {
    const char* option;
    const char* setting;
    int32_t value;
};

constexpr FlagOption kFlagOptions[] = {
    {"--bass-invert", "Bass_Invert", 1},
    {"--no-bass-invert", "Bass_Invert", 0},
    {"--virtual-centre", "Virtual_C", 1},
    {"--virtual-center", "Virtual_C", 1},
    {"--no-virtual-centre", "Virtual_C", 0},
    {"--no-virtual-center", "Virtual_C", 0},
};

constexpr const char* kSpeakerSwitches[] = {"L", "R", "C", "SL", "SR"};

std::string Lower(const std::string& text)
{
    std::string out = text;
    for (char& c : out)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return out;
}

bool ParseInt(const std::string& text, int32_t& value)
{
    if (text.empty())
        return false;
    errno = 0;
    char* end = nullptr;
    long number = std::strtol(text.c_str(), &end, 10);
    if (*end != '\0' || errno != 0 || number < INT32_MIN || number > INT32_MAX)
        return false;
    value = static_cast<int32_t>(number);
    return true;
}

void Override(RenderOptions& options, const char* setting, int32_t value)
{
    options.overrides.push_back(SettingOverride{setting, value});
}

bool ParseMute(const std::string& list, RenderOptions& options, std::string& error)
{
    bool muted[5] = {};
    if (Lower(list) != "none") {
        size_t start = 0;
        while (start <= list.size()) {
            size_t comma = list.find(',', start);
            if (comma == std::string::npos)
                comma = list.size();
            std::string name = list.substr(start, comma - start);
            for (char& c : name)
                if (c >= 'a' && c <= 'z')
                    c = static_cast<char>(c - 'a' + 'A');
            bool known = false;
            for (int s = 0; s < 5; ++s)
                if (name == kSpeakerSwitches[s]) {
                    muted[s] = true;
                    known = true;
                }
            if (!known) {
                error = "--mute: unknown speaker '" + name + "' (use L, R, C, SL, SR or none; LFE has no switch)";
                return false;
            }
            start = comma + 1;
        }
    }
    for (int s = 0; s < 5; ++s)
        Override(options, kSpeakerSwitches[s], muted[s] ? 0 : 1);
    return true;
}

}  // namespace

const char* ModeLabel(int mode)
{
    return mode >= 0 && mode < kModeCount ? kModeLabels[mode] : "?";
}

const char* ModeName(int mode)
{
    return mode >= 0 && mode < kModeCount ? kModeNames[mode] : "?";
}

const char* ModeFileName(int mode)
{
    return mode >= 0 && mode < kModeCount ? kModeFileNames[mode] : "?";
}

const std::vector<SettingDefault>& ProcessorSettingDefaults()
{
    return kSettingDefaults;
}

std::vector<SettingInForce> SettingsInForce(const std::vector<RegValue>& saved,
                                            const std::vector<SettingOverride>& overrides)
{
    std::vector<SettingInForce> settings;
    for (const SettingDefault& setting : kSettingDefaults) {
        SettingInForce entry{setting.name, setting.value, "default"};
        const RegValue* value = FindRegValue(saved, setting.name);
        if (value != nullptr && value->is_dword) {
            entry.value = static_cast<int32_t>(value->dword);
            entry.source = "saved";
        }
        for (const SettingOverride& option : overrides)
            if (option.name == setting.name) {
                entry.value = option.value;
                entry.source = "option";
            }
        settings.push_back(entry);
    }
    return settings;
}

int ParseModeName(const std::string& text)
{
    int32_t number = 0;
    if (ParseInt(text, number))
        return number >= 0 && number < kModeCount ? number : -1;
    // "Kelvane-ASr (3/2) = ..." and "asr" alike: drop the brand, the layout
    // and every separator.
    std::string name = Lower(text);
    size_t paren = name.find('(');
    if (paren != std::string::npos)
        name.erase(paren);
    std::string compact;
    for (char c : name)
        if (c != ' ' && c != '-' && c != '_')
            compact += c;
    if (compact.rfind("kelvane", 0) == 0)
        compact.erase(0, 7);
    if (compact == "bypass") return 0;
    if (compact == "+c" || compact == "plusc" || compact == "c") return 1;
    if (compact == "as") return 2;
    if (compact == "asr") return 3;
    if (compact == "headphone" || compact == "headphones") return 4;
    if (compact == "encode" || compact == "encoder") return 5;
    return -1;
}

bool ParseRenderArgs(int argc, const char* const* argv, RenderOptions& options, std::string& error)
{
    options = RenderOptions{};
    options.dither = true;
    options.resample = true;
    std::vector<std::string> positional;
    bool options_end = false;
    bool yes = false;
    bool no = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        // "-" alone is standard input or output, not an option.
        if (options_end || arg.size() < 2 || arg[0] != '-') {
            positional.push_back(arg);
            continue;
        }
        if (arg == "--") {
            options_end = true;
            continue;
        }
        // --name=value and --name value alike.
        std::string name = arg;
        std::string inline_value;
        bool has_inline = false;
        size_t equals = arg.find('=');
        if (arg.rfind("--", 0) == 0 && equals != std::string::npos) {
            name = arg.substr(0, equals);
            inline_value = arg.substr(equals + 1);
            has_inline = true;
        }
        auto value = [&](std::string& out) {
            if (has_inline) {
                out = inline_value;
                return true;
            }
            if (i + 1 >= argc) {
                error = name + " needs a value";
                return false;
            }
            out = argv[++i];
            return true;
        };
        // A switch: true when `name` is one and takes no value.
        auto is_switch = [&](const char* option, bool& flag, bool state) {
            if (name != option)
                return false;
            flag = state;
            return true;
        };
        std::string text;

        if (is_switch("-h", options.help, true) || is_switch("--help", options.help, true) ||
            is_switch("--version", options.version, true) || is_switch("-q", options.quiet, true) ||
            is_switch("--quiet", options.quiet, true) || is_switch("-v", options.verbose, true) ||
            is_switch("--verbose", options.verbose, true) || is_switch("-y", yes, true) ||
            is_switch("-n", no, true) || is_switch("--two-channel", options.two_channel, true) ||
            is_switch("--reset-between", options.reset_between, true) ||
            is_switch("--gapless", options.gapless, true) ||
            is_switch("--mono-as-stereo", options.mono_as_stereo, true) ||
            is_switch("--downmix", options.downmix, true) ||
            is_switch("--no-resample", options.resample, false) ||
            is_switch("--no-dither", options.dither, false) ||
            is_switch("--normalize", options.normalize, true) ||
            is_switch("--fail-on-clip", options.fail_on_clip, true)) {
            if (has_inline) {
                error = name + " takes no value";
                return false;
            }
        } else if (name == "-o" || name == "--output-dir") {
            if (!value(options.output_dir))
                return false;
        } else if (name == "-j" || name == "--jobs") {
            if (!value(text))
                return false;
            char* end = nullptr;
            const long jobs = std::strtol(text.c_str(), &end, 10);
            if (text.empty() || *end != '\0' || jobs < 1 || jobs > kMaxJobs) {
                error = name + ": give a number of processes from 1 to " + std::to_string(kMaxJobs);
                return false;
            }
            options.jobs = static_cast<int>(jobs);
        } else if (name == "--report") {
            if (!value(options.report))
                return false;
        } else if (name == "--demo") {
            if (!value(options.demo_dir))
                return false;
        } else if (name == "--plugin") {
            if (!value(options.plugin))
                return false;
        } else if (name == "--out-wav") {
            if (!value(options.out_wav))
                return false;
        } else if (name == "--format") {
            if (!value(text))
                return false;
            options.format = Lower(text);
            if (options.format != "wav" && options.format != "w64" && options.format != "rf64" &&
                options.format != "flac" && options.format != "caf") {
                error = "--format: unknown format '" + text + "' (use wav, w64, rf64, flac or caf)";
                return false;
            }
        } else if (name == "--gain") {
            if (!value(text))
                return false;
            char* end = nullptr;
            errno = 0;
            const double db = std::strtod(text.c_str(), &end);
            if (text.empty() || *end != '\0' || errno != 0 || !(db >= -kGainLimitDb && db <= kGainLimitDb)) {
                error = "--gain: '" + text + "' is not a number of decibels from -60 to 60";
                return false;
            }
            options.gain_db = db;
            options.has_gain = true;
        } else if (name == "--mode") {
            if (!value(text))
                return false;
            int mode = ParseModeName(text);
            if (mode < 0) {
                error = "--mode: unknown mode '" + text +
                        "' (use 0-5 or bypass, kelvane+c, as, asr, headphone, encode)";
                return false;
            }
            Override(options, "Mode", mode);
        } else if (name == "--out-bits") {
            int32_t bits = 0;
            if (!value(text))
                return false;
            if (Lower(text) == "float") {
                options.out_word = SampleWord{32, true};
            } else if (ParseInt(text, bits) && (bits == 16 || bits == 24 || bits == 32)) {
                options.out_word = SampleWord{bits, false};
            } else {
                error = "--out-bits: '" + text + "' is not 16, 24, 32 or float";
                return false;
            }
        } else if (name == "--bass-redir") {
            int32_t hertz = 0;
            if (!value(text))
                return false;
            if (Lower(text) == "off") {
                Override(options, "Bass_Redir_Enable", 0);
            } else if (ParseInt(text, hertz) && hertz >= 10 && hertz <= 200) {
                Override(options, "Bass_Redir", hertz);
                Override(options, "Bass_Redir_Enable", 1);
            } else {
                error = "--bass-redir: '" + text + "' is not a frequency from 10 to 200 Hz or off";
                return false;
            }
        } else if (name == "--mute") {
            if (!value(text) || !ParseMute(text, options, error))
                return false;
        } else {
            bool known = false;
            for (const RangeOption& option : kRangeOptions) {
                if (name != option.option)
                    continue;
                int32_t number = 0;
                if (!value(text))
                    return false;
                if (!ParseInt(text, number) || number < option.low || number > option.high) {
                    error = name + ": '" + text + "' is not a whole number from " + std::to_string(option.low) +
                            " to " + std::to_string(option.high);
                    return false;
                }
                Override(options, option.setting, number);
                known = true;
                break;
            }
            for (const FlagOption& option : kFlagOptions) {
                if (known || name != option.option)
                    continue;
                if (has_inline) {
                    error = name + " takes no value";
                    return false;
                }
                Override(options, option.setting, option.value);
                known = true;
            }
            if (!known) {
                error = "unknown option '" + arg + "' (see --help)";
                return false;
            }
        }
    }

    if (options.help || options.version)
        return true;
    if (yes && no) {
        error = "-y and -n contradict each other";
        return false;
    }
    options.overwrite = yes ? Overwrite::Always : (no ? Overwrite::Never : Overwrite::Ask);
    if (options.quiet && options.verbose) {
        error = "-q and -v contradict each other";
        return false;
    }
    if (options.normalize && options.has_gain) {
        error = "--gain and --normalize contradict each other (--normalize chooses the gain)";
        return false;
    }
    if (options.out_word.bits != 0 && options.format == "flac" &&
        (options.out_word.floating || options.out_word.bits > 24)) {
        error = "--out-bits: FLAC holds 16 or 24 bits";
        return false;
    }
    if (!options.demo_dir.empty()) {
        if (!positional.empty() || !options.output_dir.empty()) {
            error = "--demo DIR takes no input or output files";
            return false;
        }
        return true;
    }
    if (!options.output_dir.empty()) {
        if (positional.empty()) {
            error = "no input file (see --help)";
            return false;
        }
        options.inputs = positional;
    } else {
        if (positional.size() < 2) {
            error = positional.empty() ? "no input file (see --help)"
                                       : "no output file (give INPUT... OUTPUT or -o DIR)";
            return false;
        }
        options.output = positional.back();
        positional.pop_back();
        options.inputs = positional;
    }
    if (std::count(options.inputs.begin(), options.inputs.end(), "-") > 1) {
        error = "standard input can be read only once";
        return false;
    }
    return true;
}

void ApplyOverrides(const std::vector<SettingOverride>& overrides, std::vector<RegValue>& values)
{
    for (const SettingOverride& setting : overrides)
        SetRegDword(values, setting.name, setting.value);
}

int EffectiveMode(const std::vector<RegValue>& values)
{
    const RegValue* value = FindRegValue(values, "Mode");
    return value != nullptr && value->is_dword ? static_cast<int32_t>(value->dword) : kDefaultMode;
}

std::string RenderUsage(const std::string& settings_file)
{
    std::string text =
        "usage: kelvane-render [options] INPUT... OUTPUT\n"
        "       kelvane-render [options] -o DIR INPUT...\n"
        "       kelvane-render [options] --demo DIR\n"
        "\n"
        "Plays audio files through the Kelvane processor (out_kelvane.so) the way a\n"
        "player does and writes what comes out: six channels L, R, C, LFE, SL, SR.\n"
        "Several inputs are one play-list; with one OUTPUT they are joined in it,\n"
        "with -o DIR each input gets DIR/NAME.EXT. Any format libsndfile reads;\n"
        "'-' reads standard input or writes standard output.\n"
        "\n"
        "Settings, for this run only (without them the saved settings apply, and\n"
        "without those the processor's defaults, shown in brackets):\n"
        "  --mode N|NAME          0 bypass, 1 kelvane+c, 2 as, 3 asr, 4 headphone,\n"
        "                         5 encode [asr]\n"
        "  --surround-delay MS    surround delay, 0 to 100 ms [10]\n"
        "  --centre-width PCT     centre width, 0 to 100 % [0]\n"
        "  --centre-trim DB       centre level, -12 to 12 dB [0]\n"
        "  --surround-trim DB     surround level, -12 to 12 dB [0]\n"
        "  --bass-redir HZ|off    redirect bass below HZ (10 to 200) into LFE, or not [off, 120]\n"
        "  --bass-trim DB         redirected bass level, -12 to 12 dB [0]\n"
        "  --bass-invert          invert the redirected bass (--no-bass-invert) [no]\n"
        "  --virtual-centre       fold the centre into left and right (--no-virtual-centre) [no]\n"
        "  --mute LIST            speakers off, from L,R,C,SL,SR; the others on; 'none' for all on\n"
        "\n"
        "Levels:\n"
        "  --gain DB              gain before the processor, -60 to 60 dB [0]\n"
        "  --normalize            two passes: the loudest sample before the output\n"
        "                         conversion ends at -0.1 dBFS\n"
        "  --fail-on-clip         fail (status 3, nothing written) when a sample goes\n"
        "                         over full scale; without it the render is written\n"
        "                         and the clipped samples are reported\n"
        "\n"
        "Output:\n"
        "  -o DIR                 one output file per input, in DIR, each from a reset\n"
        "                         processor\n"
        "  -y                     replace existing output files\n"
        "  -n                     never replace them (without -y or -n: ask on a\n"
        "                         terminal, refuse otherwise)\n"
        "  --format NAME          wav, w64, rf64, flac or caf [by the extension of OUTPUT;\n"
        "                         wav for '-' and -o DIR]\n"
        "  --out-bits 16|24|32|float  output word [the saved Out_Bits, else the input's:\n"
        "                         8 and 16 bits give 16, 24 gives 24, 32 gives 32, float\n"
        "                         gives float, compressed sources 16]\n"
        "  --no-dither            shorten words without TPDF dither\n"
        "  --two-channel          keep only L and R (for the headphone and encode modes)\n"
        "  --report FILE          levels over time, clipped samples and file boundaries\n"
        "                         as FILE.svg or FILE.png\n"
        "\n"
        "Input:\n"
        "  --mono-as-stereo       feed a mono file as two equal channels (decoded to C)\n"
        "  --downmix              fold 3 channels to 2, 7 or 8 channels to 5.1\n"
        "  --no-resample          headphone mode below 44100 or above 48000 Hz: pass the\n"
        "                         input through unprocessed (without it: through 48000 Hz)\n"
        "  --gapless              with -o DIR: run on from file to file like a play-list\n"
        "  --reset-between        press Stop and Play between the files of a play-list\n"
        "  -j N                   with -o DIR, N processes render the files side by side\n"
        "                         [1]; files that run on into each other (--gapless),\n"
        "                         --normalize, --fail-on-clip and --report keep one\n"
        "                         process\n"
        "\n"
        "Messages:\n"
        "  -q                     errors only; the levels are then measured only for\n"
        "                         --normalize, --fail-on-clip and --report\n"
        "  -v                     also the processor's messages and the player's calls\n"
        "  --plugin PATH          the processor to load (default: $KELVANE_PLUGIN, else\n"
        "                         out_kelvane.so beside this program, in ../lib/kelvane,\n"
        "                         or in its build)\n"
        "  --out-wav PATH         the writer plug-in behind it (default: found the same way)\n"
        "  --demo DIR             render a built-in test scene in every mode into DIR\n"
        "                         and print its levels per mode and segment\n"
        "  -h, --help             this text\n"
        "  --version              the version\n"
        "\n"
        "Saved settings: ";
    text += settings_file.empty() ? std::string("$XDG_CONFIG_HOME/Morrowfen/Kelvane.reg") : settings_file;
    text +=
        "\n"
        "  (read, never written; set them with the player's configuration dialog)\n"
        "\n"
        "Limits: inputs of 1, 2, 4, 5 or 6 channels (3, 7 and 8 with --downmix);\n"
        "  one sample rate per OUTPUT; the headphone mode works at 44100 to 48000 Hz;\n"
        "  FLAC holds 16 or 24 bits; WAV becomes RF64 past 4 GiB.\n"
        "\n"
        "Exit status: 0 done, 1 failed (nothing written), 2 bad command line,\n"
        "  3 clipped with --fail-on-clip, 130 interrupted.\n";
    return text;
}
