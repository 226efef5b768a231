// One run of the renderer.
#include "hosts/render/render_job.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>
#include <unistd.h>

#include "hosts/render/engine_meter.h"
#include "hosts/render/messages.h"
#include "hosts/render/meter_thread.h"
#include "hosts/render/out_wav_key.h"
#include "hosts/render/pcm_source.h"
#include "hosts/render/report.h"
#include "hosts/render/resampler.h"
#include "signal/frame.h"
#include "signal/mode.h"

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
// Frames copied at a time when the outputs are cut from the pieces.
constexpr uint64_t kCopyFrames = 16384;
// The level picture has at most about this many columns, and a column is
// never shorter than this.
constexpr double kReportColumns = 800.0;
constexpr double kShortestWindowSeconds = 0.02;

double Seconds(Clock::time_point since)
{
    return std::chrono::duration<double>(Clock::now() - since).count();
}

double DbToGain(double db)
{
    return std::pow(10.0, db / 20.0);
}

// Progress on standard error: percent, speed as a multiple of real time,
// time left. Drawn at most ten times a second.
struct Progress {
    bool enabled;
    uint64_t total_frames;     // all inputs in all passes, as their files state
    double audio_seconds;      // done so far
    uint64_t frames_done;
    Clock::time_point start;
    Clock::time_point last_draw;
};

void DrawProgress(Progress& progress, bool final)
{
    if (!progress.enabled)
        return;
    std::FILE* out = UserErrors();
    const Clock::time_point now = Clock::now();
    if (!final && now - progress.last_draw < std::chrono::milliseconds(100))
        return;
    progress.last_draw = now;
    if (final) {
        std::fprintf(out, "\r%60s\r", "");
        std::fflush(out);
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
    std::fprintf(out, "\r%3d%% [%s] %6.1fx real time  %d:%02d left ", static_cast<int>(fraction * 100.0), bar,
                 speed, left_seconds / 60, left_seconds % 60);
    std::fflush(out);
}

// The work buffer holds the block and, behind it, zeros: for four channels of
// 32 bits and five of 24 bits the processor reads on past what the block's
// frames take. This build stops at the end of the buffer it is given; a
// processor loaded with --plugin may read up to 2.2 times the block's length
// beyond, and those reads must land on something defined. Everything behind
// the first `filled` bytes is zero, so only what the last block held beyond
// this one's end is cleared again.
struct WriteBuffer {
    std::vector<uint8_t> bytes;
    size_t filled = 0;
};

void PrepareWriteBuffer(WriteBuffer& buffer, const std::vector<uint8_t>& block)
{
    const size_t length = block.size();
    const size_t total = 3 * length + 64;
    if (buffer.bytes.size() < total)
        buffer.bytes.resize(total);
    std::memcpy(buffer.bytes.data(), block.data(), length);
    if (buffer.filled > length)
        std::memset(buffer.bytes.data() + length, 0, buffer.filled - length);
    buffer.filled = length;
}

// Hands one block to the processor as a player does: wait for room, write.
bool WriteBlock(host::Out_Module* module, WriteBuffer& buffer, int length, std::string& error)
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
    if (module->Write(reinterpret_cast<char*>(buffer.bytes.data()), length) != 0) {
        error = "the output plug-in refused a block (is the disk full?)";
        return false;
    }
    return true;
}

// The pieces that out_wav wrote, read back as one stream of frames.
struct PieceStream {
    std::vector<SNDFILE*> files;
    std::vector<uint64_t> frames;       // frames in each piece
    std::vector<uint64_t> first_frame;  // stream frame at which each piece starts
    uint64_t total_frames;
    int channels;
};

void ClosePieces(PieceStream& stream)
{
    for (SNDFILE* file : stream.files)
        if (file != nullptr)
            sf_close(file);
    stream.files.clear();
}

bool OpenPieces(const std::vector<std::string>& paths, PieceStream& stream, std::string& error)
{
    stream = PieceStream{};
    for (const std::string& path : paths) {
        SF_INFO info{};
        SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
        if (file == nullptr) {
            ClosePieces(stream);
            error = "the output plug-in did not leave a readable file at " + path;
            return false;
        }
        stream.files.push_back(file);
        if (stream.files.size() == 1)
            stream.channels = info.channels;
        if (info.channels != stream.channels) {
            ClosePieces(stream);
            error = "the processor changed its output format within the play-list";
            return false;
        }
        stream.frames.push_back(static_cast<uint64_t>(info.frames));
        stream.first_frame.push_back(stream.total_frames);
        stream.total_frames += static_cast<uint64_t>(info.frames);
    }
    return true;
}

