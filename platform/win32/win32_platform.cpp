// The Windows backend of the platform layer. On Windows every service that
// platform.h names is the operating system's own, from <windows.h>, the
// common controls and the common dialogs, so there is nothing to implement
// here; the file exists so that each platform builds exactly one backend.
// The track-bar class is not registered here either: the host process has
// done that before it loads any plug-in.
#include "platform/platform.h"
