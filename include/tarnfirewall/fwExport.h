/// Marks what the shared library exports; everything else is hidden.
#pragma once

#define TARNFW_EXPORT __attribute__((visibility("default")))
