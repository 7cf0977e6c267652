#pragma once
#include <cstdint>
#include <cstdio>
#include <vector>

namespace kestor {

// The spill cache: one binary file of length-prefixed records behind an 8-byte record count, in
// the machine's byte order. Records carry no type and no frame number; frames keep their record
// numbers. The file is written while the pipeline runs and read back only with it stopped, so
// reads and appends share one handle. Nothing here takes a lock: callers hold the instance lock.
class FrameCache {
public:
    FrameCache() = default;
    ~FrameCache();  // closes the file, writing the true count first
    FrameCache(const FrameCache&) = delete;
    FrameCache& operator=(const FrameCache&) = delete;

    // Closes any open file (writing its count), then creates `path` anew with a count of 0.
    // Returns false, with the cache closed, when the file cannot be opened. The offset list
    // carries on from an earlier file: record numbers restart at 0 while positions continue from
    // the old tail, so only a path set once, before the first frame, gives a consistent file.
    bool open(const char* path);
    // Writes the count into the header and closes the file; nothing when closed.
    void close();
    bool isOpen() const { return file_ != nullptr; }

    // Appends a record of `bytes` bytes (a null payload gives an empty record) and returns its
    // number, or kNoRecord with the file closed. Write errors are not seen.
    uint64_t append(const void* payload, uint64_t bytes);

    // Reads record r into `buffer` when its stored size equals `expectedBytes`. Fails for a
    // closed file, a number not below the count, a size that differs or a null buffer. The seek
    // takes the low 32 bits of the position as a signed value, so records that start beyond
    // 2 GiB cannot be reached.
    bool read(uint64_t record, uint64_t expectedBytes, void* buffer);

    uint64_t recordCount() const { return recordCount_; }
    const std::vector<uint64_t>& offsets() const { return offsets_; }

private:
    std::FILE* file_ = nullptr;
    uint64_t recordCount_ = 0;
    std::vector<uint64_t> offsets_{8};  // offsets_[r]: where record r starts; last: the free tail
};

}  // namespace kestor
