// What the renderer tells its user.
#include "hosts/render/messages.h"

#include <fcntl.h>
#include <unistd.h>

namespace {

Verbosity Level = Verbosity::Normal;
std::FILE* UserStream = nullptr;  // a copy of standard error while it is captured
int SavedDescriptor = -1;         // the user's standard error while captured

void Say(const char* kind, const std::string& message)
{
    std::fprintf(UserErrors(), "kelvane-render: %s%s\n", kind, message.c_str());
    std::fflush(UserErrors());
}

}  // namespace

void SetVerbosity(Verbosity verbosity)
{
    Level = verbosity;
}

Verbosity CurrentVerbosity()
{
    return Level;
}

std::FILE* UserErrors()
{
    return UserStream != nullptr ? UserStream : stderr;
}

void ReportError(const std::string& message)
{
    Say("", message);
}

void ReportWarning(const std::string& message)
{
    if (Level != Verbosity::Quiet)
        Say("warning: ", message);
}

void ReportNote(const std::string& message)
{
    if (Level != Verbosity::Quiet)
        Say("note: ", message);
}

void ReportTrace(const std::string& message)
{
    if (Level == Verbosity::Verbose)
        Say("player: ", message);
}

bool CaptureProcessorMessages(const std::string& capture)
{
    if (Level == Verbosity::Verbose || SavedDescriptor >= 0)
        return true;
    std::fflush(stderr);
    const int saved = dup(STDERR_FILENO);
    const int file = open(capture.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (saved < 0 || file < 0) {
        if (saved >= 0)
            close(saved);
        if (file >= 0)
            close(file);
        return false;
    }
    UserStream = fdopen(saved, "w");
    if (UserStream == nullptr) {
        close(saved);
        close(file);
        return false;
    }
    SavedDescriptor = saved;
    dup2(file, STDERR_FILENO);
    close(file);
    return true;
}

void ReleaseProcessorMessages()
{
    if (SavedDescriptor < 0)
        return;
    std::fflush(stderr);
    std::fflush(UserStream);
    dup2(SavedDescriptor, STDERR_FILENO);
    std::fclose(UserStream);
    UserStream = nullptr;
    SavedDescriptor = -1;
}
