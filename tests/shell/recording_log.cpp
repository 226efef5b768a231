#include "tests/shell/recording_log.h"

#include <string_view>

#include "platform/posix/dialog_emulator.h"

// Found by the plug-in's services under this name, in the program's global
// scope, which the libraries that the program links belong to.
extern "C" {
__attribute__((visibility("default"))) PlatformProbe PosixPlatformProbe = {};
}
static_assert(std::string_view(kPlatformProbeSymbol) == "PosixPlatformProbe");

PlatformProbe& PlatformProbeRecord()
{
    return PosixPlatformProbe;
}

std::vector<RecordedCall>& RecordedCalls()
{
    // Never destroyed: the recorders' unload reports come at process exit,
    // after the static objects of this library would be gone.
    static auto* calls = new std::vector<RecordedCall>;
    return *calls;
}

RecorderReplies& Replies()
{
    static auto* replies = new RecorderReplies;
    return *replies;
}

void Record(const char* library, const char* function, std::vector<int64_t> args, const uint8_t* bytes, size_t count)
{
    RecordedCall call{library, function, std::move(args), {}};
    if (bytes != nullptr)
        call.bytes.assign(bytes, bytes + count);
    RecordedCalls().push_back(std::move(call));
}

std::vector<RecordedCall> CallsOf(const std::string& library, const std::string& function)
{
    std::vector<RecordedCall> found;
    for (const RecordedCall& call : RecordedCalls()) {
        if (call.library == library && call.function == function)
            found.push_back(call);
    }
    return found;
}
