// An output plug-in that plays nothing and records everything it is given,
// built twice under two names, so that the tests can chain it and switch
// between two of them.
#include <chrono>
#include <thread>

#include "tests/shell/recording_log.h"
#include "hosts/out_module_host.h"

#ifndef RECORDER_NAME
#error "RECORDER_NAME names the recorder"
#endif

namespace {

host::Out_Module Module;

// A slow output takes its time over every call before it answers.
void TakeTime()
{
    if (Replies().delayMs > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(Replies().delayMs));
}

void Config(host::HWND parent) { Record(RECORDER_NAME, "Config", {int64_t(intptr_t(parent))}); }
void About(host::HWND parent) { Record(RECORDER_NAME, "About", {int64_t(intptr_t(parent))}); }
void Init() { Record(RECORDER_NAME, "Init", {}); }
void Quit() { Record(RECORDER_NAME, "Quit", {}); }

int Open(int samplerate, int numchannels, int bitspersamp, int bufferlenms, int prebufferms)
{
    Record(RECORDER_NAME, "Open", {samplerate, numchannels, bitspersamp, bufferlenms, prebufferms});
    TakeTime();
    return Replies().open;
}

void Close() { Record(RECORDER_NAME, "Close", {}); TakeTime(); }

int Write(char* buf, int len)
{
    Record(RECORDER_NAME, "Write", {len, buf == nullptr ? 1 : 0}, reinterpret_cast<const uint8_t*>(buf),
           buf == nullptr || len < 0 ? 0 : size_t(len));
    TakeTime();
    return Replies().write;
}

int CanWrite() { Record(RECORDER_NAME, "CanWrite", {}); TakeTime(); return Replies().canWrite; }
int IsPlaying() { Record(RECORDER_NAME, "IsPlaying", {}); return Replies().isPlaying; }
int Pause(int pause) { Record(RECORDER_NAME, "Pause", {pause}); return Replies().pause; }
void SetVolume(int volume) { Record(RECORDER_NAME, "SetVolume", {volume}); }
void SetPan(int pan) { Record(RECORDER_NAME, "SetPan", {pan}); }
void Flush(int t) { Record(RECORDER_NAME, "Flush", {t}); TakeTime(); }
int GetOutputTime() { Record(RECORDER_NAME, "GetOutputTime", {}); return Replies().outputTime; }
int GetWrittenTime() { Record(RECORDER_NAME, "GetWrittenTime", {}); return Replies().writtenTime; }

__attribute__((constructor)) void Loaded() { Record(RECORDER_NAME, "load", {}); }
__attribute__((destructor)) void Unloaded() { Record(RECORDER_NAME, "unload", {}); }

}  // namespace

extern "C" __attribute__((visibility("default"))) host::Out_Module* winampGetOutModule()
{
    Module.version = host::kOutModuleVersion;
    Module.description = "Recording output " RECORDER_NAME;
    Module.id = RECORDER_ID;
    Module.Config = &Config;
    Module.About = &About;
    Module.Init = &Init;
    Module.Quit = &Quit;
    Module.Open = &Open;
    Module.Close = &Close;
    Module.Write = &Write;
    Module.CanWrite = &CanWrite;
    Module.IsPlaying = &IsPlaying;
    Module.Pause = &Pause;
    Module.SetVolume = &SetVolume;
    Module.SetPan = &SetPan;
    Module.Flush = &Flush;
    Module.GetOutputTime = &GetOutputTime;
    Module.GetWrittenTime = &GetWrittenTime;
    return &Module;
}
