// kelvane-render: plays audio files through out_kelvane.so the way a media
// player does and writes what comes out to WAV files.
//
// The processor gets a private copy of the user's settings store, changed by
// the command line's options, so that a run never touches the saved
// settings: XDG_CONFIG_HOME points at a work folder of this run before the
// library is loaded, and its settings file names out_wav.so as the output.
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "hosts/render/demo_scene.h"
#include "hosts/render/plugin_host.h"
#include "platform/posix/reg_file.h"
#include "hosts/render/render_job.h"
#include "hosts/render/render_options.h"

#ifndef KELVANE_RENDER_VERSION
#define KELVANE_RENDER_VERSION "0.1.3"
#endif

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitInterrupted = 130;
constexpr size_t kOutPlugMaxChars = 254;  // the processor's path buffer, less the terminator

void Fail(const std::string& message)
{
    std::fprintf(stderr, "kelvane-render: %s\n", message.c_str());
}

void OnSignal(int)
{
    RenderInterrupted = 1;
}

bool IsFile(const std::string& path)
{
    struct stat info{};
    return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

bool IsFolder(const std::string& path)
{
    struct stat info{};
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

std::string Absolute(const std::string& path)
{
    char resolved[PATH_MAX];
    if (realpath(path.c_str(), resolved) != nullptr)
        return resolved;
    return path;
}

std::string ProgramFolder()
{
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
    if (length <= 0)
        return ".";
    path[length] = '\0';
    std::string folder = path;
    return folder.substr(0, folder.rfind('/'));
}

// The first of the candidates that exists, made absolute; empty if none.
std::string FindLibrary(const std::vector<std::string>& candidates)
{
    for (const std::string& candidate : candidates)
        if (!candidate.empty() && IsFile(candidate))
            return Absolute(candidate);
    return std::string();
}

// The plug-in given by `option` (`given`), else the first of `fallbacks`
// that exists, made absolute. Empty, with the failure said, when there is
// none; `file_name` names the plug-in in that message when none was given.
std::string LocatePlugin(const std::string& given, const std::vector<std::string>& fallbacks,
                         const std::string& file_name, const std::string& option)
{
    const std::string found = FindLibrary(given.empty() ? fallbacks : std::vector<std::string>{given});
    if (found.empty())
        Fail("cannot load plug-in " + (given.empty() ? file_name : given) + ": file not found (give " + option +
             " PATH)");
    return found;
}

// UTF-16 code units of a UTF-8 text, the unit of the processor's path buffer.
size_t WideLength(const std::string& text)
{
    size_t units = 0;
    for (unsigned char c : text) {
        if ((c & 0xC0) != 0x80)
            ++units;
        if ((c & 0xF8) == 0xF0)
            ++units;  // a surrogate pair
    }
    return units;
}

std::string StemOf(const std::string& path)
{
    std::string name = path.substr(path.rfind('/') == std::string::npos ? 0 : path.rfind('/') + 1);
    const size_t dot = name.rfind('.');
    if (dot != std::string::npos && dot > 0)
        name.erase(dot);
    return name;
}

bool MakeFolder(const std::string& path, std::string& error)
{
    if (IsFolder(path))
        return true;
    if (mkdir(path.c_str(), 0755) != 0) {
        error = "cannot create folder " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

// The work folder and what is in it: the settings stand-ins and the pieces
// (which RunRender removes itself).
void RemoveWorkFolder(const std::string& folder)
{
    if (folder.empty())
        return;
    for (const std::string& sub : {folder + "/Morrowfen", folder}) {
        DIR* dir = opendir(sub.c_str());
        if (dir == nullptr)
            continue;
        while (dirent* entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name != "." && name != ".." && name != "Morrowfen")
                std::remove((sub + "/" + name).c_str());
        }
        closedir(dir);
        rmdir(sub.c_str());
    }
}

// The whole program after parsing, so that every way out passes the cleanup
// in main.
int Run(const RenderOptions& options, const std::string& work_folder, PluginSession& session)
{
    std::string error;
    const std::string program_folder = ProgramFolder();
    const char* plugin_env = std::getenv("KELVANE_PLUGIN");
    std::vector<std::string> plugin_fallbacks = {plugin_env != nullptr ? plugin_env : "",
                                                  program_folder + "/out_kelvane.so"};
#ifdef KELVANE_RENDER_BUILD_PLUGIN
    plugin_fallbacks.push_back(KELVANE_RENDER_BUILD_PLUGIN);
#endif
    const std::string plugin = LocatePlugin(options.plugin, plugin_fallbacks, "out_kelvane.so", "--plugin");
    if (plugin.empty())
        return kExitFailure;
    std::vector<std::string> writer_fallbacks = {program_folder + "/out_wav.so"};
#ifdef KELVANE_RENDER_BUILD_OUT_WAV
    writer_fallbacks.push_back(KELVANE_RENDER_BUILD_OUT_WAV);
#endif
    const std::string writer = LocatePlugin(options.out_wav, writer_fallbacks, "out_wav.so", "--out-wav");
    if (writer.empty())
        return kExitFailure;
    // The processor only says that it failed to open its output; find out
    // here whether the writer is one, and say why not.
    PluginSession probe{};
    if (!LoadPlugin(writer, probe, error)) {
        Fail(error);
        return kExitFailure;
    }
    UnloadPlugin(probe);
    if (WideLength(writer) > kOutPlugMaxChars) {
        Fail("the path of out_wav.so is longer than the processor takes (" + std::to_string(kOutPlugMaxChars) +
             " characters): " + writer);
        return kExitFailure;
    }

    // The saved settings as they stand; never written.
    std::vector<RegValue> saved;
    if (options.demo_dir.empty())
        ReadRegKey(RegStoreFile(kMakerKeyName, kProcessorKeyName), RegKeyPath(kMakerKeyName, kProcessorKeyName), saved);

    // Every input must exist before the processor is loaded.
    for (const std::string& input : options.inputs)
        if (!IsFile(input)) {
            Fail("cannot read input " + input + ": " + (access(input.c_str(), F_OK) == 0 ? "not a file" : std::strerror(ENOENT)));
            return kExitFailure;
        }

    // And every output must have a folder to go to, unless -o creates it.
    std::vector<std::string> written = {options.output, options.report};
    for (const std::string& path : written) {
        if (path.empty())
            continue;
        const size_t slash = path.rfind('/');
        const std::string folder = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
        if (access(folder.c_str(), W_OK) != 0) {
            Fail("cannot write " + path + ": " + std::strerror(errno));
            return kExitFailure;
        }
    }

    if (setenv("XDG_CONFIG_HOME", work_folder.c_str(), 1) != 0) {
        Fail("cannot set XDG_CONFIG_HOME");
        return kExitFailure;
    }
    if (!LoadPlugin(plugin, session, error)) {
        Fail(error);
        return kExitFailure;
    }
    RenderContext context{&session, work_folder};
    const bool progress = !options.quiet && isatty(STDERR_FILENO);

    if (!options.demo_dir.empty()) {
        if (!MakeFolder(options.demo_dir, error)) {
            Fail(error);
            return kExitFailure;
        }
        const Scene scenes[2] = {StereoScene(), SixChannelScene()};
        int only_mode = -1;
        for (const SettingOverride& setting : options.overrides)
            if (setting.name == "Mode")
                only_mode = setting.value;
        std::printf("Kelvane demo: a built-in scene rendered in every mode into %s\n", options.demo_dir.c_str());
        for (const Scene& scene : scenes) {
            const std::string input = options.demo_dir + "/scene-" + scene.name + ".wav";
            if (!WriteScene(scene, input, error)) {
                Fail(error);
                return kExitFailure;
            }
            std::printf("\n%s scene (%s): %d channels, %zu segments of %.1f s at %d Hz\n",
                        scene.channels == 2 ? "Stereo" : "Six-channel", input.c_str(),
                        scene.channels, scene.segments.size(),
                        static_cast<double>(scene.segments.front().frames) / kSceneRate, kSceneRate);
            std::printf("RMS per output channel in dBFS, measured inside each segment\n");
            std::printf("%-13s %-8s %7s%7s%7s%7s%7s%7s\n", "mode", "segment", "L", "R", "C", "LFE", "SL", "SR");
            for (int mode = 0; mode < 6; ++mode) {
                if (only_mode >= 0 && mode != only_mode)
                    continue;
                RenderRequest request{};
                request.inputs = {input};
                const std::string output = options.demo_dir + "/" + scene.name + "-" + std::to_string(mode) + "-" +
                                           ModeShortName(mode) + ".wav";
                request.outputs = {OutputPlan{output, {0}}};
                ApplyOverrides(options.overrides, request.settings);
                SetRegDword(request.settings, "Mode", mode);
                SetRegString(request.settings, "Out_Plug", writer);
                request.two_channel = options.two_channel;
                request.show_progress = progress;
                RenderSummary summary{};
                if (!RunRender(request, context, summary, error)) {
                    Fail(error);
                    return RenderInterrupted ? kExitInterrupted : kExitFailure;
                }
                std::vector<std::vector<double>> levels;
                int channels = 0;
                if (!SegmentLevels(output, scene, levels, channels, error)) {
                    Fail(error);
                    return kExitFailure;
                }
                for (size_t s = 0; s < scene.segments.size(); ++s) {
                    const std::string label = std::to_string(mode) + " " + ModeShortName(mode);
                    std::printf("%-13s %-8s ", s == 0 ? label.c_str() : "", scene.segments[s].name);
                    for (int c = 0; c < channels; ++c)
                        std::printf("%s", FormatDb(levels[s][static_cast<size_t>(c)], 7).c_str());
                    std::printf("\n");
                }
            }
        }
        std::printf("\nWhat to look for: in mode 3 (asr) the centre segment lands in C and the behind\n"
                    "segment in SL and SR; modes 1 and 2 feed one surround signal to both; mode 4\n"
                    "folds everything to two ear signals in L and R, mode 5 folds the six-channel\n"
                    "scene to L and R; mode 0 and mode 5 on stereo pass the input at 0.707.\n");
        return 0;
    }

    // An ordinary run.
    std::vector<RegValue> settings = saved;
    ApplyOverrides(options.overrides, settings);
    SetRegString(settings, "Out_Plug", writer);
    const int mode = EffectiveMode(settings);
    if (options.two_channel && mode != 4 && mode != 5)
        std::fprintf(stderr, "kelvane-render: note: --two-channel drops C, LFE, SL and SR, which mode %d uses\n", mode);

    RenderRequest request{};
    request.inputs = options.inputs;
    request.settings = settings;
    request.two_channel = options.two_channel;
    request.reset_between = options.reset_between;
    request.show_progress = progress;
    request.report = options.report;
    if (!options.output_dir.empty()) {
        if (!MakeFolder(options.output_dir, error)) {
            Fail(error);
            return kExitFailure;
        }
        for (size_t i = 0; i < options.inputs.size(); ++i) {
            const std::string output = options.output_dir + "/" + StemOf(options.inputs[i]) + ".wav";
            for (const OutputPlan& plan : request.outputs)
                if (plan.path == output) {
                    Fail("two inputs would both be written to " + output);
                    return kExitFailure;
                }
            request.outputs.push_back(OutputPlan{output, {i}});
        }
    } else {
        OutputPlan plan{options.output, {}};
        for (size_t i = 0; i < options.inputs.size(); ++i)
            plan.inputs.push_back(i);
        request.outputs.push_back(plan);
    }
    for (const OutputPlan& plan : request.outputs)
        for (const std::string& input : options.inputs)
            if (Absolute(plan.path) == Absolute(input)) {
                Fail("the output " + plan.path + " would replace an input");
                return kExitFailure;
            }

    RenderSummary summary{};
    if (!RunRender(request, context, summary, error)) {
        Fail(error);
        return RenderInterrupted ? kExitInterrupted : kExitFailure;
    }
    PrintSummary(summary, stdout);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    RenderOptions options{};
    std::string error;
    if (!ParseRenderArgs(argc, argv, options, error)) {
        Fail(error);
        return kExitUsage;
    }
    if (options.help) {
        std::fputs(RenderUsage(), stdout);
        return 0;
    }
    if (options.version) {
        std::printf("kelvane-render %s\n", KELVANE_RENDER_VERSION);
        return 0;
    }

    struct sigaction action{};
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);

    const char* temporary = std::getenv("TMPDIR");
    std::string pattern = std::string(temporary != nullptr && temporary[0] != '\0' ? temporary : "/tmp") +
                          "/kelvane-render-XXXXXX";
    std::vector<char> folder(pattern.begin(), pattern.end());
    folder.push_back('\0');
    if (mkdtemp(folder.data()) == nullptr) {
        Fail("cannot create a work folder in " + pattern.substr(0, pattern.rfind('/')) + ": " + std::strerror(errno));
        return kExitFailure;
    }
    const std::string work_folder = folder.data();

    PluginSession session{};
    const int status = Run(options, work_folder, session);
    UnloadPlugin(session);
    RemoveWorkFolder(work_folder);
    std::fflush(stdout);
    return status;
}
