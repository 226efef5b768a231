// The log that the test's output plug-ins write into and the tests read: every
// call a recording plug-in is given, with its arguments and the bytes of each
// write, and the loads and unloads of the test libraries. It lives in a
// library of its own, so that one log outlasts the plug-ins that come and go.
// The same library holds the platform's probe, where the plug-in's POSIX
// services record its message boxes and library releases.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct RecordedCall {
    std::string library;   // "a", "b", "noexport"
    std::string function;  // "Open", "Write", ..., "load", "unload"
    std::vector<int64_t> args;
    std::vector<uint8_t> bytes;  // Write only
};

// What the recording plug-ins answer.
struct RecorderReplies {
    int open = 0;
    int write = 0;
    int canWrite = 0;
    int isPlaying = 0;
    int pause = 0;
    int outputTime = 0;
    int writtenTime = 0;
    int delayMs = 0;  // how long every call takes before it answers
};

struct PlatformProbe;  // platform/posix/dialog_emulator.h

std::vector<RecordedCall>& RecordedCalls();
PlatformProbe& PlatformProbeRecord();
RecorderReplies& Replies();
void Record(const char* library, const char* function, std::vector<int64_t> args,
            const uint8_t* bytes = nullptr, size_t count = 0);
// The calls of one library and function, in order.
std::vector<RecordedCall> CallsOf(const std::string& library, const std::string& function);
