/// How much memory the whole program has requested, including its libraries.
#pragma once

#include <cstdint>

/// Bytes requested from malloc and related functions since the start.
std::uint64_t allocatedBytes();
