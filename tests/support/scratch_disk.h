// A small disk of the test's own: a tmpfs mounted on a folder, which the test
// may fill up or turn read-only, to see what a save does when the disk says
// no. Mounting needs root (or the capability); where it is not allowed the
// test is skipped with the reason.
#pragma once

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

class ScratchDisk {
public:
    ScratchDisk() = default;
    ScratchDisk(const ScratchDisk&) = delete;
    ScratchDisk& operator=(const ScratchDisk&) = delete;
    ~ScratchDisk() { Unmount(); }

    // Mounts a tmpfs of `bytes` on `folder`; false with `why` set when the
    // system does not allow it.
    bool Mount(const std::filesystem::path& folder, size_t bytes, std::string& why)
    {
        std::filesystem::create_directories(folder);
        const std::string options = "size=" + std::to_string(bytes) + ",mode=0777";
        if (mount("tmpfs", folder.c_str(), "tmpfs", 0, options.c_str()) != 0) {
            why = "cannot mount a tmpfs on " + folder.string() + ": " + std::strerror(errno);
            return false;
        }
        mounted = folder;
        return true;
    }

    // Takes up every free byte with a file of its own.
    void Fill()
    {
        const std::string filler = (mounted / "filler").string();
        const int fd = open(filler.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0)
            return;
        const std::vector<char> block(4096, 'x');
        while (write(fd, block.data(), block.size()) > 0) {
        }
        // The last pages, smaller than a block.
        while (write(fd, block.data(), 1) > 0) {
        }
        close(fd);
    }

    // The disk can be read but no longer written.
    bool MakeReadOnly(std::string& why)
    {
        if (mount(nullptr, mounted.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) != 0) {
            why = "cannot remount " + mounted.string() + " read-only: " + std::strerror(errno);
            return false;
        }
        return true;
    }

    void Unmount()
    {
        if (!mounted.empty())
            umount2(mounted.c_str(), MNT_DETACH);
        mounted.clear();
    }

private:
    std::filesystem::path mounted;
};
