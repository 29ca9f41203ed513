#pragma once
// A read file is never written where it lies. HDF5 keeps no journal, so a process stopped in the
// middle of a write can leave the whole file unreadable, raw signal included. The step therefore
// annotates a copy made under a temporary name in the destination's own folder (so the final rename
// stays on one file system and is atomic) and renames it over the destination only once the copy is
// closed and on disk. Until then the destination is untouched; a copy that is not committed is
// removed.
//
// The temporary name is ".<file name>.partial-<process id>": hidden, without the ".rawh5" extension
// (so no listing of read files picks it up), and telling which process made it.

#include <cstddef>
#include <functional>
#include <string>

#include <boost/filesystem/directory.hpp>

namespace TestBed {

class AnnotatedCopy {
public:
    // Copies `source` (the destination itself, or the original of an annotated copy) to the temporary
    // name beside `destination`, creating its folder. Throws std::runtime_error, leaving nothing behind.
    AnnotatedCopy(const std::string& source, const std::string& destination);
    ~AnnotatedCopy();
    AnnotatedCopy(const AnnotatedCopy&) = delete;
    AnnotatedCopy& operator=(const AnnotatedCopy&) = delete;

    const std::string& TemporaryPath() const { return temporary; }
    const std::string& Destination() const { return destination; }

    // Puts the copy on disk and renames it over the destination. Every handle on the copy must be
    // closed. Throws std::runtime_error; the destination is then as it was.
    void Commit();

    static std::string TemporaryPathFor(const std::string& destination, long pid);

private:
    std::string destination;
    std::string temporary;
    bool committed = false;
};

// Removes the temporary copies that killed runs left in `dir` (and below it with recursive); a copy
// of a process that is still running is left alone. Returns how many were removed.
std::size_t RemoveLeftoverCopies(const std::string& dir, bool recursive);

// Calls `visit` on every entry of `dir`, and of its subfolders when `recursive`.
void ForEachEntry(const std::string& dir, bool recursive,
                  const std::function<void(const boost::filesystem::directory_entry&)>& visit);

}  // namespace TestBed
