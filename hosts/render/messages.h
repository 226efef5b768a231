// What the renderer tells its user, on standard error: errors always,
// warnings and notes unless -q, the player's calls and the processor's own
// messages only with -v.
//
// The processor and the writer speak through their stand-in for a message
// box, a line on standard error of the process. Without -v that descriptor
// is pointed at a file of the run's work folder while the plug-ins are
// loaded, and the renderer keeps its own copy of the user's standard error.
#pragma once

#include <cstdio>
#include <string>

enum class Verbosity { Quiet, Normal, Verbose };

void SetVerbosity(Verbosity verbosity);
Verbosity CurrentVerbosity();

// The user's standard error, whatever the plug-ins' one points at.
std::FILE* UserErrors();

// "kelvane-render: MESSAGE", always.
void ReportError(const std::string& message);
// "kelvane-render: warning: MESSAGE", unless quiet.
void ReportWarning(const std::string& message);
// "kelvane-render: note: MESSAGE", unless quiet.
void ReportNote(const std::string& message);
// "kelvane-render: player: MESSAGE", only verbose.
void ReportTrace(const std::string& message);

// Sends the process's standard error to `capture` (unless verbose), so that
// the plug-ins' message lines go there. False when it cannot.
bool CaptureProcessorMessages(const std::string& capture);
// Gives the process its standard error back.
void ReleaseProcessorMessages();