// Reads frames [first, first + count) of the stream as full-scale samples,
// keeping the first `keep` channels of each frame; `words` gets the frames
// whole, as libsndfile reads them (left-aligned in 32 bits).
bool ReadStreamFrames(PieceStream& stream, uint64_t first, uint64_t count, int keep, std::vector<int32_t>& words,
                      std::vector<double>& out, std::string& error)
{
    out.clear();
    words.clear();
    size_t piece = 0;
    while (count > 0) {
        while (piece + 1 < stream.files.size() && stream.first_frame[piece + 1] <= first)
            ++piece;
        const uint64_t offset = first - stream.first_frame[piece];
        const uint64_t run = std::min(count, stream.frames[piece] - offset);
        const size_t channels = static_cast<size_t>(stream.channels);
        const size_t read_at = words.size();
        words.resize(read_at + static_cast<size_t>(run) * channels);
        SNDFILE* file = stream.files[piece];
        if (run == 0 || sf_seek(file, static_cast<sf_count_t>(offset), SEEK_SET) < 0 ||
            sf_readf_int(file, words.data() + read_at, static_cast<sf_count_t>(run)) !=
                static_cast<sf_count_t>(run)) {
            error = "cannot read back the processor's output";
            return false;
        }
        // A power of two: the product by its reciprocal is the quotient.
        constexpr double kStep = 1.0 / kInt32FullScale;
        const size_t kept = static_cast<size_t>(keep);
        const size_t start = out.size();
        out.resize(start + static_cast<size_t>(run) * kept);
        double* to = out.data() + start;
        const int32_t* from = words.data() + read_at;
        for (uint64_t i = 0; i < run; ++i, from += channels, to += kept)
            for (size_t c = 0; c < kept; ++c)
                to[c] = from[c] * kStep;
        first += run;
        count -= run;
    }
    return true;
}

// Everything a run holds that must be given back on every way out.
struct RunResources {
    std::vector<PcmSource> sources;
    std::vector<std::string> pieces;
    std::vector<bool> kept;  // per piece: it is an output, written straight, and stays
    PieceStream stream;
    SoundWriter writer{};
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
        if (writer.file != nullptr)
            sf_close(writer.file);
        for (size_t i = 0; i < pieces.size(); ++i)
            if (i >= kept.size() || !kept[i])
                std::remove(pieces[i].c_str());
    }
};

// Where each input landed in the processor's stream, and what it measured.
// A reset drops what the convolver still holds (only silence, after the
// padding), so the stream starts afresh with the piece opened after it: an
// input's place is counted from the first piece since the last reset.
struct PassRecord {
    std::vector<size_t> segment;         // per input: first piece since the last reset
    std::vector<uint64_t> offset;        // per input: frames written since that reset before it
    std::vector<uint64_t> fed;           // per input: frames handed to the processor
    std::vector<ChannelLevels> levels;   // per input: the level handed on, one channel, in windows
    std::vector<OverCounts> processed;   // per input: before the output conversion
};

uint32_t WindowFrames(double window_seconds, int rate)
{
    return static_cast<uint32_t>(std::max(1.0, std::floor(window_seconds * rate + 0.5)));
}

// Where out_wav writes an input's share of the stream: a piece in the work
// folder, or straight into an output's temporary file in the output's own
// container (`format`, libsndfile's major format; 0 for a piece).
struct PiecePlan {
    std::string path;
    int format;
    std::string output;  // the output's name as given, when it is one
};

