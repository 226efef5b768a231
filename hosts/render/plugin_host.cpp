// Loading an output plug-in as a player does.
#include "hosts/render/plugin_host.h"

#include <dlfcn.h>

namespace {

// The window's own procedure: a renderer has no window to repaint, so every
// message ends here unanswered.
intptr_t MainWindowProc(host::HWND, uint32_t, uintptr_t, intptr_t)
{
    return 0;
}

}  // namespace

bool LoadPlugin(const std::string& path, PluginSession& session, std::string& error)
{
    session = PluginSession{};
    session.window.proc = MainWindowProc;
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        const char* reason = dlerror();
        error = "cannot load plug-in " + path + ": " + (reason != nullptr ? reason : "unknown reason");
        return false;
    }
    auto get_module = reinterpret_cast<host::GetOutModuleFunction>(dlsym(library, host::kGetOutModuleName));
    if (get_module == nullptr) {
        dlclose(library);
        error = "cannot load plug-in " + path + ": it does not export " + host::kGetOutModuleName;
        return false;
    }
    host::Out_Module* module = get_module();
    if (module == nullptr || module->version != host::kOutModuleVersion) {
        dlclose(library);
        error = "cannot load plug-in " + path + ": not an output plug-in of record version 16";
        return false;
    }
    module->hMainWindow = &session.window;
    module->hDllInstance = library;
    session.library = library;
    session.module = module;
    return true;
}

void UnloadPlugin(PluginSession& session)
{
    if (session.library != nullptr)
        dlclose(session.library);
    session.library = nullptr;
    session.module = nullptr;
}

void SendHostCommand(PluginSession& session, uintptr_t command)
{
    session.window.proc(&session.window, host::kWmCommand, command, 0);
}
