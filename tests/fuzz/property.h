/// For fuzz targets: what must hold of an output.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

/// Ends the program, which the fuzzer reports with its input, unless `holds`.
inline void require(bool holds, const char* property, const std::string& text = "") {
    if (!holds) {
        (void)std::fprintf(stderr, "PROPERTY BROKEN: %s: %s\n", property, text.c_str());
        std::abort();
    }
}
