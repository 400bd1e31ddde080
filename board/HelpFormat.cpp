#include "board/HelpFormat.h"

#include <memory>
#include <sstream>
#include <string>

#include <CLI/CLI.hpp>

namespace Board {

namespace {

class HelpFormat : public CLI::Formatter {
public:
   std::string make_subcommand(const CLI::App* verb) const override {
      const std::string description = verb->get_description();
      std::ostringstream out;
      CLI::detail::format_help(out, verb->get_display_name(true),
                               description.substr(0, description.find('\n')), get_column_width());
      return out.str();
   }

   std::string make_description(const CLI::App* app) const override {
      return CLI::Formatter::make_description(app) + "\n";
   }
};

} // namespace

void helpFormatIs(CLI::App& app) {
   app.formatter(std::make_shared<HelpFormat>());
}

} // namespace Board
