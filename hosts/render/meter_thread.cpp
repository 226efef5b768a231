// The engine meter beside the plug-in, on a thread of its own.
#include "hosts/render/meter_thread.h"

#include <algorithm>
#include <utility>

#include "signal/frame.h"

namespace {

// The thread is woken for this many steps at a time, not for each write:
// a wake-up costs a system call, a write of 576 frames a few microseconds.
constexpr size_t kBatchSteps = 16;
// The pass waits when this many steps are queued (each write's buffer a few
// kilobytes), so a slow meter never lets the queue grow without end.
constexpr size_t kMostSteps = 256;

// Counts each frame of a meter write to the input it belongs to: the
// frames of the silence behind an input's last frame belong to none.
struct Attribution {
    size_t input = 0;        // the input that the meter's frames belong to now
    uint64_t frames = 0;     // frames that the meter gave back since the last reset
};

void CountFrames(MeterThread& thread, Attribution& at, const MeterStep& step, const float* frames, uint32_t count)
{
    const std::vector<uint64_t>& offset = *thread.offset;
    const std::vector<uint64_t>& fed = *thread.fed;
    // The fed count of the input being fed is the one of this write; the
    // others' are final.
    auto fed_of = [&](size_t input) { return input == step.input ? step.fed : fed[input]; };
    // Runs of frames that belong to one input, or to none.
    for (uint32_t f = 0; f < count;) {
        while (at.input < step.input && at.frames >= offset[at.input] + fed_of(at.input))
            ++at.input;
        const uint64_t begin = offset[at.input];
        const uint64_t end = begin + fed_of(at.input);
        const uint64_t left = count - f;
        uint64_t run = left;
        if (at.frames < begin) {
            run = std::min(left, begin - at.frames);  // silence before the input
        } else if (at.frames < end) {
            run = std::min(left, end - at.frames);
            AddProcessedFrames((*thread.processed)[at.input], frames + static_cast<size_t>(f) * kFrameFloats,
                               static_cast<size_t>(run), thread.processor_bits);
        }
        f += static_cast<uint32_t>(run);
        at.frames += run;
    }
}

void RunSteps(MeterThread& thread)
{
    Attribution at;
    std::deque<MeterStep> batch;
    for (;;) {
        {
            std::unique_lock<std::mutex> hold(thread.lock);
            thread.work.wait(hold, [&] { return thread.steps.size() >= kBatchSteps || thread.finishing; });
            if (thread.steps.empty())
                return;
            std::swap(batch, thread.steps);
        }
        thread.room.notify_one();
        for (MeterStep& step : batch) {
            switch (step.kind) {
            case MeterStep::Kind::Open:
                OpenEngineMeter(*thread.meter, step.rate, step.channels, step.bits);
                break;
            case MeterStep::Kind::Reset:
                ResetEngineMeter(*thread.meter);
                break;
            case MeterStep::Kind::Restart:
                at.input = step.input;
                at.frames = 0;
                break;
            case MeterStep::Kind::Write: {
                uint32_t count = 0;
                const float* frames = MeterWrite(*thread.meter, step.buffer.data(), step.bytes, count);
                CountFrames(thread, at, step, frames, count);
                break;
            }
            }
        }
        std::lock_guard<std::mutex> hold(thread.lock);
        for (MeterStep& step : batch)
            if (step.kind == MeterStep::Kind::Write)
                thread.spare.push_back(std::move(step.buffer));
        batch.clear();
    }
}

void Queue(MeterThread& thread, MeterStep&& step)
{
    if (!thread.worker.joinable())
        return;  // not started: nothing is measured
    std::unique_lock<std::mutex> hold(thread.lock);
    thread.room.wait(hold, [&] { return thread.steps.size() < kMostSteps; });
    thread.steps.push_back(std::move(step));
    const bool wake = thread.steps.size() >= kBatchSteps;
    hold.unlock();
    if (wake)
        thread.work.notify_one();
}

}  // namespace

MeterThread::~MeterThread()
{
    FinishMeterThread(*this);
}

void StartMeterThread(MeterThread& thread, EngineMeter& meter, const std::vector<uint64_t>& offset,
                      const std::vector<uint64_t>& fed, std::vector<OverCounts>& processed, int processor_bits)
{
    thread.meter = &meter;
    thread.offset = &offset;
    thread.fed = &fed;
    thread.processed = &processed;
    thread.processor_bits = processor_bits;
    thread.finishing = false;
    thread.worker = std::thread(RunSteps, std::ref(thread));
}

void QueueMeterOpen(MeterThread& thread, int rate, int channels, int bits)
{
    MeterStep step{};
    step.kind = MeterStep::Kind::Open;
    step.rate = rate;
    step.channels = channels;
    step.bits = bits;
    Queue(thread, std::move(step));
}

void QueueMeterReset(MeterThread& thread)
{
    MeterStep step{};
    step.kind = MeterStep::Kind::Reset;
    Queue(thread, std::move(step));
}

void QueueMeterRestart(MeterThread& thread, size_t input)
{
    MeterStep step{};
    step.kind = MeterStep::Kind::Restart;
    step.input = input;
    Queue(thread, std::move(step));
}

void QueueMeterWrite(MeterThread& thread, const std::vector<uint8_t>& write, size_t input, uint64_t fed)
{
    if (!thread.worker.joinable())
        return;
    MeterStep step{};
    step.kind = MeterStep::Kind::Write;
    step.input = input;
    step.fed = fed;
    step.bytes = static_cast<uint32_t>(write.size());
    {
        std::lock_guard<std::mutex> hold(thread.lock);
        if (!thread.spare.empty()) {
            step.buffer = std::move(thread.spare.back());
            thread.spare.pop_back();
        }
    }
    step.buffer.assign(write.begin(), write.end());
    Queue(thread, std::move(step));
}

void FinishMeterThread(MeterThread& thread)
{
    if (!thread.worker.joinable())
        return;
    {
        std::lock_guard<std::mutex> hold(thread.lock);
        thread.finishing = true;
    }
    thread.work.notify_one();
    thread.worker.join();
}
