#pragma once
// FASTQ output of called reads under the save path.
//
// Every caller worker has its own set of open files, so workers never contend for one stream; the
// only moment they meet is when a file number is drawn. Files roll over after `records_per_fastq`
// records, and numbering is per (key, run id) across all workers, so two workers never open the
// same name. With qscore filtering, passed and failed reads go to "pass" and "fail" folders.
//
// Compressed files (".fastq.gz") get one gzip member per record, written through like a plain
// record: a record is readable on disk as soon as it is written, and a kill leaves at most one cut
// member at the end of a file, which a resumed run cuts off.
//
// Lock order: a worker's own mutex, then (briefly, inside it) the numbering mutex. Never the
// reverse, and never two workers' mutexes at once.

#include <cstdint>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "common/fastq_record.h"
#include "common/gzip_members.h"

namespace Common {

class FastqWriter {
public:
    // One open output file of a worker.
    struct Handle {
        std::uint64_t records = 0;  // records written to the current file
        std::unique_ptr<std::ofstream> stream;
        std::unique_ptr<GzipMemberWriter> gzip;  // compressed files only
    };
    // (key string, run id)
    using FileKey = std::pair<std::string, std::string>;
    using HandleMap = std::map<FileKey, Handle>;

    // `records_per_fastq` 0 means files never roll over. `workers` is the number of caller workers;
    // each later call names its worker by index. `compress` writes ".fastq.gz" files.
    FastqWriter(const std::string& save_path, std::uint64_t records_per_fastq, std::size_t workers,
                bool qscore_filtering, bool compress = false);
    // Closes whatever is still open.
    ~FastqWriter();
    FastqWriter(const FastqWriter&) = delete;
    FastqWriter& operator=(const FastqWriter&) = delete;

    // Two digits: 1 if filtering is on and the read passes, else 0; then 1 for a calibration strand.
    // "10" is a passed read; "00" a failed one, or any read with filtering off.
    std::string Key(bool passes, bool calibration) const;
    // The folder a record goes to, created with its parents if needed: "calibration_strands",
    // "pass" or "fail" under the save path, or the save path itself when filtering is off.
    std::string Folder(bool passes, bool calibration) const;

    // Appends the record to this worker's current file for (key, run_id), starting a new file when
    // there is none yet or the current one is full. Throws "Attempted to write record after
    // finalizing the writer." after Finalize(worker). A worker index out of range throws
    // std::out_of_range.
    void Write(std::size_t worker, const FastQRecord& record, const std::string& run_id, const std::string& key,
               const std::string& folder);
    // Closes all of this worker's files; its later writes throw.
    void Finalize(std::size_t worker);

    // Takes up the files an earlier run left in this writer's folders: numbering goes on after the
    // highest number of each key and run id, and the first file a worker opens for a key and run id
    // is that highest-numbered file, appended to, when it has room. Only files of this writer's kind
    // (plain or compressed) are taken up. The files must hold whole records (a resumed run repairs
    // them first). Call before any Write.
    void ContinueExisting();

    // "fastq_runid_<run_id>_<number>.fastq", or ".fastq.gz" when compressed.
    static std::string FileName(const std::string& run_id, std::uint64_t number, bool compressed = false);
    // The reverse of FileName, for either kind; false for any other name.
    static bool ParseFileName(const std::string& name, std::string& run_id, std::uint64_t& number,
                              bool& compressed);

private:
    struct WorkerFiles {
        std::mutex mutex;
        HandleMap handles;
        bool open = true;
    };

    // Opens this worker's next file for (key, run_id), numbered from the shared count; `entry` is the
    // worker's map entry for it, or the map's end when there is none yet. Returns the new entry.
    // Called with the worker's mutex held.
    HandleMap::iterator startNewFile(WorkerFiles& files, const std::string& run_id, const std::string& key,
                                     HandleMap::iterator entry, const std::string& folder);

    std::vector<std::unique_ptr<WorkerFiles>> workers;
    std::map<FileKey, std::uint64_t> file_counts;  // next file number, shared by all workers
    // Last file of an earlier run with room left, per key and run id: its number and its records.
    struct Continued {
        std::uint64_t number = 0;
        std::uint64_t records = 0;
    };
    std::map<FileKey, Continued> continued;
    std::mutex counts_mutex;
    std::string save_path;
    std::uint64_t records_per_fastq;
    bool qscore_filtering;
    bool compress;
};

}  // namespace Common
