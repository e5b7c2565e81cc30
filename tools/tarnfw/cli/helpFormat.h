/// How help texts are laid out.
#pragma once

#include <string>

#include <CLI/CLI.hpp>

namespace tarnfw {

/// CLI11's layout with no line wider than the terminal: texts are wrapped, and those of options and
/// commands stay in their column. Elsewhere than on a terminal a line has up to 80 columns.
class HelpFormat : public CLI::Formatter {
public:
    std::string make_description(const CLI::App* app) const override;
    std::string make_footer(const CLI::App* app) const override;
    std::string make_option_desc(const CLI::Option* option) const override;
    std::string make_subcommand(const CLI::App* command) const override;
};

}  // namespace tarnfw
