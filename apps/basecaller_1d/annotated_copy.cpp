#include "annotated_copy.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <regex>
#include <stdexcept>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/filesystem.hpp>

#include "common/logger.h"

namespace TestBed {

namespace fs = boost::filesystem;

namespace {

std::string systemError(const std::string& what, const std::string& path) {
    return what + " \"" + path + "\": " + std::strerror(errno);
}

class Descriptor {
public:
    explicit Descriptor(int fd_) : fd(fd_) {}
    ~Descriptor() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int Get() const { return fd; }
    // Closes now, so that a failed close (a late write error on some file systems) is seen.
    bool Close() {
        const int f = fd;
        fd = -1;
        return ::close(f) == 0;
    }

private:
    int fd;
};

void copyContents(const std::string& source, const std::string& target) {
    Descriptor in(::open(source.c_str(), O_RDONLY | O_CLOEXEC));
    if (in.Get() < 0) {
        throw std::runtime_error(systemError("Could not read", source));
    }
    struct stat info;
    if (::fstat(in.Get(), &info) != 0) {
        throw std::runtime_error(systemError("Could not read", source));
    }
    // The copy takes the original's permissions, since it replaces the original.
    Descriptor out(::open(target.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, info.st_mode & 07777));
    if (out.Get() < 0) {
        throw std::runtime_error(systemError("Could not create", target));
    }
    std::vector<char> buffer(1 << 20);
    while (true) {
        const ssize_t got = ::read(in.Get(), buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            throw std::runtime_error(systemError("Could not read", source));
        }
        if (got == 0) {
            break;
        }
        for (ssize_t written = 0; written < got;) {
            const ssize_t put = ::write(out.Get(), buffer.data() + written, static_cast<std::size_t>(got - written));
            if (put < 0 && errno == EINTR) {
                continue;
            }
            if (put < 0) {
                throw std::runtime_error(systemError("Could not write", target));
            }
            written += put;
        }
    }
    if (!out.Close()) {
        throw std::runtime_error(systemError("Could not write", target));
    }
}

void syncPath(const std::string& path, int flags) {
    Descriptor fd(::open(path.c_str(), flags | O_CLOEXEC));
    if (fd.Get() < 0 || ::fsync(fd.Get()) != 0) {
        throw std::runtime_error(systemError("Could not write to disk", path));
    }
}

bool processRunning(long pid) {
    if (pid <= 0 || pid == static_cast<long>(::getpid())) {
        // Our own id on a leftover means a dead process whose id came round again.
        return false;
    }
    return ::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM;
}

}  // namespace

std::string AnnotatedCopy::TemporaryPathFor(const std::string& destination, long pid) {
    const fs::path path(destination);
    return (path.parent_path() / ("." + path.filename().string() + ".partial-" + std::to_string(pid))).string();
}

AnnotatedCopy::AnnotatedCopy(const std::string& source, const std::string& destination_)
    : destination(destination_), temporary(TemporaryPathFor(destination_, static_cast<long>(::getpid()))) {
    const fs::path folder = fs::path(destination).parent_path();
    if (!folder.empty()) {
        fs::create_directories(folder);
    }
    try {
        copyContents(source, temporary);
    } catch (...) {
        ::unlink(temporary.c_str());
        throw;
    }
}

AnnotatedCopy::~AnnotatedCopy() {
    if (!committed) {
        ::unlink(temporary.c_str());
    }
}

void AnnotatedCopy::Commit() {
    syncPath(temporary, O_RDONLY);
    if (::rename(temporary.c_str(), destination.c_str()) != 0) {
        throw std::runtime_error(systemError("Could not rename \"" + temporary + "\" to", destination));
    }
    committed = true;
    // The rename itself reaches the disk with the folder. The file is in place already, so a failure
    // here costs durability after a power loss only, not the run.
    const fs::path folder = fs::path(destination).parent_path();
    try {
        syncPath(folder.empty() ? "." : folder.string(), O_RDONLY | O_DIRECTORY);
    } catch (const std::exception& e) {
        KVX_LOG(warning) << e.what();
    }
}

void ForEachEntry(const std::string& dir, bool recursive, const std::function<void(const fs::directory_entry&)>& visit) {
    if (recursive) {
        for (fs::recursive_directory_iterator it(dir), end; it != end; ++it) {
            visit(*it);
        }
    } else {
        for (fs::directory_iterator it(dir), end; it != end; ++it) {
            visit(*it);
        }
    }
}

std::size_t RemoveLeftoverCopies(const std::string& dir, bool recursive) {
    static const std::regex leftover(R"(\..+\.rawh5\.partial-([0-9]{1,18}))");
    if (!fs::is_directory(dir)) {
        return 0;
    }
    std::vector<fs::path> found;
    const auto take = [&](const fs::directory_entry& entry) {
        std::smatch match;
        const std::string name = entry.path().filename().string();
        if (fs::is_regular_file(entry.symlink_status()) && std::regex_match(name, match, leftover)) {
            if (processRunning(std::stol(match[1].str()))) {
                KVX_LOG(warning) << "Left " << entry.path().string()
                                 << " alone: the process that is writing it still runs.";
            } else {
                found.push_back(entry.path());
            }
        }
    };
    ForEachEntry(dir, recursive, take);
    for (const auto& path : found) {
        boost::system::error_code error;
        fs::remove(path, error);
        if (error) {
            KVX_LOG(warning) << "Could not remove the unfinished copy " << path.string() << ": " << error.message();
        } else {
            KVX_LOG(info) << "Removed the unfinished copy " << path.string() << " of a stopped run";
        }
    }
    return found.size();
}

}  // namespace TestBed
