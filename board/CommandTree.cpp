#include "board/CommandTree.h"

#include <CLI/CLI.hpp>

namespace Board {

std::vector<const CLI::App*> verbsOf(const CLI::App& app) {
   return app.get_subcommands(
      [](const CLI::App* sub) { return !sub->get_name().empty() && !sub->get_group().empty(); });
}

const CLI::App& verbReached(const CLI::App& app) {
   const CLI::App* reached = &app;
   while (true) {
      const CLI::App* next = nullptr;
      for (const CLI::App* verb : reached->get_subcommands()) {
         if (!verb->get_name().empty()) {
            next = verb;
         }
      }
      if (!next) {
         return *reached;
      }
      reached = next;
   }
}

std::string commandOf(const CLI::App& verb) {
   const CLI::App* parent = verb.get_parent();
   return parent ? commandOf(*parent) + ' ' + verb.get_name() : verb.get_name();
}

void forEachOption(const CLI::App& verb, const std::function<void(const CLI::Option&)>& with) {
   const auto all = [&](const CLI::App& part) {
      for (const CLI::Option* option :
           part.get_options([](const CLI::Option* one) { return one->nonpositional(); })) {
         with(*option);
      }
   };
   for (const CLI::App* app = &verb; app; app = app->get_parent()) {
      all(*app);
      for (const CLI::App* group :
           app->get_subcommands([](const CLI::App* sub) { return sub->get_name().empty(); })) {
         all(*group);
      }
   }
}

const CLI::Option* optionOf(const CLI::App& verb, const std::string& word) {
   const CLI::Option* found = nullptr;
   forEachOption(verb, [&](const CLI::Option& option) {
      if (!found && option.check_name(word)) {
         found = &option;
      }
   });
   return found;
}

std::string placeholderOf(const CLI::Option& option) {
   if (option.get_positional()) {
      return option.get_name(true, false);
   }
   return option.get_option_text().empty() ? option.get_type_name() : option.get_option_text();
}

} // namespace Board
