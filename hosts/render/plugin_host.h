// Loading an output plug-in and standing in for the player around it: the
// library handle, the record, and a main window whose commands the plug-in
// may watch.
#pragma once

#include <string>

#include "hosts/out_module_host.h"

struct PluginSession {
    void* library;             // the dlopen handle, null when nothing is loaded
    host::Out_Module* module;  // the record that winampGetOutModule handed out
    host::HostWindow window;   // our main window; the plug-in may hook its procedure
};

// Loads the library at `path`, asks it for its record and fills in the
// window and library handles, as a player does before Init. False with a
// one-line `error` when the library cannot be loaded or is not an output
// plug-in.
bool LoadPlugin(const std::string& path, PluginSession& session, std::string& error);

// Unloads the library. Quit must have been called.
void UnloadPlugin(PluginSession& session);

// Delivers a command of the main window (host::kCommandPlay, host::kCommandStop) through
// whatever procedure the window has now.
void SendHostCommand(PluginSession& session, uintptr_t command);