// Plays every input once: through the plug-in and, when the levels are
// wanted, the meter; or through the meter alone (the first pass of
// --normalize).
bool RunPass(const RenderRequest& request, RenderContext& context, RunResources& run, EngineMeter& meter,
             bool with_plugin, const std::vector<PiecePlan>& piece_plans, int processor_bits,
             double window_seconds, Progress& progress, PassRecord& record, std::string& error)
{
    const size_t count = run.sources.size();
    record = PassRecord{};
    record.segment.assign(count, 0);
    record.offset.assign(count, 0);
    record.fed.assign(count, 0);
    record.levels.resize(count);
    record.processed.resize(count);
    for (size_t i = 0; i < count; ++i) {
        InitLevels(record.levels[i], 1, WindowFrames(window_seconds, run.sources[i].rate));
        InitOverCounts(record.processed[i], WindowFrames(window_seconds, run.sources[i].rate));
    }

    host::Out_Module* module = context.session->module;
    if (with_plugin) {
        run.module = module;
        ReportTrace("Init");
        module->Init();
        run.initialised = true;
    }
    // Without the levels the meter is not built, nor its thread started,
    // and the steps queued for it go nowhere.
    const bool measure = request.measure;
    MeterThread metering;
    if (measure) {
        StartEngineMeter(meter);
        ResetEngineMeter(meter);
        StartMeterThread(metering, meter, record.offset, record.fed, record.processed, processor_bits);
    }

    size_t segment = 0;
    uint64_t stream_frames = 0;    // frames written since the last reset, silence included
    std::vector<uint8_t> block;
    WriteBuffer buffer;
    std::vector<double> power;
    std::vector<double>* frame_power = measure ? &power : nullptr;

    // One write to the plug-in and the meter, which counts its frames to
    // the input that they belong to, the padding's to none.
    auto write = [&](int frames, int frame_bytes, size_t current) {
        if (with_plugin) {
            PrepareWriteBuffer(buffer, block);
            if (!WriteBlock(module, buffer, frames * frame_bytes, error)) {
                // An output written straight says why it took no more.
                const PiecePlan& piece = piece_plans[current];
                const std::string why = piece.format != 0 ? WhyFileIsFull(piece.path) : "";
                if (!why.empty())
                    error = "cannot write " + piece.output + ": " + why;
                return false;
            }
        }
        QueueMeterWrite(metering, block, current, record.fed[current]);
        return true;
    };

    for (size_t i = 0; i < count; ++i) {
        PcmSource& source = run.sources[i];
        if (with_plugin) {
            const PiecePlan& piece = piece_plans[i];
            std::vector<RegValue> writer;
            SetRegString(writer, kOutFileValue, piece.path);
            // Only what the outputs keep goes into the pieces.
            if (request.two_channel)
                SetRegDword(writer, kOutChannelsValue, 2);
            if (piece.format != 0)
                SetRegDword(writer, kOutFormatValue, static_cast<uint32_t>(piece.format));
            if (!WriteRegKey(context.work_folder + "/" + kOutWavMakerName + "/" + kOutWavKeyName + ".reg",
                             RegKeyPath(kOutWavMakerName, kOutWavKeyName), writer, error))
                return false;
            run.pieces.push_back(piece.path);
        }
        if (request.reset_between && i > 0) {
            if (with_plugin) {
                ReportTrace("Play (the processor resets at the next Open)");
                SendHostCommand(*context.session, host::kCommandPlay);
            }
            segment = i;
            stream_frames = 0;
            QueueMeterRestart(metering, i);
        }
        if (with_plugin) {
            ReportTrace("Open " + std::to_string(source.rate) + " Hz, " + std::to_string(source.channels) +
                        " channels of " + std::to_string(source.bits) + " bits (" + source.path + ")");
            if (module->Open(source.rate, source.channels, source.bits, kBufferLengthMs, kPrebufferMs) < 0) {
                error = "the processor could not open its output for " + request.input_names[i];
                return false;
            }
            run.opened = true;
            module->SetVolume(kFullVolume);
            module->SetPan(kCentrePan);
        }
        QueueMeterOpen(metering, source.rate, source.channels, source.bits);

        const int frame_bytes = source.channels * source.bits / 8;
        record.segment[i] = segment;
        record.offset[i] = stream_frames;
        for (;;) {
            if (RenderInterrupted) {
                error = "interrupted";
                return false;
            }
            const int64_t got = ReadPcmBlock(source, kWriteFrames, block, frame_power);
            if (got < 0) {
                error = "cannot read input " + request.input_names[i] + ": " + sf_strerror(source.file);
                return false;
            }
            if (got == 0) {
                // All of it, unless the file went or changed under us.
                if (!PcmSourceUnchanged(source, request.input_names[i], error))
                    return false;
                break;
            }
            record.fed[i] += static_cast<uint64_t>(got);
            stream_frames += static_cast<uint64_t>(got);
            if (!write(static_cast<int>(got), frame_bytes, i))
                return false;
            if (measure) {
                for (double& p : power)
                    p = std::sqrt(p);
                AddLevelFrames(record.levels[i], power.data(), power.size());
            }
            progress.frames_done += static_cast<uint64_t>(got);
            progress.audio_seconds += static_cast<double>(got) / source.rate;
            DrawProgress(progress, false);
        }

        // Silence until the convolver has let go of everything it holds:
        // at the end of the play-list, before a Stop, which would drop it,
        // and before a file of another rate or channel count, which may pass
        // the convolver by while it still holds frames of this one.
        const bool last = i + 1 == count;
        const bool format_changes = !last && (run.sources[i + 1].rate != source.rate ||
                                              run.sources[i + 1].channels != source.channels);
        if (last || request.reset_between || format_changes) {
            int64_t padding = kEndPaddingFrames;
            while (padding > 0) {
                const int frames = static_cast<int>(std::min<int64_t>(padding, kWriteFrames));
                block.assign(static_cast<size_t>(frames) * frame_bytes, source.bits == 8 ? 128 : 0);
                if (!write(frames, frame_bytes, i))
                    return false;
                padding -= frames;
                stream_frames += static_cast<uint64_t>(frames);
            }
        }
        if (request.reset_between && !last) {
            if (with_plugin) {
                ReportTrace("Stop (the processor resets at Close)");
                SendHostCommand(*context.session, host::kCommandStop);
            }
            QueueMeterReset(metering);
        }
        if (with_plugin) {
            ReportTrace("Close");
            module->Close();
            run.opened = false;
        }
    }
    if (with_plugin) {
        ReportTrace("Quit");
        module->Quit();
        run.initialised = false;
    }
    QueueMeterReset(metering);
    FinishMeterThread(metering);
    return true;
}

