// The chained output plug-in: loading it, opening it for six channels, and the
// slots of our record that pass the host's calls on to it.
//
// The link has three states. Unloaded: Library 0, Reload_Needed set (after
// Init, after a failed load). Loaded and clean: Library set, Reload_Needed 0.
// Loaded and stale: Library set, Reload_Needed set, after the dialog accepted
// a new file; the running stream stays on the old library until the next Open.
//
// Forwards add nothing and check nothing: the unguarded slots call whatever
// the copied record holds, and the host's order of calls is what keeps that
// valid. Only SetVolume and SetPan are guarded, since the host may call them
// before any Open.
#include "shell/chained_output.h"

#include "engine/pcm_conversion.h"
#include "product.h"
#include "settings/wide_text.h"

static const WCHAR kMessageCaption[] = KELVANE_TEXT_OF(KELVANE_PRODUCT_VERSION);

constexpr int kChainedChannels = 6;  // the chained plug-in always gets six channels

int LoadChainedOutput()
{
    if (ChainedOutput.Library != 0)
        FreeLibrary(ChainedOutput.Library);
    // The path exactly as stored: a bare file name is searched by the
    // platform's own rules.
    ChainedOutput.Library = LoadLibraryW(ProcessorSettings.Out_Plug);
    if (ChainedOutput.Library == 0)
        return 0;  // Module keeps its old, now stale contents
    // Not tested for null on purpose; see the header.
    const WinampGetOutModuleFunction getModule = FindOutModuleExport(ChainedOutput.Library);
    const Out_Module* chained = getModule();
    ChainedOutput.Module = *chained;
    ChainedOutput.Reload_Needed = 0;
    return 1;
}

// write thread
int Open(int samplerate, int numchannels, int bitspersamp, int bufferlenms, int prebufferms)
{
    // The only moment the output word size changes. The stream words are
    // stored before the load, so they stand even when it fails.
    ChainedOutput.Stream.Output_Bits = uint32_t(ProcessorSettings.Out_Bits);
    ChainedOutput.Stream.Stream_Channels = uint32_t(numchannels);
    ChainedOutput.Stream.Stream_Bits = uint32_t(bitspersamp);
    ChainedOutput.Stream.Stream_Rate = samplerate;

    if (ChainedOutput.Library == 0 || ChainedOutput.Reload_Needed != 0) {
        if (LoadChainedOutput() == 0) {
            MessageBoxW(nullptr, KELVANE_TEXT("Failed to open output plugin"), kMessageCaption,
                        MB_OK | MB_ICONEXCLAMATION);
            return -1;
        }
    }
    if (Reset_Pending != 0) {
        EngineReset(PluginEngine);
        Reset_Pending = 0;
    }
    return ChainedOutput.Module.Open(samplerate, kChainedChannels, int(ChainedOutput.Stream.Output_Bits),
                                     bufferlenms, prebufferms);
}

// write thread
void Close()
{
    if (Reset_Pending != 0) {
        EngineReset(PluginEngine);
        Reset_Pending = 0;
    }
    ChainedOutput.Module.Close();  // the library stays loaded between playbacks
}

// write thread
int Write(char* buf, int len)
{
    // Two whole-number divisions in this order; a partial frame at the end of
    // the buffer is dropped.
    const StreamWords& stream = ChainedOutput.Stream;
    uint32_t frames = (uint32_t(len) / stream.Stream_Channels) / (stream.Stream_Bits >> 3);
    ConvertAndProcess(PluginEngine, ProcessorSettings, stream, reinterpret_cast<const uint8_t*>(buf), uint32_t(len),
                      frames);
    // The count after processing: the convolver may hold frames back or
    // release them in lumps. A length of 0 is passed on as well.
    const uint32_t bytes = (stream.Output_Bits >> 3) * frames * 6;
    return ChainedOutput.Module.Write(reinterpret_cast<char*>(PluginEngine.PcmBlock.data), int(bytes));
}

// The figure is in bytes of the six-channel stream and goes back unscaled.
int CanWrite()
{
    return ChainedOutput.Module.CanWrite();
}

int IsPlaying()
{
    return ChainedOutput.Module.IsPlaying();
}

int Pause(int pause)
{
    return ChainedOutput.Module.Pause(pause);
}

void SetVolume(int volume)
{
    if (ChainedOutput.Library != 0)
        ChainedOutput.Module.SetVolume(volume);
}

void SetPan(int pan)
{
    if (ChainedOutput.Library != 0)
        ChainedOutput.Module.SetPan(pan);
}

// A seek: the engine is reset in every case; Reset_Pending is left alone.
void Flush(int t)
{
    EngineReset(PluginEngine);
    ChainedOutput.Module.Flush(t);
}

int GetOutputTime()
{
    return ChainedOutput.Module.GetOutputTime();
}

int GetWrittenTime()
{
    return ChainedOutput.Module.GetWrittenTime();
}
