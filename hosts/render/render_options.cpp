// The command line of kelvane-render.
#include "hosts/render/render_options.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int kModeCount = 6;

constexpr const char* kModeLabels[kModeCount] = {
    "Bypass",
    "Kelvane+C (3/1) = L,R,C,S",
    "Kelvane-AS (3/1) = L,R,C,S",
    "Kelvane-ASr (3/2) = L,R,C,SL,SR",
    "Kelvane Headphone (2/0) = L,R",
    "Kelvane Encode (2/0) = L,R",
};

constexpr const char* kModeShortNames[kModeCount] = {
    "bypass", "plus-c", "as", "asr", "headphone", "encode",
};

// Defaults of the processor for values that the store does not hold.
constexpr int kDefaultMode = 3;
constexpr int kDefaultOutBits = 16;

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

const char* ModeShortName(int mode)
{
    return mode >= 0 && mode < kModeCount ? kModeShortNames[mode] : "?";
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
    std::vector<std::string> positional;
    bool options_end = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
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
        std::string text;

        if (name == "-h" || name == "--help") {
            options.help = true;
        } else if (name == "--version") {
            options.version = true;
        } else if (name == "-q" || name == "--quiet") {
            options.quiet = true;
        } else if (name == "--two-channel") {
            options.two_channel = true;
        } else if (name == "--reset-between") {
            options.reset_between = true;
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
            if (!ParseInt(text, bits) || (bits != 16 && bits != 24 && bits != 32)) {
                error = "--out-bits: '" + text + "' is not 16, 24 or 32";
                return false;
            }
            Override(options, "Out_Bits", bits);
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
        return true;
    }
    if (positional.size() < 2) {
        error = positional.empty() ? "no input file (see --help)" : "no output file (give INPUT... OUTPUT or -o DIR)";
        return false;
    }
    options.output = positional.back();
    positional.pop_back();
    options.inputs = positional;
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

int EffectiveOutBits(const std::vector<RegValue>& values)
{
    const RegValue* value = FindRegValue(values, "Out_Bits");
    return value != nullptr && value->is_dword ? static_cast<int32_t>(value->dword) : kDefaultOutBits;
}

const char* RenderUsage()
{
    return
        "usage: kelvane-render [options] INPUT... OUTPUT.wav\n"
        "       kelvane-render [options] -o DIR INPUT...\n"
        "       kelvane-render [options] --demo DIR\n"
        "\n"
        "Plays audio files through the Kelvane processor (out_kelvane.so) the way a\n"
        "player does and writes what comes out: six channels L, R, C, LFE, SL, SR.\n"
        "Several inputs are one play-list; with one OUTPUT they are joined in it,\n"
        "with -o DIR each input gets DIR/NAME.wav. Any format libsndfile reads.\n"
        "\n"
        "Settings, for this run only (without them the saved settings apply):\n"
        "  --mode N|NAME          0 bypass, 1 kelvane+c, 2 as, 3 asr, 4 headphone, 5 encode\n"
        "  --out-bits 16|24|32    output word size\n"
        "  --surround-delay MS    surround delay, 0 to 100 ms\n"
        "  --centre-width PCT     centre width, 0 to 100 %\n"
        "  --centre-trim DB       centre level, -12 to 12 dB\n"
        "  --surround-trim DB     surround level, -12 to 12 dB\n"
        "  --bass-redir HZ|off    redirect bass below HZ (10 to 200) into LFE, or not\n"
        "  --bass-trim DB         redirected bass level, -12 to 12 dB\n"
        "  --bass-invert          invert the redirected bass (--no-bass-invert)\n"
        "  --virtual-centre       fold the centre into left and right (--no-virtual-centre)\n"
        "  --mute LIST            speakers off, from L,R,C,SL,SR; the others on; 'none' for all on\n"
        "\n"
        "Rendering:\n"
        "  -o DIR                 one output file per input, in DIR\n"
        "  --two-channel          keep only L and R (for the headphone and encode modes)\n"
        "  --reset-between        press Stop and Play between the files of the play-list\n"
        "  -j N                   with -o DIR and --reset-between, N processes render the\n"
        "                         files side by side (default: one per core); files that\n"
        "                         carry into each other are always rendered in turn\n"
        "  --report FILE.svg      draw the input and output levels over time\n"
        "  -q                     no progress bar\n"
        "  --plugin PATH          the processor to load (default: $KELVANE_PLUGIN, else\n"
        "                         out_kelvane.so beside this program, else in its build)\n"
        "  --out-wav PATH         the WAV writer plug-in (default: beside this program)\n"
        "  --demo DIR             render a built-in test scene in every mode into DIR\n"
        "                         and print its levels per mode and segment\n"
        "  -h, --help             this text\n"
        "  --version              the version\n";
}