// The word that an output follows when none was asked for: its first
// input's, as far as the processor gives it.
SampleWord InputWord(const PcmSource& source)
{
    if (source.file_float)
        return SampleWord{32, true};
    if (source.file_bits == 24 || source.file_bits == 32)
        return SampleWord{source.file_bits, false};
    return SampleWord{16, false};
}

// The libsndfile format in which out_wav may write `plan` straight into its
// temporary file, or 0 when the output has to be cut from the pieces: it
// must take one input whole, from the start of a stream (the only input, or
// each from a reset), unresampled, in the processor's own integer word (so
// nothing is dithered or converted), in a container that holds the words
// as they come (WAV, W64, RF64), with a length stated in advance, and the
// format must be the same whether the silence behind the input is in the
// file or not.
int DirectFormat(const RenderRequest& request, const std::vector<PcmSource>& sources, const OutputPlan& plan,
                 int channels, int processor_bits)
{
    if (plan.inputs.size() != 1 || (sources.size() > 1 && !request.reset_between))
        return 0;
    const PcmSource& source = sources[plan.inputs.front()];
    if (source.rate != source.file_rate || source.frames < 0 || plan.word.floating || plan.word.bits != processor_bits)
        return 0;
    if (plan.container != Container::Wav && plan.container != Container::W64 && plan.container != Container::Rf64)
        return 0;
    const uint64_t frame_bytes = static_cast<uint64_t>(channels * WordBytes(plan.word));
    const uint64_t frames = static_cast<uint64_t>(source.frames);
    const int format = SoundFileFormat(plan.container, plan.word, channels, frames * frame_bytes);
    if (SoundFileFormat(plan.container, plan.word, channels, (frames + kEndPaddingFrames) * frame_bytes) != format)
        return 0;
    return format;
}

// Cuts an output that out_wav wrote straight to the input's `frames`
// frames. `as_planned` is false, and the file left as it is, when it is not
// the file planned (`format`, `channels`); false with `error` when it cannot
// be read or holds fewer frames.
bool FinishDirectOutput(const OutputPlan& plan, int format, int channels, uint64_t frames, bool& as_planned,
                        std::string& error)
{
    as_planned = false;
    SF_INFO info{};
    SNDFILE* file = sf_open(plan.target.temporary.c_str(), SFM_RDWR, &info);
    if (file == nullptr) {
        error = "cannot write " + plan.target.given + ": the output plug-in did not finish it";
        return false;
    }
    if (info.format != format || info.channels != channels) {
        sf_close(file);
        return true;
    }
    sf_count_t length = static_cast<sf_count_t>(frames);
    bool good = info.frames >= length && sf_command(file, SFC_FILE_TRUNCATE, &length, sizeof length) == 0;
    good = sf_close(file) == 0 && good;
    if (!good) {
        const std::string why = WhyFileIsFull(plan.target.temporary);
        error = "cannot write " + plan.target.given + ": " + (why.empty() ? "the output plug-in did not finish it" : why);
        return false;
    }
    as_planned = true;
    return true;
}

}  // namespace

