// Where an output goes, and how it gets there without harm.
//
// Every output is written whole under a temporary name first; only when the
// run has succeeded does it reach its place. A regular file (new, or
// replaced with the user's consent) gets it by a rename in its own folder,
// so that a reader never sees half a file. A symbolic link is followed: the
// file it points to is the one written, and the link stays. A device, a
// FIFO and standard output ("-") are written through: the finished file is
// copied into them, and they are never replaced.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "hosts/render/render_options.h"

enum class TargetKind {
    NewFile,       // nothing there yet
    ExistingFile,  // a regular file that would be replaced
    WriteThrough,  // a device or a FIFO
    StandardOutput,
};

struct OutputTarget {
    std::string given;      // as named on the command line, for messages
    std::string path;       // where the data lands: the link's target for a symbolic link
    TargetKind kind;
    std::string temporary;  // the file being written; empty until prepared
};

// Learns what `given` names. False with `error` for a folder, or a link
// that cannot be followed.
bool ResolveTarget(const std::string& given, OutputTarget& target, std::string& error);

// Applies -y, -n or the question to every target that would replace a
// file. `terminal` is the stream to ask on, null when there is none. False
// with `error` naming the first file that may not be replaced.
bool MayReplace(const std::vector<OutputTarget*>& targets, Overwrite policy, std::FILE* terminal_in,
                std::FILE* terminal_out, std::string& error);

// Creates the temporary file: beside the final file for files, in
// `work_folder` for the others. False with `error`.
bool PrepareTarget(OutputTarget& target, const std::string& work_folder, std::string& error);

// Puts the finished temporary file in its place. False with `error`.
bool CommitTarget(OutputTarget& target, std::string& error);

// Why the file at `path` takes no more data, as the file system says it
// (asked for room behind its end): "No space left on device", say. Empty
// when it has room.
std::string WhyFileIsFull(const std::string& path);

// Removes the temporary file, if any.
void DiscardTarget(OutputTarget& target);
