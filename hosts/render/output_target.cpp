// Where an output goes.
#include "hosts/render/output_target.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Bytes copied at a time into a device, a FIFO or standard output.
constexpr size_t kCopyBytes = 1 << 16;

std::string FolderOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

std::string FileNameOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The file a chain of symbolic links ends at, which need not exist yet.
bool FollowLinks(const std::string& path, std::string& final_path, std::string& error)
{
    std::string current = path;
    for (int hops = 0; hops < 40; ++hops) {
        struct stat info{};
        if (lstat(current.c_str(), &info) != 0 || !S_ISLNK(info.st_mode)) {
            final_path = current;
            return true;
        }
        char target[PATH_MAX];
        const ssize_t length = readlink(current.c_str(), target, sizeof target - 1);
        if (length <= 0)
            break;
        target[length] = '\0';
        current = target[0] == '/' ? std::string(target) : FolderOf(current) + "/" + target;
    }
    error = "cannot write " + path + ": the symbolic link cannot be followed";
    return false;
}

bool WriteAll(int descriptor, const char* data, size_t length)
{
    while (length > 0) {
        const ssize_t written = write(descriptor, data, length);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        data += written;
        length -= static_cast<size_t>(written);
    }
    return true;
}

}  // namespace

bool ResolveTarget(const std::string& given, OutputTarget& target, std::string& error)
{
    target = OutputTarget{given, given, TargetKind::NewFile, {}};
    if (given == "-") {
        target.kind = TargetKind::StandardOutput;
        return true;
    }
    if (!FollowLinks(given, target.path, error))
        return false;
    struct stat info{};
    if (stat(target.path.c_str(), &info) != 0) {
        if (errno != ENOENT) {
            error = "cannot write " + given + ": " + std::strerror(errno);
            return false;
        }
        if (access(FolderOf(target.path).c_str(), W_OK) != 0) {
            error = "cannot write " + given + ": " + std::strerror(errno);
            return false;
        }
        return true;
    }
    if (S_ISDIR(info.st_mode)) {
        error = "cannot write " + given + ": it is a folder (use -o DIR for one file per input)";
        return false;
    }
    target.kind = S_ISREG(info.st_mode) ? TargetKind::ExistingFile : TargetKind::WriteThrough;
    if (target.kind == TargetKind::ExistingFile && access(FolderOf(target.path).c_str(), W_OK) != 0) {
        error = "cannot write " + given + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

bool MayReplace(const std::vector<OutputTarget*>& targets, Overwrite policy, std::FILE* terminal_in,
                std::FILE* terminal_out, std::string& error)
{
    for (const OutputTarget* target : targets) {
        if (target->kind != TargetKind::ExistingFile || policy == Overwrite::Always)
            continue;
        if (policy == Overwrite::Never) {
            error = "not replacing " + target->given + ", which exists (-n)";
            return false;
        }
        if (terminal_in == nullptr) {
            error = target->given + " exists; give -y to replace it or -n to keep it";
            return false;
        }
        std::fprintf(terminal_out, "kelvane-render: replace %s? [y/N] ", target->given.c_str());
        std::fflush(terminal_out);
        char answer[64] = {};
        if (std::fgets(answer, sizeof answer, terminal_in) == nullptr || (answer[0] != 'y' && answer[0] != 'Y')) {
            if (answer[0] == '\0')
                std::fputc('\n', terminal_out);
            error = "not replacing " + target->given;
            return false;
        }
    }
    return true;
}

namespace {

bool SyncFile(const std::string& path)
{
    const int descriptor = open(path.c_str(), O_RDONLY);
    if (descriptor < 0)
        return false;
    const bool synced = fsync(descriptor) == 0;
    const int reason = errno;
    close(descriptor);
    errno = reason;
    return synced;
}

}  // namespace

bool PrepareTarget(OutputTarget& target, const std::string& work_folder, std::string& error)
{
    const bool in_place = target.kind == TargetKind::NewFile || target.kind == TargetKind::ExistingFile;
    const std::string folder = in_place ? FolderOf(target.path) : work_folder;
    const std::string name = in_place ? FileNameOf(target.path) : "output";
    std::string pattern = folder + "/." + name + ".tmp-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    const int descriptor = mkstemp(buffer.data());
    if (descriptor < 0) {
        error = "cannot write " + target.given + ": " + std::strerror(errno);
        return false;
    }
    // mkstemp makes the file private. A replaced file keeps its permissions,
    // a new one gets the usual ones.
    struct stat existing{};
    if (target.kind == TargetKind::ExistingFile && stat(target.path.c_str(), &existing) == 0) {
        fchmod(descriptor, existing.st_mode & 07777);
    } else {
        const mode_t mask = umask(0);
        umask(mask);
        fchmod(descriptor, 0666 & ~mask);
    }
    close(descriptor);
    target.temporary = buffer.data();
    return true;
}

bool CommitTarget(OutputTarget& target, std::string& error)
{
    if (target.kind == TargetKind::NewFile || target.kind == TargetKind::ExistingFile) {
        // A file that replaces another is on the disk before the rename, so
        // that a crash just after it cannot leave the user with neither.
        if (target.kind == TargetKind::ExistingFile && !SyncFile(target.temporary)) {
            error = "cannot write " + target.given + ": " + std::strerror(errno);
            return false;
        }
        if (std::rename(target.temporary.c_str(), target.path.c_str()) != 0) {
            error = "cannot write " + target.given + ": " + std::strerror(errno);
            return false;
        }
        target.temporary.clear();
        return true;
    }
    const int in = open(target.temporary.c_str(), O_RDONLY);
    const int out = target.kind == TargetKind::StandardOutput ? STDOUT_FILENO : open(target.path.c_str(), O_WRONLY);
    bool good = in >= 0 && out >= 0;
    std::vector<char> buffer(kCopyBytes);
    while (good) {
        const ssize_t got = read(in, buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0) {
            good = got == 0;
            break;
        }
        good = WriteAll(out, buffer.data(), static_cast<size_t>(got));
    }
    const int reason = errno;
    if (in >= 0)
        close(in);
    if (out >= 0 && out != STDOUT_FILENO)
        close(out);
    DiscardTarget(target);
    if (!good) {
        error = "cannot write " + target.given + ": " + std::strerror(reason);
        return false;
    }
    return true;
}

std::string WhyFileIsFull(const std::string& path)
{
    // A megabyte of room behind the end, allocated and not shown in the
    // length: the most that out_wav gathers before it writes.
    constexpr off_t kRoom = 1 << 20;
    const int descriptor = open(path.c_str(), O_WRONLY);
    if (descriptor < 0)
        return std::strerror(errno);
    struct stat now{};
    std::string reason;
    if (fstat(descriptor, &now) != 0 || fallocate(descriptor, FALLOC_FL_KEEP_SIZE, now.st_size, kRoom) != 0)
        reason = errno == EOPNOTSUPP ? "" : std::strerror(errno);
    close(descriptor);
    return reason;
}

void DiscardTarget(OutputTarget& target)
{
    if (!target.temporary.empty())
        std::remove(target.temporary.c_str());
    target.temporary.clear();
}
