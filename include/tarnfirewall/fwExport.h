/// Marks what a shared library exports; everything else is hidden.
#pragma once

#define TARNFW_EXPORT __attribute__((visibility("default")))

/// All that this part of a namespace declares: "namespace TARNFW_EXPORT_ALL tarnfw {".
#define TARNFW_EXPORT_ALL [[gnu::visibility("default")]]
