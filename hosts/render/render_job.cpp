// One run of the renderer.
#include "hosts/render/render_job.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

#include "hosts/render/pcm_source.h"
#include "hosts/render/report_svg.h"

volatile std::sig_atomic_t RenderInterrupted = 0;

namespace {

using Clock = std::chrono::steady_clock;

// What a player passes to Open for its buffer and pre-buffer; a file writer
// has no use for them.
constexpr int kBufferLengthMs = 2000;
constexpr int kPrebufferMs = 500;
// A player's full volume and centred pan, sent after Open.
constexpr int kFullVolume = 255;
constexpr int kCentrePan = 0;
// How long to wait for an output plug-in that has no room before giving up.
constexpr double kCanWriteTimeoutSeconds = 30.0;
// Bytes copied at a time when the outputs are cut from the pieces.
constexpr uint64_t kCopyFrames = 16384;
// The level picture has at most about this many columns.
constexpr uint64_t kReportColumns = 800;

constexpr const char* kSpeakerNames[6] = {"L", "R", "C", "LFE", "SL", "SR"};

double Seconds(Clock::time_point since)
{
    return std::chrono::duration<double>(Clock::now() - since).count();
}

std::string FolderOf(const std::string& path)
{
    size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string FileNameOf(const std::string& path)
{
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// A file created under a temporary name beside its final one.
struct PendingFile {
    std::string final_path;
    std::string temporary_path;
    std::FILE* file;
};

bool CreatePending(const std::string& final_path, PendingFile& pending, std::string& error)
{
    std::string pattern = FolderOf(final_path) + "/." + FileNameOf(final_path) + ".tmp-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    int descriptor = mkstemp(name.data());
    if (descriptor < 0) {
        error = "cannot write " + final_path + ": " + std::strerror(errno);
        return false;
    }
    // mkstemp makes the file private; the output gets the usual permissions.
    const mode_t mask = umask(0);
    umask(mask);
    fchmod(descriptor, 0666 & ~mask);
    pending.final_path = final_path;
    pending.temporary_path = name.data();
    pending.file = fdopen(descriptor, "w+b");
    if (pending.file == nullptr) {
        close(descriptor);
        std::remove(pending.temporary_path.c_str());
        error = "cannot write " + final_path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

void DiscardPending(std::vector<PendingFile>& files)
{
    for (PendingFile& pending : files) {
        if (pending.file != nullptr)
            std::fclose(pending.file);
        pending.file = nullptr;
        if (!pending.temporary_path.empty())
            std::remove(pending.temporary_path.c_str());
    }
    files.clear();
}

// Progress on standard error: percent, speed as a multiple of real time,
// time left. Drawn at most ten times a second.
struct Progress {
    bool enabled;
    uint64_t total_frames;     // all inputs, as their files state
    double audio_seconds;      // done so far
    uint64_t frames_done;
    Clock::time_point start;
    Clock::time_point last_draw;
};

void DrawProgress(Progress& progress, bool final)
{
    if (!progress.enabled)
        return;
    const Clock::time_point now = Clock::now();
    if (!final && now - progress.last_draw < std::chrono::milliseconds(100))
        return;
    progress.last_draw = now;
    if (final) {
        std::fprintf(stderr, "\r%60s\r", "");
        std::fflush(stderr);
        return;
    }
    const double elapsed = Seconds(progress.start);
    const double fraction = progress.total_frames == 0
        ? 0.0 : std::min(1.0, static_cast<double>(progress.frames_done) / static_cast<double>(progress.total_frames));
    const double speed = elapsed > 0.0 ? progress.audio_seconds / elapsed : 0.0;
    const double left = fraction > 0.0 ? elapsed * (1.0 - fraction) / fraction : 0.0;
    constexpr int kBarWidth = 24;
    char bar[kBarWidth + 1];
    const int filled = static_cast<int>(fraction * kBarWidth);
    for (int i = 0; i < kBarWidth; ++i)
        bar[i] = i < filled ? '#' : '-';
    bar[kBarWidth] = '\0';
    const int left_seconds = static_cast<int>(left + 0.5);
    std::fprintf(stderr, "\r%3d%% [%s] %6.1fx real time  %d:%02d left ", static_cast<int>(fraction * 100.0), bar,
                 speed, left_seconds / 60, left_seconds % 60);
    std::fflush(stderr);
}

// Hands one block to the processor as a player does: wait for room, write.
bool WriteBlock(host::Out_Module* module, std::vector<uint8_t>& buffer, int length, std::string& error)
{
    const Clock::time_point start = Clock::now();
    while (module->CanWrite() < length) {
        if (RenderInterrupted) {
            error = "interrupted";
            return false;
        }
        if (Seconds(start) > kCanWriteTimeoutSeconds) {
            error = "the output plug-in has had no room for " + std::to_string(static_cast<int>(kCanWriteTimeoutSeconds)) + " s";
            return false;
        }
        usleep(1000);
    }
    if (module->Write(reinterpret_cast<char*>(buffer.data()), length) != 0) {
        error = "the output plug-in refused a block (is the disk full?)";
        return false;
    }
    return true;
}

// The work buffer holds the block and, behind it, zeros: for four channels of
// 32 bits and five of 24 bits the processor reads past the end of what it was
// given, up to 2.2 times the block's length, and those reads must land on
// something defined.
void PrepareWriteBuffer(std::vector<uint8_t>& buffer, const std::vector<uint8_t>& block)
{
    const size_t length = block.size();
    const size_t total = 3 * length + 64;
    if (buffer.size() < total)
        buffer.resize(total);
    std::memcpy(buffer.data(), block.data(), length);
    std::memset(buffer.data() + length, 0, total - length);
}

// The pieces that out_wav wrote, read back as one stream of frames.
struct PieceStream {
    std::vector<std::FILE*> files;
    std::vector<WavLayout> layouts;
    std::vector<uint64_t> first_frame;  // stream frame at which each piece starts
    uint64_t total_frames;
    uint32_t frame_bytes;
};

void ClosePieces(PieceStream& stream)
{
    for (std::FILE* file : stream.files)
        if (file != nullptr)
            std::fclose(file);
    stream.files.clear();
}

bool OpenPieces(const std::vector<std::string>& paths, PieceStream& stream, std::string& error)
{
    stream = PieceStream{};
    for (const std::string& path : paths) {
        std::FILE* file = std::fopen(path.c_str(), "rb");
        WavLayout layout{};
        if (file == nullptr || !ReadWavLayout(file, layout)) {
            if (file != nullptr)
                std::fclose(file);
            ClosePieces(stream);
            error = "the output plug-in did not leave a readable file at " + path;
            return false;
        }
        const uint32_t frame_bytes = WavFrameBytes(layout.format);
        if (stream.files.empty())
            stream.frame_bytes = frame_bytes;
        stream.files.push_back(file);
        if (frame_bytes != stream.frame_bytes || frame_bytes == 0) {
            ClosePieces(stream);
            error = "the processor changed its output format within the play-list";
            return false;
        }
        stream.layouts.push_back(layout);
        stream.first_frame.push_back(stream.total_frames);
        stream.total_frames += layout.data_bytes / frame_bytes;
    }
    return true;
}

// A sample of an output word at full scale 1.0.
double SampleValue(const uint8_t* p, int bits)
{
    switch (bits) {
    case 8: return (static_cast<int>(p[0]) - 128) / 128.0;
    case 16: return static_cast<int16_t>(p[0] | p[1] << 8) / 32768.0;
    case 24: return static_cast<int32_t>(static_cast<uint32_t>(p[0]) << 8 | static_cast<uint32_t>(p[1]) << 16 |
                                         static_cast<uint32_t>(p[2]) << 24) / 2147483648.0;
    default: return static_cast<int32_t>(static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
                                         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24) /
                    2147483648.0;
    }
}

// Copies frames [first, first + count) of the stream to `out`, keeping the
// first `keep_channels` channels of each frame, and measures them.
bool CopyStreamFrames(PieceStream& stream, uint64_t first, uint64_t count, int bits, int keep_channels, std::FILE* out,
                      ChannelLevels& file_levels, ChannelLevels& stream_levels, std::string& error)
{
    const uint32_t sample_bytes = static_cast<uint32_t>(bits) / 8;
    const uint32_t keep_bytes = sample_bytes * static_cast<uint32_t>(keep_channels);
    std::vector<uint8_t> in(static_cast<size_t>(kCopyFrames) * stream.frame_bytes);
    std::vector<uint8_t> kept(static_cast<size_t>(kCopyFrames) * keep_bytes);
    std::vector<double> frame(static_cast<size_t>(keep_channels));
    size_t piece = 0;
    while (count > 0) {
        while (piece + 1 < stream.files.size() && stream.first_frame[piece + 1] <= first)
            ++piece;
        const uint64_t piece_frames = stream.layouts[piece].data_bytes / stream.frame_bytes;
        const uint64_t offset = first - stream.first_frame[piece];
        const uint64_t run = std::min({count, kCopyFrames, piece_frames - offset});
        std::FILE* file = stream.files[piece];
        const uint64_t at = stream.layouts[piece].data_offset + offset * stream.frame_bytes;
        const size_t bytes = static_cast<size_t>(run * stream.frame_bytes);
        if (run == 0 || std::fseek(file, static_cast<long>(at), SEEK_SET) != 0 || std::fread(in.data(), 1, bytes, file) != bytes) {
            error = "cannot read back the processor's output";
            return false;
        }
        for (uint64_t i = 0; i < run; ++i) {
            const uint8_t* source = &in[static_cast<size_t>(i * stream.frame_bytes)];
            std::memcpy(&kept[static_cast<size_t>(i * keep_bytes)], source, keep_bytes);
            for (int c = 0; c < keep_channels; ++c)
                frame[static_cast<size_t>(c)] = SampleValue(source + c * sample_bytes, bits);
            AddLevelFrame(file_levels, frame.data());
            AddLevelFrame(stream_levels, frame.data());
        }
        const size_t out_bytes = static_cast<size_t>(run * keep_bytes);
        if (std::fwrite(kept.data(), 1, out_bytes, out) != out_bytes) {
            error = std::string("cannot write output: ") + std::strerror(errno);
            return false;
        }
        first += run;
        count -= run;
    }
    return true;
}

// Everything a run holds that must be given back on every way out.
struct RunResources {
    std::vector<PcmSource> sources;
    std::vector<PendingFile> outputs;
    std::vector<std::string> pieces;
    PieceStream stream;
    host::Out_Module* module = nullptr;
    bool initialised = false;
    bool opened = false;

    ~RunResources()
    {
        if (opened)
            module->Close();
        if (initialised)
            module->Quit();
        ClosePieces(stream);
        for (PcmSource& source : sources)
            ClosePcmSource(source);
        DiscardPending(outputs);
        for (const std::string& piece : pieces)
            std::remove(piece.c_str());
    }
};

}  // namespace

bool RunRender(const RenderRequest& request, RenderContext& context, RenderSummary& summary, std::string& error)
{
    summary = RenderSummary{};
    const Clock::time_point start = Clock::now();
    RunResources run;

    // Every input must be readable before anything is written.
    run.sources.resize(request.inputs.size());
    uint64_t stated_frames = 0;
    for (size_t i = 0; i < request.inputs.size(); ++i) {
        if (!OpenPcmSource(request.inputs[i], run.sources[i], error))
            return false;
        if (run.sources[i].frames > 0)
            stated_frames += static_cast<uint64_t>(run.sources[i].frames);
    }
    for (const OutputPlan& plan : request.outputs)
        for (size_t input : plan.inputs)
            if (run.sources[input].rate != run.sources[plan.inputs.front()].rate) {
                error = "inputs of different sample rates cannot share the output " + plan.path + " (use -o DIR)";
                return false;
            }

    // And every output must be creatable.
    for (const OutputPlan& plan : request.outputs) {
        PendingFile pending{};
        if (!CreatePending(plan.path, pending, error))
            return false;
        run.outputs.push_back(pending);
    }
    PendingFile report{};
    if (!request.report.empty()) {
        if (!CreatePending(request.report, report, error))
            return false;
        run.outputs.push_back(report);
    }

    // The processor's private settings store for this run.
    const std::string store = context.work_folder + "/" + kMakerKeyName + "/" + kProcessorKeyName + ".reg";
    if (!WriteRegKey(store, RegKeyPath(kMakerKeyName, kProcessorKeyName), request.settings, error))
        return false;

    host::Out_Module* module = context.session->module;
    run.module = module;
    module->Init();
    run.initialised = true;

    Progress progress{};
    progress.enabled = request.show_progress;
    progress.total_frames = stated_frames;
    progress.start = Clock::now();

    const uint32_t window_frames = static_cast<uint32_t>(std::max<uint64_t>(
        static_cast<uint64_t>(run.sources.front().rate) / 50, stated_frames / kReportColumns + 1));
    ChannelLevels input_levels{};
    InitLevels(input_levels, 1, window_frames);

    // Where each input lands in the stream that comes back. A reset drops
    // what the convolver still holds (only silence, after the padding), so
    // the stream starts afresh with the piece opened after it: an input's
    // place is counted from the first piece since the last reset.
    std::vector<size_t> input_segment(run.sources.size());   // first piece since the last reset
    std::vector<uint64_t> input_offset(run.sources.size());  // frames written since that reset before it
    std::vector<uint64_t> input_frames(run.sources.size());
    size_t segment = 0;
    std::vector<uint8_t> block;
    std::vector<uint8_t> buffer;
    std::vector<double> power;
    uint64_t stream_frames = 0;  // frames written since the last reset, silence included

    for (size_t i = 0; i < run.sources.size(); ++i) {
        PcmSource& source = run.sources[i];
        const std::string piece = context.work_folder + "/piece-" + std::to_string(i) + ".wav";
        std::vector<RegValue> writer;
        SetRegString(writer, "Out_File", piece);
        if (!WriteRegKey(context.work_folder + "/" + kMakerKeyName + "/OutWav.reg", RegKeyPath(kMakerKeyName, "OutWav"),
                         writer, error))
            return false;
        run.pieces.push_back(piece);

        if (request.reset_between && i > 0) {
            SendHostCommand(*context.session, host::kCommandPlay);
            segment = i;
            stream_frames = 0;
        }
        if (module->Open(source.rate, source.channels, source.bits, kBufferLengthMs, kPrebufferMs) < 0) {
            error = "the processor could not open its output for " + source.path;
            return false;
        }
        run.opened = true;
        module->SetVolume(kFullVolume);
        module->SetPan(kCentrePan);

        const int frame_bytes = source.channels * source.bits / 8;
        input_segment[i] = segment;
        input_offset[i] = stream_frames;
        for (;;) {
            if (RenderInterrupted) {
                error = "interrupted";
                return false;
            }
            const int64_t got = ReadPcmBlock(source, kWriteFrames, block, &power);
            if (got < 0) {
                error = "cannot read input " + source.path + ": " + sf_strerror(source.file);
                return false;
            }
            if (got == 0)
                break;
            PrepareWriteBuffer(buffer, block);
            if (!WriteBlock(module, buffer, static_cast<int>(got) * frame_bytes, error))
                return false;
            for (double p : power) {
                const double level = std::sqrt(p);
                AddLevelFrame(input_levels, &level);
            }
            input_frames[i] += static_cast<uint64_t>(got);
            stream_frames += static_cast<uint64_t>(got);
            progress.frames_done += static_cast<uint64_t>(got);
            progress.audio_seconds += static_cast<double>(got) / source.rate;
            DrawProgress(progress, false);
        }

        // Silence until the convolver has let go of everything it holds:
        // at the end of the play-list, before a Stop, which would drop it,
        // and before a file of another rate or channel count, which may pass
        // the convolver by while it still holds frames of this one.
        const bool last = i + 1 == run.sources.size();
        const bool format_changes = !last && (run.sources[i + 1].rate != source.rate ||
                                              run.sources[i + 1].channels != source.channels);
        if (last || request.reset_between || format_changes) {
            int64_t padding = kEndPaddingFrames;
            while (padding > 0) {
                const int frames = static_cast<int>(std::min<int64_t>(padding, kWriteFrames));
                block.assign(static_cast<size_t>(frames) * frame_bytes, source.bits == 8 ? 128 : 0);
                PrepareWriteBuffer(buffer, block);
                if (!WriteBlock(module, buffer, frames * frame_bytes, error))
                    return false;
                padding -= frames;
                stream_frames += static_cast<uint64_t>(frames);
            }
        }
        if (request.reset_between && !last)
            SendHostCommand(*context.session, host::kCommandStop);
        module->Close();
        run.opened = false;
        ClosePcmSource(source);
    }
    module->Quit();
    run.initialised = false;
    DrawProgress(progress, true);

    // Cut the outputs from the stream that came back.
    if (!OpenPieces(run.pieces, run.stream, error))
        return false;
    const WavLayout& first_piece = run.stream.layouts.front();
    const int out_bits = first_piece.format.bits;
    const int keep_channels = request.two_channel ? std::min<int>(2, first_piece.format.channels) : first_piece.format.channels;
    // Every frame of every input must have come out before the next reset;
    // the silence behind them need not have.
    std::vector<uint64_t> input_start(run.sources.size());  // stream frame of each input's first frame
    for (size_t i = 0; i < run.sources.size(); ++i) {
        input_start[i] = run.stream.first_frame[input_segment[i]] + input_offset[i];
        size_t next = i + 1;
        while (next < run.sources.size() && input_segment[next] == input_segment[i])
            ++next;
        const uint64_t segment_end =
            next < run.sources.size() ? run.stream.first_frame[input_segment[next]] : run.stream.total_frames;
        if (input_start[i] + input_frames[i] > segment_end) {
            error = "the processor gave back too few frames for " + run.sources[i].path;
            return false;
        }
    }
    ChannelLevels stream_levels{};
    InitLevels(stream_levels, keep_channels, window_frames);
    for (size_t o = 0; o < request.outputs.size(); ++o) {
        const OutputPlan& plan = request.outputs[o];
        PendingFile& pending = run.outputs[o];
        OutputSummary result{};
        result.path = plan.path;
        result.format = WavFormat{static_cast<uint32_t>(run.sources[plan.inputs.front()].rate),
                                  static_cast<uint16_t>(keep_channels), static_cast<uint16_t>(out_bits)};
        InitLevels(result.levels, keep_channels, 0);
        for (size_t input : plan.inputs)
            result.frames += input_frames[input];
        const uint64_t data_bytes = result.frames * WavFrameBytes(result.format);
        if (data_bytes > kMaxWavDataBytes) {
            error = plan.path + " would exceed the size limit of a WAV file";
            return false;
        }
        std::vector<uint8_t> header = WavHeader(result.format, static_cast<uint32_t>(data_bytes));
        if (std::fwrite(header.data(), 1, header.size(), pending.file) != header.size()) {
            error = "cannot write " + plan.path + ": " + std::strerror(errno);
            return false;
        }
        for (size_t input : plan.inputs)
            if (!CopyStreamFrames(run.stream, input_start[input], input_frames[input], out_bits, keep_channels,
                                  pending.file, result.levels, stream_levels, error))
                return false;
        if (data_bytes & 1u)
            std::fputc(0, pending.file);
        summary.outputs.push_back(result);
    }

    if (!request.report.empty()) {
        PendingFile& pending = run.outputs.back();
        const std::string svg = LevelReportSvg(input_levels, stream_levels, window_frames,
                                               run.sources.front().rate, request.two_channel);
        if (std::fwrite(svg.data(), 1, svg.size(), pending.file) != svg.size()) {
            error = "cannot write " + request.report + ": " + std::strerror(errno);
            return false;
        }
    }

    if (RenderInterrupted) {
        error = "interrupted";
        return false;
    }

    // All written: close and give the files their names.
    for (PendingFile& pending : run.outputs) {
        const bool closed = std::fclose(pending.file) == 0;
        pending.file = nullptr;
        if (!closed) {
            error = "cannot write " + pending.final_path + ": " + std::strerror(errno);
            return false;
        }
    }
    for (PendingFile& pending : run.outputs) {
        if (std::rename(pending.temporary_path.c_str(), pending.final_path.c_str()) != 0) {
            error = "cannot write " + pending.final_path + ": " + std::strerror(errno);
            return false;
        }
        pending.temporary_path.clear();
    }
    run.outputs.clear();

    for (uint64_t frames : input_frames)
        summary.input_frames += frames;
    summary.audio_seconds = progress.audio_seconds;
    summary.wall_seconds = Seconds(start);
    return true;
}

void PrintSummary(const RenderSummary& summary, std::FILE* out)
{
    const double speed = summary.wall_seconds > 0.0 ? summary.audio_seconds / summary.wall_seconds : 0.0;
    for (const OutputSummary& result : summary.outputs) {
        const double seconds = static_cast<double>(result.frames) / result.format.rate;
        std::fprintf(out, "%s: %llu frames, %.3f s, %d channels of %d bits at %u Hz\n", result.path.c_str(),
                     static_cast<unsigned long long>(result.frames), seconds, result.format.channels,
                     result.format.bits, result.format.rate);
        std::fprintf(out, "  %-10s", "channel");
        for (int c = 0; c < result.levels.channels; ++c)
            std::fprintf(out, "%7s", c < 6 ? kSpeakerNames[c] : "?");
        std::fprintf(out, "\n  %-10s", "peak dBFS");
        for (int c = 0; c < result.levels.channels; ++c)
            std::fprintf(out, "%s", FormatDb(PeakDb(result.levels, c), 7).c_str());
        std::fprintf(out, "\n  %-10s", "RMS dBFS");
        for (int c = 0; c < result.levels.channels; ++c)
            std::fprintf(out, "%s", FormatDb(RmsDb(result.levels, c), 7).c_str());
        std::fprintf(out, "\n");
    }
    std::fprintf(out, "%llu frames (%.3f s of audio) in %.2f s: %.1fx real time\n",
                 static_cast<unsigned long long>(summary.input_frames), summary.audio_seconds, summary.wall_seconds,
                 speed);
}
