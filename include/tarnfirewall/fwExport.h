/// Visibility of the library's interface: everything without this mark stays inside the library.
#pragma once

#define TARNFW_EXPORT __attribute__((visibility("default")))
