/// How much memory the whole program has asked for, the libraries in it included.
#pragma once

#include <cstdint>

/// Bytes asked of malloc and its kin since the start.
std::uint64_t allocatedBytes();
