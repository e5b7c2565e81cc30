/// The peak resident size of this process.
#pragma once

#include <cstdio>
#include <fstream>
#include <string>

/// Prints it as "peak: 1234 KiB". The kernel's count for a parent would begin with the parent's
/// own.
inline void tellPeak(std::FILE* out) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        long kib = 0;
        if (std::sscanf(line.c_str(), "VmHWM: %ld kB", &kib) == 1) {
            std::fprintf(out, "peak: %ld KiB\n", kib);
        }
    }
}