bool RunRender(RenderRequest& request, RenderContext& context, RenderSummary& summary, std::string& error)
{
    summary = RenderSummary{};
    const Clock::time_point start = Clock::now();
    RunResources run;

    // Every input must be readable before anything is written.
    run.sources.resize(request.inputs.size());
    uint64_t stated_frames = 0;
    for (size_t i = 0; i < request.inputs.size(); ++i) {
        if (!OpenPcmSource(request.inputs[i], run.sources[i], error)) {
            if (request.input_names[i] != request.inputs[i])
                error = "cannot read input " + request.input_names[i] + ": " + sf_strerror(nullptr);
            return false;
        }
        if (run.sources[i].frames > 0)
            stated_frames += static_cast<uint64_t>(run.sources[i].frames);
    }
    for (const OutputPlan& plan : request.outputs)
        for (size_t input : plan.inputs)
            if (run.sources[input].file_rate != run.sources[plan.inputs.front()].file_rate) {
                error = "inputs of different sample rates cannot share the output " + plan.target.given +
                        " (use -o DIR)";
                return false;
            }

    // What each input becomes on its way in.
    const int mode = EffectiveMode(request.settings);
    const double gain = DbToGain(request.gain_db);
    for (size_t i = 0; i < run.sources.size(); ++i) {
        PcmSource& source = run.sources[i];
        // With --normalize the gain is not known yet, and the words will be
        // changed by it.
        FeedPlan plan{request.mono_as_stereo, request.downmix, gain, !request.normalize, source.file_rate};
        if (!PlanPcmSource(source, plan, error))
            return false;
        // The convolver takes stereo and four to six channels, at its rates
        // only; anything else it leaves alone.
        const bool convolved = mode == kModeHeadphone && source.channels != 1;
        if (convolved && !IsHeadphoneRate(source.file_rate)) {
            if (request.resample) {
                plan.rate = kResampleRate;
                if (!PlanPcmSource(source, plan, error))
                    return false;
                ReportNote(request.input_names[i] + " is at " + std::to_string(source.file_rate) +
                           " Hz: the headphone mode works at 44100 to 48000 Hz, so it goes to the processor at " +
                           std::to_string(kResampleRate) + " Hz and comes back to " +
                           std::to_string(source.file_rate) + " Hz");
            } else {
                ReportWarning(request.input_names[i] + " is at " + std::to_string(source.file_rate) +
                              " Hz, outside the headphone mode's 44100 to 48000 Hz: with --no-resample the "
                              "processor passes it through unprocessed, louder than bypass");
            }
        }
        if (source.channels == 5 && source.bits == 24)
            ReportWarning(request.input_names[i] + ": the processor reads five channels of 24 bits on into its "
                          "six-channel pass, from behind the block: the output is silent");
        if (source.channels == 4 && source.bits == 32)
            ReportWarning(request.input_names[i] + ": the processor reads four channels of 32 bits with a "
                          "stride of five: the channels come out mixed up");
    }

    // The words: each output's own, and the processor's, which is at least
    // as long as every input's and every output's, so that any shortening
    // happens here, with dither.
    int processor_bits = 16;
    for (const PcmSource& source : run.sources)
        processor_bits = std::max(processor_bits, source.bits);
    for (OutputPlan& plan : request.outputs) {
        if (plan.word.bits == 0) {
            plan.word = InputWord(run.sources[plan.inputs.front()]);
            if (!ContainerHolds(plan.container, plan.word)) {
                plan.word = SampleWord{24, false};
                ReportNote(plan.target.given + ": FLAC holds at most 24 bits, so it gets 24");
            }
        } else if (!ContainerHolds(plan.container, plan.word)) {
            error = "cannot write " + plan.target.given + ": FLAC holds 16 or 24 bits";
            return false;
        }
        processor_bits = std::max(processor_bits, plan.word.bits);
    }
    std::vector<RegValue> settings = request.settings;
    SetRegDword(settings, "Out_Bits", processor_bits);
    summary.processor_bits = processor_bits;

    // The processor's private settings store for this run.
    const std::string store = context.work_folder + "/" + kMakerKeyName + "/" + kProcessorKeyName + ".reg";
    if (!WriteRegKey(store, RegKeyPath(kMakerKeyName, kProcessorKeyName), settings, error))
        return false;

    Progress progress{};
    progress.enabled = request.show_progress;
    progress.total_frames = stated_frames * (request.normalize ? 2 : 1);
    progress.start = Clock::now();
    double longest = 0.0;
    for (const PcmSource& source : run.sources)
        longest += source.frames > 0 ? static_cast<double>(source.frames) / source.file_rate : 0.0;
    const double window_seconds = std::max(kShortestWindowSeconds, longest / kReportColumns);

    // The outputs that out_wav writes itself, and the pieces of the others,
    // which hold the channels that the outputs keep.
    const int processor_channels = request.two_channel ? 2 : static_cast<int>(kFrameFloats);
    std::vector<PiecePlan> piece_plans(run.sources.size());
    for (size_t i = 0; i < run.sources.size(); ++i)
        piece_plans[i] = {context.work_folder + "/piece-" + std::to_string(i) + ".wav", 0, ""};
    std::vector<int> direct(request.outputs.size(), 0);
    for (size_t p = 0; p < request.outputs.size(); ++p) {
        OutputPlan& plan = request.outputs[p];
        direct[p] = DirectFormat(request, run.sources, plan, processor_channels, processor_bits);
        if (direct[p] == 0)
            continue;
        if (!PrepareTarget(plan.target, context.work_folder, error))
            return false;
        piece_plans[plan.inputs.front()] = {plan.target.temporary, direct[p] & SF_FORMAT_TYPEMASK, plan.target.given};
    }

    EngineMeter meter;
    PassRecord record;
    summary.gain_db = request.gain_db;
    if (request.normalize) {
        // The first pass: the meter alone, at unity gain.
        if (!RunPass(request, context, run, meter, false, piece_plans, processor_bits, window_seconds, progress,
                     record, error))
            return false;
        double largest = 0.0;
        double input_peak = 0.0;
        for (size_t i = 0; i < run.sources.size(); ++i) {
            for (int c = 0; c < processor_channels; ++c)
                largest = std::max(largest, record.processed[i].peak[c]);
            input_peak = std::max(input_peak, run.sources[i].peak);
        }
        // The input's words hold full scale at most: a gain that would take
        // the input past it is cut down to what fits.
        summary.gain_db = largest > 0.0 ? kNormalizeTargetDb - OutputLevelDb(largest) : 0.0;
        summary.gain_limit_db = input_peak > 0.0 ? -LevelDb(input_peak) : kGainLimitDb;
        if (summary.gain_db > summary.gain_limit_db) {
            summary.gain_db = summary.gain_limit_db;
            summary.gain_limited = true;
        }
        summary.gain_db = std::max(-kGainLimitDb, std::min(kGainLimitDb, summary.gain_db));
        for (PcmSource& source : run.sources) {
            source.plan.gain = DbToGain(summary.gain_db);
            if (!RewindPcmSource(source, error))
                return false;
        }
    }
    if (!RunPass(request, context, run, meter, true, piece_plans, processor_bits, window_seconds, progress, record,
                 error))
        return false;
    DrawProgress(progress, true);

    summary.inputs.resize(run.sources.size());
    for (size_t i = 0; i < run.sources.size(); ++i) {
        const PcmSource& source = run.sources[i];
        InputSummary& input = summary.inputs[i];
        input.name = request.input_names[i];
        input.file_rate = source.file_rate;
        input.rate = source.rate;
        input.channels = source.channels;
        input.bits = source.bits;
        input.frames = source.frames_read;
        input.truncated = source.truncated || (source.frames > 0 && source.frames_read < static_cast<uint64_t>(source.frames));
        input.input_overs = source.overs;
        input.processed = record.processed[i];
    }

    // The outputs written straight: the silence behind the input cut off.
    // One that did not come out as planned (a processor loaded with
    // --plugin may give other channels) is a piece like the others, and its
    // output is cut from it after all.
    for (size_t p = 0; p < request.outputs.size(); ++p) {
        if (direct[p] == 0)
            continue;
        OutputPlan& plan = request.outputs[p];
        const size_t input = plan.inputs.front();
        bool as_planned = false;
        if (!FinishDirectOutput(plan, direct[p], processor_channels, record.fed[input], as_planned, error))
            return false;
        if (as_planned) {
            run.kept.resize(run.pieces.size(), false);
            run.kept[input] = true;  // it is the output now, not a piece to remove
        } else {
            direct[p] = 0;  // a piece now, removed at the end; the output gets a temporary file of its own
        }
    }

    // Cut the outputs from the stream that came back.
    if (!OpenPieces(run.pieces, run.stream, error))
        return false;
    const int keep_channels = request.two_channel ? std::min(2, run.stream.channels) : run.stream.channels;
    // Every frame of every input must have come out before the next reset;
    // the silence behind them need not have.
    std::vector<uint64_t> input_start(run.sources.size());  // stream frame of each input's first frame
    for (size_t i = 0; i < run.sources.size(); ++i) {
        input_start[i] = run.stream.first_frame[record.segment[i]] + record.offset[i];
        size_t next = i + 1;
        while (next < run.sources.size() && record.segment[next] == record.segment[i])
            ++next;
        const uint64_t segment_end =
            next < run.sources.size() ? run.stream.first_frame[record.segment[next]] : run.stream.total_frames;
        if (input_start[i] + record.fed[i] > segment_end) {
            error = "the processor gave back too few frames for " + request.input_names[i];
            return false;
        }
    }

    std::vector<ReportFile> report_files(run.sources.size());
    std::vector<int32_t> words;
    std::vector<double> samples;
    std::vector<double> resampled;
    for (size_t p = 0; p < request.outputs.size(); ++p) {
        OutputPlan& plan = request.outputs[p];
        OutputSummary result{};
        result.name = plan.target.given;
        result.container = plan.container;
        result.rate = run.sources[plan.inputs.front()].file_rate;
        result.channels = keep_channels;
        result.word = plan.word;
        InitLevels(result.levels, keep_channels, 0);
        bool any_resampled = false;
        for (size_t input : plan.inputs) {
            result.frames += run.sources[input].frames_read;
            any_resampled = any_resampled || run.sources[input].rate != run.sources[input].file_rate;
            for (int c = 0; c < keep_channels; ++c) {
                result.peak[c] = std::max(result.peak[c], record.processed[input].peak[c]);
                result.overs[c] += record.processed[input].overs[c];
            }
        }
        result.dithered = request.dither && !plan.word.floating && (plan.word.bits < processor_bits || any_resampled);
        const uint64_t data_bytes = result.frames * static_cast<uint64_t>(keep_channels * WordBytes(plan.word));
        result.format = direct[p] != 0 ? direct[p] : SoundFileFormat(plan.container, plan.word, keep_channels, data_bytes);
        const bool write = direct[p] == 0;  // not written straight
        if (write && (!PrepareTarget(plan.target, context.work_folder, error) ||
                      !OpenSoundWriter(plan.target.temporary, result.format, result.rate, keep_channels, plan.word,
                                       result.dithered, run.writer, error))) {
            if (!error.empty() && error.find(plan.target.given) == std::string::npos)
                error = "cannot write " + plan.target.given + ": " + error;
            return false;
        }
        // A file written straight is finished, and read back only for its
        // levels.
        if (!write && !request.measure) {
            summary.outputs.push_back(result);
            continue;
        }
        for (size_t input : plan.inputs) {
            const PcmSource& source = run.sources[input];
            ReportFile& file = report_files[input];
            file.name = request.input_names[input];
            file.output_rate = source.file_rate;
            file.processor_rate = source.rate;
            file.input = record.levels[input];
            file.processed = record.processed[input];
            InitLevels(file.output, keep_channels, WindowFrames(window_seconds, source.file_rate));
            const bool resampling = source.rate != source.file_rate;
            Resampler back{};
            if (resampling && !OpenResampler(back, source.rate, source.file_rate, keep_channels, error))
                return false;
            // The processor's words go on as they are when the output has
            // its word size and every channel, and nothing is resampled or
            // dithered: each sample then is exactly the word it came as.
            const bool as_is = !resampling && !result.dithered && !plan.word.floating &&
                               plan.word.bits == processor_bits && keep_channels == run.stream.channels;
            uint64_t emitted = 0;
            auto emit = [&](std::vector<double>& frames_in) {
                size_t frames = frames_in.size() / static_cast<size_t>(keep_channels);
                frames = static_cast<size_t>(std::min<uint64_t>(frames, source.frames_read - emitted));
                if (frames == 0)
                    return true;
                const bool written = !write || (as_is ? WriteSoundWords(run.writer, words.data(), frames, error)
                                                      : WriteSoundFrames(run.writer, frames_in.data(), frames, error));
                if (!written) {
                    error = "cannot write " + plan.target.given + ": " + error;
                    return false;
                }
                if (request.measure) {
                    AddLevelFrames(result.levels, frames_in.data(), frames);
                    AddLevelFrames(file.output, frames_in.data(), frames);
                }
                emitted += frames;
                return true;
            };
            for (uint64_t done = 0; done < record.fed[input];) {
                const uint64_t run_frames = std::min(kCopyFrames, record.fed[input] - done);
                if (!ReadStreamFrames(run.stream, input_start[input] + done, run_frames, keep_channels, words,
                                      samples, error))
                    return false;
                done += run_frames;
                if (resampling) {
                    resampled.clear();
                    ResampleBlock(back, samples.data(), static_cast<size_t>(run_frames), resampled);
                    if (!emit(resampled))
                        return false;
                } else if (!emit(samples)) {
                    return false;
                }
            }
            if (resampling) {
                resampled.clear();
                FinishResampling(back, source.frames_read, resampled);
                CloseResampler(back);
                if (!emit(resampled))
                    return false;
            }
        }
        if (write) {
            for (int c = 0; c < keep_channels; ++c)
                result.overs[c] += run.writer.overs[static_cast<size_t>(c)];
            if (!CloseSoundWriter(run.writer, error)) {
                error = "cannot write " + plan.target.given + ": " + error;
                return false;
            }
        }
        summary.outputs.push_back(result);
    }

    if (request.report != nullptr) {
        if (!PrepareTarget(*request.report, context.work_folder, error) ||
            !WriteLevelReport(request.report->temporary, request.report->given, report_files, request.two_channel,
                              error))
            return false;
    }

    if (RenderInterrupted) {
        error = "interrupted";
        return false;
    }
    for (const PcmSource& source : run.sources)
        summary.input_frames += source.frames_read;
    summary.audio_seconds = progress.audio_seconds / (request.normalize ? 2.0 : 1.0);
    summary.wall_seconds = Seconds(start);
    return true;
}

