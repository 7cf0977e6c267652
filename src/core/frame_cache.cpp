#include "core/frame_cache.h"

#include "core/fusion_records.h"

namespace kestor {

FrameCache::~FrameCache() { close(); }

void FrameCache::close() {
    if (file_ == nullptr) return;
    std::fseek(file_, 0, SEEK_SET);
    std::fwrite(&recordCount_, sizeof(recordCount_), 1, file_);
    std::fclose(file_);
    file_ = nullptr;
}

bool FrameCache::open(const char* path) {
    close();
    recordCount_ = 0;
    file_ = std::fopen(path, "wb+");
    if (file_ == nullptr) return false;
    const uint64_t header = 0;
    std::fwrite(&header, sizeof(header), 1, file_);
    return true;
}

uint64_t FrameCache::append(const void* payload, uint64_t bytes) {
    if (file_ == nullptr) return kNoRecord;
    if (payload == nullptr) bytes = 0;
    std::fseek(file_, 0, SEEK_END);
    std::fwrite(&bytes, sizeof(bytes), 1, file_);
    if (bytes != 0) std::fwrite(payload, 1, size_t(bytes), file_);
    offsets_.push_back(offsets_.back() + 8 + bytes);
    return recordCount_++;
}

bool FrameCache::read(uint64_t record, uint64_t expectedBytes, void* buffer) {
    if (file_ == nullptr || record >= recordCount_) return false;
    const long position = long(int32_t(uint32_t(offsets_[size_t(record)])));
    std::fseek(file_, position, SEEK_SET);
    uint64_t stored = 0;
    if (std::fread(&stored, sizeof(stored), 1, file_) != 1) return false;
    if (stored != expectedBytes || buffer == nullptr) return false;
    return std::fread(buffer, 1, size_t(stored), file_) == size_t(stored);
}

}  // namespace kestor
