/// CLI11's classes by name, for headers that only pass them on: all of CLI11 takes longer to
/// compile than most sources of this tool.
#pragma once

namespace CLI {
class App;
class ParseError;
}  // namespace CLI