bool CommitOutputs(RenderRequest& request, std::string& error)
{
    for (OutputPlan& plan : request.outputs)
        if (!CommitTarget(plan.target, error))
            return false;
    if (request.report != nullptr && !CommitTarget(*request.report, error))
        return false;
    return true;
}

void DiscardOutputs(RenderRequest& request)
{
    for (OutputPlan& plan : request.outputs)
        DiscardTarget(plan.target);
    if (request.report != nullptr)
        DiscardTarget(*request.report);
}

uint64_t TotalOvers(const RenderSummary& summary)
{
    uint64_t total = 0;
    for (const OutputSummary& output : summary.outputs)
        for (int c = 0; c < output.channels; ++c)
            total += output.overs[c];
    return total;
}

uint64_t InputOvers(const RenderSummary& summary)
{
    uint64_t total = 0;
    for (const InputSummary& input : summary.inputs)
        total += input.input_overs;
    return total;
}

double SuggestedGainDb(const RenderSummary& summary)
{
    double largest = 0.0;
    for (const OutputSummary& output : summary.outputs)
        for (int c = 0; c < output.channels; ++c)
            largest = std::max(largest, output.peak[c]);
    if (largest <= 0.0)
        return 0.0;
    const double gain = summary.gain_db + kNormalizeTargetDb - OutputLevelDb(largest);
    return std::floor(gain * 10.0) / 10.0;
}

