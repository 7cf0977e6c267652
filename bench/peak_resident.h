#pragma once
// The process's resident memory high-water mark, in kB, from /proc/self/status (0 if unknown).
#include <fstream>
#include <string>

inline long peakResidentKb() {
    std::ifstream in("/proc/self/status");
    std::string key;
    long value = 0;
    while (in >> key) {
        if (key == "VmHWM:") {
            in >> value;
            return value;
        }
        in.ignore(4096, '\n');
    }
    return 0;
}
