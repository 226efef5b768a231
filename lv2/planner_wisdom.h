// FFTW planner wisdom for the plug-in's instances. Measuring the engine's
// 16384-point plans takes about two seconds per instance; with wisdom saved
// for them the planner finds its measurements already made and the plans
// are the same.
#pragma once

// Makes FFTW's planner safe against other plug-ins of the host's process
// that plan at the same moment, and loads the first of these files that
// exists: ${XDG_CACHE_HOME:-$HOME/.cache}/kelvane/fftw-wisdom, then the
// system's wisdom (/etc/fftw/wisdomf). Nothing is written. Instantiation
// only: it reads files.
void ImportPlannerWisdom();
