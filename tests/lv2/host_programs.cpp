#include "tests/lv2/host_programs.h"

#include <fcntl.h>
#include <signal.h>
#include <sndfile.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace {

// This process's environment with `extra` entries in place of any of the
// same name.
std::vector<std::string> MergedEnvironment(const std::vector<std::string>& extra)
{
    std::vector<std::string> merged;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        const std::string name = entry.substr(0, entry.find('='));
        bool replaced = false;
        for (const std::string& x : extra)
            replaced = replaced || x.substr(0, x.find('=')) == name;
        if (!replaced)
            merged.push_back(entry);
    }
    merged.insert(merged.end(), extra.begin(), extra.end());
    return merged;
}

std::vector<char*> Pointers(std::vector<std::string>& strings)
{
    std::vector<char*> pointers;
    for (std::string& s : strings)
        pointers.push_back(s.data());
    pointers.push_back(nullptr);
    return pointers;
}

pid_t Spawn(const std::vector<std::string>& argv, const std::vector<std::string>& environment, int outputFd)
{
    std::vector<std::string> args = argv;
    std::vector<std::string> env = MergedEnvironment(environment);
    std::vector<char*> argp = Pointers(args);
    std::vector<char*> envp = Pointers(env);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outputFd, 1);
    posix_spawn_file_actions_adddup2(&actions, outputFd, 2);
    pid_t pid = -1;
    if (posix_spawnp(&pid, argp[0], &actions, nullptr, argp.data(), envp.data()) != 0)
        pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

}  // namespace

CommandResult RunCommand(const std::vector<std::string>& argv, const std::vector<std::string>& environment)
{
    int fds[2];
    if (pipe(fds) != 0)
        return {-1, "no pipe"};
    const pid_t pid = Spawn(argv, environment, fds[1]);
    close(fds[1]);
    CommandResult result{-1, ""};
    char buffer[4096];
    for (ssize_t n; (n = read(fds[0], buffer, sizeof(buffer))) > 0;)
        result.output.append(buffer, std::size_t(n));
    close(fds[0]);
    if (pid == -1)
        return {-1, "cannot start " + argv[0]};
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFEXITED(status))
        result.status = WEXITSTATUS(status);
    return result;
}

bool HaveProgram(const std::string& name)
{
    const char* path = std::getenv("PATH");
    std::stringstream folders(path != nullptr ? path : "");
    for (std::string folder; std::getline(folders, folder, ':');)
        if (!folder.empty() && access((folder + "/" + name).c_str(), X_OK) == 0)
            return true;
    return false;
}

pid_t StartProcess(const std::vector<std::string>& argv, const std::vector<std::string>& environment,
                   const std::string& logFile)
{
    const int fd = open(logFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0)
        return -1;
    const pid_t pid = Spawn(argv, environment, fd);
    close(fd);
    return pid;
}

bool WaitForExit(pid_t pid, double seconds, int* status)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (true) {
        if (waitpid(pid, status, WNOHANG) == pid)
            return true;
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

void StopProcess(pid_t pid, int signal, double seconds)
{
    if (pid <= 0)
        return;
    int status = 0;
    kill(pid, signal);
    if (!WaitForExit(pid, seconds, &status)) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
}

std::string MakeTemporaryFolder(const std::string& name)
{
    std::string pattern = testing::TempDir() + name + "-XXXXXX";
    char* made = mkdtemp(pattern.data());
    return made != nullptr ? std::string(made) : std::string();
}

std::string ReadTextFile(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

bool WriteFloatWav(const std::string& path, const AudioFile& audio)
{
    SF_INFO info{};
    info.samplerate = audio.rate;
    info.channels = int(audio.channels.size());
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (file == nullptr)
        return false;
    const std::size_t frames = audio.channels[0].size();
    std::vector<float> interleaved(frames * audio.channels.size());
    for (std::size_t i = 0; i < frames; ++i)
        for (std::size_t c = 0; c < audio.channels.size(); ++c)
            interleaved[i * audio.channels.size() + c] = audio.channels[c][i];
    const bool ok = sf_writef_float(file, interleaved.data(), sf_count_t(frames)) == sf_count_t(frames);
    return sf_close(file) == 0 && ok;
}

bool ReadAudioFile(const std::string& path, AudioFile& audio)
{
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (file == nullptr)
        return false;
    std::vector<float> interleaved(std::size_t(info.frames) * std::size_t(info.channels));
    const sf_count_t read = sf_readf_float(file, interleaved.data(), info.frames);
    sf_close(file);
    audio.rate = info.samplerate;
    audio.channels.assign(std::size_t(info.channels), std::vector<float>(std::size_t(read)));
    for (sf_count_t i = 0; i < read; ++i)
        for (int c = 0; c < info.channels; ++c)
            audio.channels[std::size_t(c)][std::size_t(i)] = interleaved[std::size_t(i) * std::size_t(info.channels) + std::size_t(c)];
    return true;
}
