// kelvane-render: plays audio files through out_kelvane.so the way a media
// player does and writes what comes out to files.
//
// The processor gets a private copy of the user's settings store, changed by
// the command line's options, so that a run never touches the saved
// settings: XDG_CONFIG_HOME points at a work folder of this run before the
// library is loaded, and its settings file names out_wav.so as the output.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <set>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "engine/engine.h"
#include "hosts/render/demo_scene.h"
#include "hosts/render/fftw_wisdom_cache.h"
#include "hosts/render/messages.h"
#include "hosts/render/pcm_source.h"
#include "hosts/render/plugin_host.h"
#include "hosts/render/render_job.h"
#include "hosts/render/render_options.h"
#include "hosts/render/sound_file.h"
#include "platform/posix/reg_file.h"
#include "signal/mode.h"

#ifndef KELVANE_RENDER_VERSION
#define KELVANE_RENDER_VERSION "0.1.3"
#endif

namespace {

constexpr size_t kOutPlugMaxChars = 254;  // the processor's path buffer, less the terminator

void Fail(const std::string& message)
{
    ReportError(message);
}

void OnSignal(int)
{
    RenderInterrupted = 1;
}

// With -j N: the processes that render side by side, for passing a signal
// on, and whether this process is one of them (no progress bar then).
pid_t SideBySideChildren[kMaxJobs];
volatile sig_atomic_t SideBySideCount = 0;
bool InSideBySideProcess = false;

void PassSignalOn(int number)
{
    for (sig_atomic_t k = 0; k < SideBySideCount; ++k)
        kill(SideBySideChildren[k], number);
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
    // Another process rendering beside this one (-j) may make it first.
    if (mkdir(path.c_str(), 0755) != 0 && !(errno == EEXIST && IsFolder(path))) {
        error = "cannot create folder " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

// The work folder and what is in it: the settings stand-ins, the copy of
// standard input, the plug-ins' messages and the pieces (which RunRender
// removes itself).
void RemoveWorkFolder(const std::string& folder)
{
    if (folder.empty())
        return;
    for (const std::string& sub : {folder + "/" + kMakerKeyName, folder}) {
        DIR* dir = opendir(sub.c_str());
        if (dir == nullptr)
            continue;
        while (dirent* entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name != "." && name != ".." && name != kMakerKeyName)
                std::remove((sub + "/" + name).c_str());
        }
        closedir(dir);
        rmdir(sub.c_str());
    }
}

// Standard input, copied whole into `path` so that it can be read like a
// file: its length known, and a second time for --normalize.
bool CopyStandardInput(const std::string& path, std::string& error)
{
    std::FILE* out = std::fopen(path.c_str(), "wb");
    if (out == nullptr) {
        error = "cannot keep standard input in " + path + ": " + std::strerror(errno);
        return false;
    }
    std::vector<char> buffer(1 << 16);
    bool good = true;
    for (;;) {
        const ssize_t got = read(STDIN_FILENO, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR && !RenderInterrupted)
            continue;
        if (got <= 0) {
            good = got == 0;
            break;
        }
        good = std::fwrite(buffer.data(), 1, static_cast<size_t>(got), out) == static_cast<size_t>(got);
        if (!good)
            break;
    }
    good = std::fclose(out) == 0 && good;
    if (!good)
        error = "cannot read standard input: " + std::string(std::strerror(errno));
    return good;
}

// Says what the processor will do with saved values that a user would not
// expect it to take, naming the file that holds them.
void CheckSavedSettings(const std::string& file, const std::vector<RegValue>& saved, bool readable)
{
    if (!readable) {
        if (access(file.c_str(), F_OK) == 0)
            ReportWarning("the saved settings in " + file +
                          " cannot be read (not a settings file of version 5.00 holding the processor's key): "
                          "the processor's defaults apply");
        return;
    }
    const RegValue* mode = FindRegValue(saved, "Mode");
    if (mode != nullptr && mode->is_dword && ModeName(static_cast<int32_t>(mode->dword))[0] == '?')
        ReportWarning("the saved Mode " + std::to_string(static_cast<int32_t>(mode->dword)) + " in " + file +
                      " is not a mode (0 to 5): the processor decodes stereo as in mode 1 and passes everything "
                      "else through");
    const RegValue* bits = FindRegValue(saved, "Out_Bits");
    if (bits != nullptr && bits->is_dword) {
        const int32_t value = static_cast<int32_t>(bits->dword);
        if (value != 16 && value != 24 && value != 32)
            ReportWarning("the saved Out_Bits " + std::to_string(value) + " in " + file +
                          " is not 16, 24 or 32: the processor would send stale words, so the output follows the "
                          "input");
    }
}

// The settings in force, saved and given, as the processor would get them:
// false, with the reason told, for a value that only a faulty host would
// hand over. The options are held to the dialog's ranges already, so such
// a value comes from the saved file.
bool SettingsFitTheProcessor(const std::vector<RegValue>& settings, const std::string& file)
{
    // A negative delay is no setting that the dialog can make: the processor
    // would take it as a delay of days and ask for gigabytes of ring.
    const RegValue* delay = FindRegValue(settings, "Surround_Delay");
    if (delay != nullptr && delay->is_dword && static_cast<int32_t>(delay->dword) < 0) {
        Fail("the saved Surround_Delay " + std::to_string(static_cast<int32_t>(delay->dword)) + " in " + file +
             " is negative: give 0 to 100 ms with --surround-delay, or correct the file");
        return false;
    }
    return true;
}

// The output word that the options or the saved settings ask for; bits 0
// to follow the input.
SampleWord RequestedWord(const RenderOptions& options, const std::vector<RegValue>& saved, const char*& source)
{
    if (options.out_word.bits != 0) {
        source = "option";
        return options.out_word;
    }
    const RegValue* bits = FindRegValue(saved, "Out_Bits");
    if (bits != nullptr && bits->is_dword) {
        const int32_t value = static_cast<int32_t>(bits->dword);
        if (value == 16 || value == 24 || value == 32) {
            source = "saved";
            return SampleWord{value, false};
        }
    }
    source = "the input";
    return SampleWord{0, false};
}

void PrintSettings(const std::vector<SettingInForce>& settings, const std::string& saved_file, bool saved_found,
                   int processor_bits, const char* bits_source, std::FILE* out)
{
    std::fprintf(out, "settings (%s %s):\n", saved_found ? "saved ones from" : "none saved in", saved_file.c_str());
    for (const SettingInForce& setting : settings) {
        if (setting.name == "Out_Bits") {
            std::fprintf(out, "  %-18s %4d  %s\n", "Out_Bits", processor_bits, bits_source);
            continue;
        }
        std::fprintf(out, "  %-18s %4d  %s", setting.name.c_str(), setting.value, setting.source);
        if (setting.name == "Mode")
            std::fprintf(out, ": %s, %s", ModeName(setting.value), ModeLabel(setting.value));
        std::fprintf(out, "\n");
    }
}

// The plug-ins that this run loads.
struct PluginPaths {
    std::string processor;
    std::string writer;
};

bool FindPlugins(const RenderOptions& options, PluginPaths& paths)
{
    const std::string program_folder = ProgramFolder();
#ifdef KELVANE_RENDER_PLUGIN_DIR
    const std::string installed = program_folder + "/" + KELVANE_RENDER_PLUGIN_DIR;
#else
    const std::string installed = program_folder;
#endif
    const char* plugin_env = std::getenv("KELVANE_PLUGIN");
    std::vector<std::string> plugin_fallbacks = {plugin_env != nullptr ? plugin_env : "",
                                                  program_folder + "/out_kelvane.so", installed + "/out_kelvane.so"};
#ifdef KELVANE_RENDER_BUILD_PLUGIN
    plugin_fallbacks.push_back(KELVANE_RENDER_BUILD_PLUGIN);
#endif
    paths.processor = LocatePlugin(options.plugin, plugin_fallbacks, "out_kelvane.so", "--plugin");
    if (paths.processor.empty())
        return false;
    std::vector<std::string> writer_fallbacks = {program_folder + "/out_wav.so", installed + "/out_wav.so"};
#ifdef KELVANE_RENDER_BUILD_OUT_WAV
    writer_fallbacks.push_back(KELVANE_RENDER_BUILD_OUT_WAV);
#endif
    paths.writer = LocatePlugin(options.out_wav, writer_fallbacks, "out_wav.so", "--out-wav");
    if (paths.writer.empty())
        return false;
    // The processor only says that it failed to open its output; find out
    // here whether the writer is one, and say why not.
    PluginSession probe{};
    std::string error;
    if (!LoadPlugin(paths.writer, probe, error)) {
        Fail(error);
        return false;
    }
    // Chained to itself, the processor would call its own Open from its
    // Open without end.
    const bool itself = probe.module->id == host::kProcessorModuleId;
    UnloadPlugin(probe);
    if (itself) {
        Fail("the output plug-in " + paths.writer + " is the processor itself: --out-wav names out_wav.so");
        return false;
    }
    ReportTrace("processor " + paths.processor);
    ReportTrace("writer " + paths.writer);
    if (WideLength(paths.writer) > kOutPlugMaxChars) {
        Fail("the path of out_wav.so is longer than the processor takes (" + std::to_string(kOutPlugMaxChars) +
             " characters): " + paths.writer);
        return false;
    }
    return true;
}

// A run ended by an error: its message, and the status that goes with it.
int Failed(const std::string& error)
{
    Fail(error);
    return RenderInterrupted ? kExitInterrupted : kExitFailure;
}

int RunDemo(const RenderOptions& options, const PluginPaths& paths, RenderContext& context)
{
    std::string error;
    if (!MakeFolder(options.demo_dir, error))
        return Failed(error);
    const bool show = CurrentVerbosity() != Verbosity::Quiet;
    const Scene scenes[2] = {StereoScene(), SixChannelScene()};
    int only_mode = -1;
    for (const SettingOverride& setting : options.overrides)
        if (setting.name == "Mode")
            only_mode = setting.value;
    if (show)
        std::printf("Kelvane demo: a built-in scene rendered in every mode into %s\n", options.demo_dir.c_str());
    for (const Scene& scene : scenes) {
        const std::string input = options.demo_dir + "/scene-" + scene.name + ".wav";
        if (!WriteScene(scene, input, error))
            return Failed(error);
        if (show) {
            std::printf("\n%s scene (%s): %d channels, %zu segments of %.1f s at %d Hz\n",
                        scene.channels == 2 ? "Stereo" : "Six-channel", input.c_str(), scene.channels,
                        scene.segments.size(), static_cast<double>(scene.segments.front().frames) / kSceneRate,
                        kSceneRate);
            std::printf("RMS per output channel in dBFS, measured inside each segment\n");
            std::printf("%-13s %-8s %7s%7s%7s%7s%7s%7s\n", "mode", "segment", "L", "R", "C", "LFE", "SL", "SR");
        }
        for (int mode = 0; mode < 6; ++mode) {
            if (only_mode >= 0 && mode != only_mode)
                continue;
            RenderRequest request{};
            request.inputs = {input};
            request.input_names = {input};
            const std::string output = options.demo_dir + "/" + scene.name + "-" + std::to_string(mode) + "-" +
                                       ModeFileName(mode) + ".wav";
            OutputPlan plan{};
            if (!ResolveTarget(output, plan.target, error))
                return Failed(error);
            plan.inputs = {0};
            plan.container = Container::Wav;
            plan.word = options.out_word;
            request.outputs = {plan};
            ApplyOverrides(options.overrides, request.settings);
            SetRegDword(request.settings, "Mode", mode);
            SetRegString(request.settings, "Out_Plug", paths.writer);
            request.resample = true;
            request.dither = options.dither;
            request.two_channel = options.two_channel;
            request.show_progress = show && isatty(STDERR_FILENO);
            request.measure = CurrentVerbosity() != Verbosity::Quiet;
            RenderSummary summary{};
            if (!RunRender(request, context, summary, error) || !CommitOutputs(request, error)) {
                DiscardOutputs(request);
                return Failed(error);
            }
            ReportOvers(summary);
            std::vector<std::vector<double>> levels;
            int channels = 0;
            if (!SegmentLevels(output, scene, levels, channels, error))
                return Failed(error);
            for (size_t s = 0; show && s < scene.segments.size(); ++s) {
                const std::string label = std::to_string(mode) + " " + ModeName(mode);
                std::printf("%-13s %-8s ", s == 0 ? label.c_str() : "", scene.segments[s].name);
                for (int c = 0; c < channels; ++c)
                    std::printf("%s", FormatDb(levels[s][static_cast<size_t>(c)], 7).c_str());
                std::printf("\n");
            }
        }
    }
    if (show)
        std::printf("\nWhat to look for: in mode 3 (asr) the centre segment lands in C and the behind\n"
                    "segment in SL and SR; modes 1 and 2 (kelvane+c, as) feed one surround signal to\n"
                    "both; mode 4 (headphone) folds everything to two ear signals in L and R, mode 5\n"
                    "(encode) folds the six-channel scene to L and R; mode 0 (bypass) and mode 5 on\n"
                    "stereo pass the input at 0.707.\n");
    return kExitSuccess;
}

// Points the processor's settings store at the work folder, sends its
// messages there too unless -v, and loads it.
bool LoadProcessor(const std::string& work_folder, const PluginPaths& paths, PluginSession& session,
                   std::string& error)
{
    if (setenv("XDG_CONFIG_HOME", work_folder.c_str(), 1) != 0) {
        error = "cannot set XDG_CONFIG_HOME";
        return false;
    }
    CaptureProcessorMessages(work_folder + "/processor-messages");
    return LoadPlugin(paths.processor, session, error);
}

// The files of an ordinary run: inputs, outputs with their places, types
// and words, and the report. An exit status other than kExitSuccess when
// the run cannot go on; `report` holds the report's place.
int PlanFiles(const RenderOptions& options, const std::vector<RegValue>& saved, const std::string& work_folder,
              RenderRequest& request, OutputTarget& report, const char*& bits_source)
{
    std::string error;
    // Every input must exist before the processor is loaded.
    for (const std::string& input : options.inputs) {
        if (input == "-") {
            request.inputs.push_back(work_folder + "/standard-input");
            request.input_names.push_back("standard input");
            continue;
        }
        if (!IsFile(input)) {
            Fail("cannot read input " + input + ": " +
                 (access(input.c_str(), F_OK) == 0 ? "not a file" : std::strerror(ENOENT)));
            return kExitFailure;
        }
        request.inputs.push_back(input);
        request.input_names.push_back(input);
    }

    const SampleWord word = RequestedWord(options, saved, bits_source);
    Container chosen = Container::Wav;
    if (!options.format.empty())
        ContainerByName(options.format, chosen);
    if (!options.output_dir.empty()) {
        if (!MakeFolder(options.output_dir, error))
            return Failed(error);
        for (size_t i = 0; i < options.inputs.size(); ++i) {
            const std::string stem = options.inputs[i] == "-" ? "standard-input" : StemOf(options.inputs[i]);
            const std::string output = options.output_dir + "/" + stem + ContainerExtension(chosen);
            for (const OutputPlan& plan : request.outputs)
                if (plan.target.given == output) {
                    Fail("two inputs would both be written to " + output);
                    return kExitFailure;
                }
            OutputPlan plan{};
            if (!ResolveTarget(output, plan.target, error))
                return Failed(error);
            plan.inputs = {i};
            plan.container = chosen;
            plan.word = word;
            request.outputs.push_back(plan);
        }
    } else {
        OutputPlan plan{};
        if (!ResolveTarget(options.output, plan.target, error))
            return Failed(error);
        plan.container = chosen;
        // A file needs an extension to go by; standard output, a device or
        // a FIFO get WAV unless --format says otherwise.
        const bool file = plan.target.kind == TargetKind::NewFile || plan.target.kind == TargetKind::ExistingFile;
        if (options.format.empty() && file && !ContainerByExtension(options.output, plan.container)) {
            Fail("cannot tell the format of " + options.output +
                 " from its extension: use .wav, .w64, .rf64, .flac or .caf, or --format");
            return kExitUsage;
        }
        for (size_t i = 0; i < options.inputs.size(); ++i)
            plan.inputs.push_back(i);
        plan.word = word;
        request.outputs.push_back(plan);
    }
    if (!options.report.empty()) {
        if (!ResolveTarget(options.report, report, error))
            return Failed(error);
        request.report = &report;
    }

    // Nothing is replaced that should not be.
    std::vector<OutputTarget*> targets;
    for (OutputPlan& plan : request.outputs) {
        for (const std::string& input : options.inputs)
            if (input != "-" && plan.target.kind != TargetKind::StandardOutput &&
                Absolute(plan.target.path) == Absolute(input)) {
                Fail("the output " + plan.target.given + " would replace an input");
                return kExitFailure;
            }
        targets.push_back(&plan.target);
    }
    if (request.report != nullptr)
        targets.push_back(request.report);
    const bool reads_stdin = std::find(options.inputs.begin(), options.inputs.end(), "-") != options.inputs.end();
    const bool ask = isatty(STDIN_FILENO) && !reads_stdin;
    if (!MayReplace(targets, options.overwrite, ask ? stdin : nullptr, UserErrors(), error)) {
        Fail(error);
        return kExitFailure;
    }
    if (reads_stdin && !CopyStandardInput(work_folder + "/standard-input", error))
        return Failed(error);
    return kExitSuccess;
}

// Files rendered into a folder, each from a reset processor, do not depend
// on each other: an input that cannot be read is told about and left out of
// the request, and the others are rendered. True when one was left out.
bool LeaveOutUnreadable(RenderRequest& request)
{
    std::vector<bool> readable(request.inputs.size(), true);
    for (size_t i = 0; i < request.inputs.size(); ++i) {
        PcmSource probe{};
        std::string error;
        if (OpenPcmSource(request.inputs[i], probe, error)) {
            ClosePcmSource(probe);
            continue;
        }
        if (request.input_names[i] != request.inputs[i])
            error = "cannot read input " + request.input_names[i] + ": " + sf_strerror(nullptr);
        Fail(error + " (the other inputs are rendered)");
        readable[i] = false;
    }
    if (std::find(readable.begin(), readable.end(), false) == readable.end())
        return false;
    // Each output holds one input; the inputs kept are numbered anew.
    RenderRequest kept = request;
    kept.inputs.clear();
    kept.input_names.clear();
    kept.outputs.clear();
    for (size_t i = 0; i < request.inputs.size(); ++i) {
        if (!readable[i])
            continue;
        OutputPlan plan = request.outputs[i];
        plan.inputs = {kept.inputs.size()};
        kept.inputs.push_back(request.inputs[i]);
        kept.input_names.push_back(request.input_names[i]);
        kept.outputs.push_back(plan);
    }
    request = kept;
    return true;
}

// An ordinary run: the inputs through the processor into the outputs.
int RenderFiles(const RenderOptions& options, const PluginPaths& paths, RenderContext& context)
{
    // The saved settings as they stand; never written.
    const std::string saved_file = RegStoreFile(kMakerKeyName, kProcessorKeyName);
    std::vector<RegValue> saved;
    const bool saved_found = ReadRegKey(saved_file, RegKeyPath(kMakerKeyName, kProcessorKeyName), saved);
    CheckSavedSettings(saved_file, saved, saved_found);

    RenderRequest request{};
    OutputTarget report{};
    const char* bits_source = "";
    const int planned = PlanFiles(options, saved, context.work_folder, request, report, bits_source);
    if (planned != kExitSuccess)
        return planned;

    request.mono_as_stereo = options.mono_as_stereo;
    request.downmix = options.downmix;
    request.resample = options.resample;
    request.gain_db = options.gain_db;
    request.normalize = options.normalize;
    request.dither = options.dither;
    request.two_channel = options.two_channel;
    // Files in a folder start from a reset processor, unless they are to
    // run on like a play-list.
    request.reset_between = options.reset_between || (!options.output_dir.empty() && !options.gapless);
    request.show_progress = CurrentVerbosity() != Verbosity::Quiet && isatty(STDERR_FILENO) && !InSideBySideProcess;
    // The levels are measured only where something shows or uses them: with
    // -q and none of these, the meter is not built at all.
    request.measure = CurrentVerbosity() != Verbosity::Quiet || options.normalize || options.fail_on_clip ||
                      !options.report.empty();
    request.settings = saved;
    ApplyOverrides(options.overrides, request.settings);
    if (!SettingsFitTheProcessor(request.settings, saved_file))
        return kExitFailure;
    SetRegString(request.settings, "Out_Plug", paths.writer);
    const int mode = EffectiveMode(request.settings);
    if (options.two_channel && mode != kModeHeadphone && mode != kModeEncode)
        ReportNote("--two-channel drops C, LFE, SL and SR, which mode " + std::to_string(mode) + " uses");
    if (options.gapless && options.output_dir.empty())
        ReportNote("--gapless matters only with -o DIR; a joined output always runs on");

    const bool left_out = request.reset_between && !options.output_dir.empty() && LeaveOutUnreadable(request);
    if (request.inputs.empty())
        return kExitFailure;

    std::string error;
    RenderSummary summary{};
    if (!LoadProcessor(context.work_folder, paths, *context.session, error) ||
        !RunRender(request, context, summary, error)) {
        DiscardOutputs(request);
        return Failed(error);
    }
    for (const InputSummary& input : summary.inputs)
        if (input.truncated)
            ReportWarning("input " + input.name + " is truncated: it holds less than its header says (" +
                          std::to_string(input.frames) + " frames read)");
    ReportOvers(summary);
    if (options.fail_on_clip && (TotalOvers(summary) > 0 || InputOvers(summary) > 0)) {
        DiscardOutputs(request);
        Fail("samples went over full scale (--fail-on-clip): nothing written");
        return kExitClipped;
    }
    if (!CommitOutputs(request, error)) {
        DiscardOutputs(request);
        return Failed(error);
    }
    if (CurrentVerbosity() != Verbosity::Quiet) {
        // Standard output may be the audio itself.
        std::FILE* out = options.output == "-" ? UserErrors() : stdout;
        PrintSettings(SettingsInForce(saved, options.overrides), saved_file, saved_found, summary.processor_bits,
                      bits_source, out);
        PrintSummary(summary, out);
    }
    return left_out ? kExitFailure : kExitSuccess;
}

// The whole program after parsing, so that every way out passes the cleanup
// in main.
int RunWithPlugins(const RenderOptions& options, const std::string& work_folder, PluginSession& session)
{
    PluginPaths paths{};
    if (!FindPlugins(options, paths))
        return kExitFailure;
    RenderContext context{&session, work_folder};
    if (options.demo_dir.empty())
        return RenderFiles(options, paths, context);
    std::string error;
    if (!LoadProcessor(work_folder, paths, session, error))
        return Failed(error);
    return RunDemo(options, paths, context);
}

// Loading the processor, and the engine that measures the levels beside it,
// make FFT plans: with the cached wisdom at hand they take no time. The
// wisdom goes to the planner before anything is loaded and back to the
// cache after the run.
int Run(const RenderOptions& options, const std::string& work_folder, PluginSession& session)
{
    WisdomCache wisdom{WisdomCachePath(), {}};
    LoadWisdomCache(wisdom);
    const int status = RunWithPlugins(options, work_folder, session);
    SaveWisdomCache(wisdom);
    return status;
}

// One process's whole render: signals, work folder, the run, the cleanup.
int RenderProcess(const RenderOptions& options)
{
    struct sigaction action{};
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
    // A closed pipe on standard output shows as a failed write.
    signal(SIGPIPE, SIG_IGN);

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
    ReleaseProcessorMessages();
    RemoveWorkFolder(work_folder);
    std::fflush(stdout);
    std::fflush(stderr);
    return status;
}

// Processes to render in side by side (-j N). Only files that each start
// from a reset processor come out of a process of their own exactly as they
// come out of one run; files that run on into each other (--gapless) go in
// turn. Whatever looks at all the files together stays in one process: the
// level picture, --normalize's common gain, --fail-on-clip's all or
// nothing, and a question on the terminal before replacing files.
int ProcessesFor(const RenderOptions& options)
{
    if (options.jobs < 2 || options.output_dir.empty() || !options.demo_dir.empty() || options.gapless ||
        !options.report.empty() || options.normalize || options.fail_on_clip || options.inputs.size() < 2)
        return 1;
    if (std::find(options.inputs.begin(), options.inputs.end(), "-") != options.inputs.end())
        return 1;
    if (options.overwrite == Overwrite::Ask && isatty(STDIN_FILENO))
        return 1;
    // Two inputs of one name are refused by the run itself, in one process.
    std::set<std::string> names;
    for (const std::string& input : options.inputs)
        if (!names.insert(StemOf(input)).second)
            return 1;
    return static_cast<int>(std::min<size_t>(static_cast<size_t>(options.jobs), options.inputs.size()));
}

// The FFT plans are measured once, here, before the processes start: each
// process then finds the same wisdom and makes the same plans, so a file's
// headphone render has the bits it gets from one process, and the planning
// is paid once instead of once a process.
void PlanBeforeTheProcesses()
{
    WisdomCache wisdom{WisdomCachePath(), {}};
    LoadWisdomCache(wisdom);
    { const Engine planner; }
    SaveWisdomCache(wisdom);
}

// Every `processes`-th file to each process, without progress bars; the
// first failure's status, or the interruption's.
int RenderSideBySide(const RenderOptions& options, int processes)
{
    PlanBeforeTheProcesses();
    std::vector<pid_t> children;
    int status = 0;
    // An interruption reaches every process; each one cleans up after itself.
    struct sigaction action{};
    action.sa_handler = PassSignalOn;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
    signal(SIGINT, SIG_IGN);  // a terminal sends it to every process already
    for (int k = 0; k < processes; ++k) {
        RenderOptions share = options;
        share.inputs.clear();
        for (size_t i = static_cast<size_t>(k); i < options.inputs.size(); i += static_cast<size_t>(processes))
            share.inputs.push_back(options.inputs[i]);
        std::fflush(stdout);
        std::fflush(stderr);
        const pid_t child = fork();
        if (child == 0) {
            InSideBySideProcess = true;
            SideBySideCount = 0;
            _exit(RenderProcess(share));
        }
        if (child < 0) {
            Fail(std::string("cannot start a process: ") + std::strerror(errno));
            status = kExitFailure;
            break;
        }
        children.push_back(child);
        SideBySideChildren[SideBySideCount] = child;
        SideBySideCount = SideBySideCount + 1;
    }
    for (pid_t child : children) {
        int result = 0;
        while (waitpid(child, &result, 0) < 0 && errno == EINTR) {
        }
        const int code = WIFEXITED(result) ? WEXITSTATUS(result) : kExitInterrupted;
        if (status == 0)
            status = code;
    }
    return status;
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
        std::fputs(RenderUsage(RegStoreFile(kMakerKeyName, kProcessorKeyName)).c_str(), stdout);
        return kExitSuccess;
    }
    if (options.version) {
        std::printf("kelvane-render %s\n", KELVANE_RENDER_VERSION);
        return kExitSuccess;
    }
    SetVerbosity(options.quiet ? Verbosity::Quiet : (options.verbose ? Verbosity::Verbose : Verbosity::Normal));
    const int processes = ProcessesFor(options);
    if (processes > 1)
        return RenderSideBySide(options, processes);
    return RenderProcess(options);
}
