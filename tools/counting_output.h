// The counting output plug-in that the fuzzer and the soak chain the plug-in
// to: what it reports to the program that drives the plug-in, the calls it
// was given and the bytes that reached it. The record lives in the driving
// program, which exports it; the chained library finds it by name when it
// is loaded.
#pragma once

#include <cstdint>

struct CountingTally {
    // Answers of the chained plug-in, set by the driver before each call.
    int32_t openResult;
    int32_t writeResult;
    // What was seen, per library (0 for "a", 1 for "b").
    uint32_t opens[2];
    uint32_t writes[2];
    uint64_t bytesWritten[2];   // sum of the lengths of all writes
    int32_t lastOpenRate;
    int32_t lastOpenChannels;
    int32_t lastOpenBits;
    int32_t lastWriteLength;    // -1 until a write comes
    uint32_t checksum;          // every byte written is read into this
};

// Defined by the driving program, with C linkage, exported from it.
extern "C" CountingTally* KelvaneCountingTally();
