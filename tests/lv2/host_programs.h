// Running the real hosts and tools from a test: commands with their output,
// background processes, and audio files in and out of them.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

struct CommandResult {
    int status;          // the exit code, or -1 when the command did not exit by itself
    std::string output;  // what it wrote to stdout and stderr, interleaved
};

// Runs `argv` with `environment` ("NAME=value" entries, added to this
// process's own) and waits for it.
CommandResult RunCommand(const std::vector<std::string>& argv, const std::vector<std::string>& environment = {});

// Whether `name` is a program on the PATH.
bool HaveProgram(const std::string& name);

// Starts `argv` in the background, its output into `logFile`; -1 on failure.
pid_t StartProcess(const std::vector<std::string>& argv, const std::vector<std::string>& environment,
                   const std::string& logFile);
// Waits up to `seconds` for `pid` to end; true when it did, with its status.
bool WaitForExit(pid_t pid, double seconds, int* status);
// Asks `pid` to end with `signal`, then waits; kills it after `seconds`.
void StopProcess(pid_t pid, int signal, double seconds);

// A fresh folder under the test's temporary folder.
std::string MakeTemporaryFolder(const std::string& name);
std::string ReadTextFile(const std::string& path);

// Audio files through libsndfile: channels as separate signals.
struct AudioFile {
    int rate = 0;
    std::vector<std::vector<float>> channels;
};
// Writes 32-bit float WAV, so that nothing is rounded on the way.
bool WriteFloatWav(const std::string& path, const AudioFile& audio);
bool ReadAudioFile(const std::string& path, AudioFile& audio);
