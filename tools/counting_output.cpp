// A chained output plug-in for the fuzzer and the soak: it plays nothing,
// answers as the driver tells it, and counts what reaches it. Every byte of
// every write is read, so that a length that runs past the plug-in's output
// block shows up under AddressSanitizer here, in the chained plug-in, where
// a real output would read it.
#include "tools/counting_output.h"
#include "hosts/out_module_host.h"

#ifndef COUNTER_INDEX
#error "COUNTER_INDEX numbers the library: 0 or 1"
#endif

namespace {

host::Out_Module Module;

int Open(int samplerate, int numchannels, int bitspersamp, int, int)
{
    CountingTally& tally = *KelvaneCountingTally();
    ++tally.opens[COUNTER_INDEX];
    tally.lastOpenRate = samplerate;
    tally.lastOpenChannels = numchannels;
    tally.lastOpenBits = bitspersamp;
    return tally.openResult;
}

int Write(char* buf, int len)
{
    CountingTally& tally = *KelvaneCountingTally();
    ++tally.writes[COUNTER_INDEX];
    tally.bytesWritten[COUNTER_INDEX] += uint64_t(len < 0 ? 0 : len);
    tally.lastWriteLength = len;
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(buf);
    for (int i = 0; i < len; ++i)
        tally.checksum = tally.checksum * 31u + bytes[i];
    return tally.writeResult;
}

void Nothing() {}
void NothingWindow(host::HWND) {}
void NothingInt(int) {}
int Zero() { return 0; }
int ZeroInt(int) { return 0; }

}  // namespace

extern "C" __attribute__((visibility("default"))) host::Out_Module* winampGetOutModule()
{
    Module.version = host::kOutModuleVersion;
    Module.description = "Counting output";
    Module.id = 7000 + COUNTER_INDEX;
    Module.Config = &NothingWindow;
    Module.About = &NothingWindow;
    Module.Init = &Nothing;
    Module.Quit = &Nothing;
    Module.Open = &Open;
    Module.Close = &Nothing;
    Module.Write = &Write;
    Module.CanWrite = &Zero;
    Module.IsPlaying = &Zero;
    Module.Pause = &ZeroInt;
    Module.SetVolume = &NothingInt;
    Module.SetPan = &NothingInt;
    Module.Flush = &NothingInt;
    Module.GetOutputTime = &Zero;
    Module.GetWrittenTime = &Zero;
    return &Module;
}
