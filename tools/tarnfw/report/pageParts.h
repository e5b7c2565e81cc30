/// The parts of the report's page that lie beside this as files of their own; CMake makes them into
/// a source.
#pragma once

namespace tarnfw {

/// The page, with names in double braces for what page.cpp fills in.
extern const char kPageHtml[];

extern const char kPageStyle[];
extern const char kPageScript[];

// SHA-256 of these texts, in hexadecimal digits.
extern const char kPageStyleHash[];
extern const char kPageScriptHash[];

}  // namespace tarnfw
