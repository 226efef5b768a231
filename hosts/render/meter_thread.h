// The engine meter on a thread of its own. The plug-in and the meter get the
// same writes and neither waits for the other's result, so the meter's work
// runs on the second core beside the plug-in's: the pass queues each meter
// step in order (the stream's Open, a reset, the start of a segment, a
// write) and the thread works through them, counting each frame that comes
// back to the input it belongs to. Only the thread touches the meter and
// the over counts until FinishMeterThread returns.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "hosts/render/engine_meter.h"
#include "hosts/render/levels.h"

struct MeterStep {
    enum class Kind { Open, Reset, Restart, Write };
    Kind kind;
    int rate, channels, bits;     // Open: the stream
    size_t input;                 // Restart: the segment's first input; Write: the input being fed
    uint64_t fed;                 // Write: frames of `input` handed over, this write's included
    uint32_t bytes;               // Write: the length the plug-in got
    std::vector<uint8_t> buffer;  // Write: those bytes (the conversion reads nothing behind them)
};

struct MeterThread {
    EngineMeter* meter = nullptr;
    // Where the stream's frames belong: per input, the frames written since
    // the last reset before it, and its frames handed over. An input's
    // entries are set before its first write is queued and, but for the
    // input being fed, never change after it.
    const std::vector<uint64_t>* offset = nullptr;
    const std::vector<uint64_t>* fed = nullptr;
    std::vector<OverCounts>* processed = nullptr;  // per input: levels before the output conversion
    int processor_bits = 16;

    std::mutex lock;
    std::condition_variable work;   // a batch of steps, or the end
    std::condition_variable room;   // the queue has room again
    std::deque<MeterStep> steps;
    std::vector<std::vector<uint8_t>> spare;  // buffers of written steps, used again
    bool finishing = false;
    std::thread worker;

    MeterThread() = default;
    MeterThread(const MeterThread&) = delete;
    MeterThread& operator=(const MeterThread&) = delete;
    ~MeterThread();
};

// Starts the thread on a meter that StartEngineMeter has built.
void StartMeterThread(MeterThread& thread, EngineMeter& meter, const std::vector<uint64_t>& offset,
                      const std::vector<uint64_t>& fed, std::vector<OverCounts>& processed, int processor_bits);

// The steps, in the order the plug-in sees the same events. A thread that
// was never started takes none: the pass measures nothing.
void QueueMeterOpen(MeterThread& thread, int rate, int channels, int bits);
void QueueMeterReset(MeterThread& thread);
void QueueMeterRestart(MeterThread& thread, size_t input);
// `write` holds the bytes of one write, as many as the plug-in got.
void QueueMeterWrite(MeterThread& thread, const std::vector<uint8_t>& write, size_t input, uint64_t fed);

// Waits until every queued step is done and the thread has ended.
void FinishMeterThread(MeterThread& thread);