namespace {

constexpr const char* kSpeakerNames[6] = {"L", "R", "C", "LFE", "SL", "SR"};

const char* ContainerLabel(int format)
{
    switch (format & SF_FORMAT_TYPEMASK) {
    case SF_FORMAT_WAV: return "WAV";
    case SF_FORMAT_WAVEX: return "WAV (extensible)";
    case SF_FORMAT_RF64: return "RF64";
    case SF_FORMAT_W64: return "W64";
    case SF_FORMAT_FLAC: return "FLAC";
    case SF_FORMAT_CAF: return "CAF";
    default: return "?";
    }
}

std::string WordLabel(SampleWord word)
{
    return word.floating ? std::string("32-bit float") : std::to_string(word.bits) + " bits";
}

std::string SignedDb(double db)
{
    char text[32];
    std::snprintf(text, sizeof text, "%+.1f", db);
    return text;
}

}  // namespace

void PrintSummary(const RenderSummary& summary, std::FILE* out)
{
    const double speed = summary.wall_seconds > 0.0 ? summary.audio_seconds / summary.wall_seconds : 0.0;
    if (summary.gain_db != 0.0 || summary.gain_limited)
        std::fprintf(out, "gain before the processor: %s dB%s\n", SignedDb(summary.gain_db).c_str(),
                     summary.gain_limited ? " (as much as the inputs' peaks allow)" : "");
    for (const InputSummary& input : summary.inputs)
        if (input.rate != input.file_rate)
            std::fprintf(out, "%s: resampled to %d Hz for the processor and back to %d Hz\n", input.name.c_str(),
                         input.rate, input.file_rate);
    for (const OutputSummary& result : summary.outputs) {
        const double seconds = static_cast<double>(result.frames) / result.rate;
        std::fprintf(out, "%s: %llu frames, %.3f s, %d channels of %s at %d Hz, %s%s\n", result.name.c_str(),
                     static_cast<unsigned long long>(result.frames), seconds, result.channels,
                     WordLabel(result.word).c_str(), result.rate, ContainerLabel(result.format),
                     result.dithered ? ", dithered" : "");
        std::fprintf(out, "  %-10s", "channel");
        for (int c = 0; c < result.channels; ++c)
            std::fprintf(out, "%7s", c < 6 ? kSpeakerNames[c] : "?");
        std::fprintf(out, "\n  %-10s", "peak dBFS");
        for (int c = 0; c < result.channels; ++c)
            std::fprintf(out, "%s", FormatDb(OutputLevelDb(result.peak[c]), 7).c_str());
        std::fprintf(out, "\n  %-10s", "RMS dBFS");
        for (int c = 0; c < result.levels.channels; ++c)
            std::fprintf(out, "%s", FormatDb(RmsDb(result.levels, c), 7).c_str());
        std::fprintf(out, "\n  %-10s", "clipped");
        for (int c = 0; c < result.channels; ++c)
            std::fprintf(out, "%7llu", static_cast<unsigned long long>(result.overs[c]));
        std::fprintf(out, "\n");
    }
    if (TotalOvers(summary) > 0)
        std::fprintf(out, "suggested gain: --gain %.1f (or --normalize)\n", SuggestedGainDb(summary));
    std::fprintf(out, "%llu frames (%.3f s of audio) in %.2f s: %.1fx real time\n",
                 static_cast<unsigned long long>(summary.input_frames), summary.audio_seconds, summary.wall_seconds,
                 speed);
}

void ReportOvers(const RenderSummary& summary)
{
    for (const InputSummary& input : summary.inputs)
        if (input.input_overs > 0)
            ReportWarning(input.name + ": " + std::to_string(input.input_overs) +
                          " samples went over full scale with the gain and were limited to it");
    bool any = false;
    for (const OutputSummary& output : summary.outputs)
        for (int c = 0; c < output.channels; ++c) {
            if (output.overs[c] == 0)
                continue;
            any = true;
            ReportWarning(output.name + ": clipped " + std::to_string(output.overs[c]) + " samples in " +
                          kSpeakerNames[c] + " (peak " + SignedDb(OutputLevelDb(output.peak[c])) +
                          " dBFS before the output conversion, where overs wrap to the other extreme)");
        }
    if (any) {
        char text[96];
        std::snprintf(text, sizeof text, "suggested gain: --gain %.1f (or --normalize)", SuggestedGainDb(summary));
        ReportWarning(text);
    }
}
