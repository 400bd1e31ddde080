#include "board/UsageText.h"

#include <algorithm>
#include <cctype>
#include <string_view>
#include <vector>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "board/CommandTree.h"
#include "board/NearNames.h"

namespace Board {

namespace {

template <typename Kind>
bool is(const CLI::Error& error) {
   return dynamic_cast<const Kind*>(&error) != nullptr;
}

bool isOption(const std::string& word) {
   return word.size() > 1 && word.front() == '-' && word != "--";
}

std::string_view withoutDashes(std::string_view word) {
   word.remove_prefix(std::min(word.find_first_not_of('-'), word.size()));
   return word;
}

/// What is missing or too much, as its help says it, but in the middle of a sentence.
std::string helpOf(const CLI::Option& option) {
   std::string help = option.get_description();
   std::replace(help.begin(), help.end(), '\n', ' ');
   const bool isWord = help.size() > 1 && std::islower(static_cast<unsigned char>(help[1])) != 0;
   if (isWord || help.starts_with("A ")) {
      help[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(help[0])));
   }
   return help;
}

const CLI::Option* optionOrPlace(const CLI::App& verb, const std::string& name) {
   for (const CLI::Option* place :
        verb.get_options([](const CLI::Option* option) { return option->get_positional(); })) {
      if (place->get_name(true, false) == name) {
         return place;
      }
   }
   return optionOf(verb, name);
}

/// The option that a text of the parser is about: it begins with its name.
const CLI::Option* optionIn(const CLI::App& verb, const std::string& text) {
   const std::size_t end = text.find_first_of(": ");
   return end == std::string::npos ? nullptr : optionOrPlace(verb, text.substr(0, end));
}

std::string unknownOption(const CLI::App& verb, const std::string& word) {
   const std::string name = word.substr(0, word.find('='));
   if (verb.get_parent() && optionOf(verb, name)) {
      return fmt::format("{} is an option of {}, and stands behind it", name, verb.get_name());
   }
   NearNames near(withoutDashes(name));
   forEachOption(verb, [&](const CLI::Option& option) {
      for (const std::string& candidate : option.get_lnames()) {
         near.add(candidate);
      }
   });
   std::vector<std::string> names = near.nearest();
   for (std::string& candidate : names) {
      candidate.insert(0, "--");
   }
   return fmt::format("no option '{}'{}", name, didYouMean(names));
}

std::string unknownVerb(const CLI::App& app, const std::string& word) {
   NearNames near(word);
   for (const CLI::App* verb : verbsOf(app)) {
      near.add(verb->get_name());
   }
   std::vector<std::string> names = near.nearest();
   // Whoever types "help" gets what he means.
   if (names.empty() && optionOf(app, "--" + word)) {
      names.push_back("--" + word);
   }
   return app.get_parent()
             ? fmt::format("{} has no verb '{}'{}", app.get_name(), word, didYouMean(names))
             : fmt::format("no verb '{}'{}", word, didYouMean(names));
}

std::string missingVerb(const CLI::App& app) {
   std::vector<std::string> names;
   for (const CLI::App* verb : verbsOf(app)) {
      names.push_back(verb->get_name());
   }
   const std::string all = fmt::format("{}", fmt::join(names, ", "));
   return app.get_parent() ? fmt::format("{} needs a verb: {}", app.get_name(), all)
                           : fmt::format("a verb is needed: {}", all);
}

/// The names of "[--a,--b]" in a text of the parser, if there are any.
std::vector<std::string> namesIn(const std::string& text) {
   const std::size_t begin = text.find('[');
   const std::size_t end = text.find(']');
   return begin == std::string::npos || end == std::string::npos
             ? std::vector<std::string>()
             : CLI::detail::split(text.substr(begin + 1, end - begin - 1), ',');
}

/// One, and only one, of several options.
std::string oneOf(const CLI::App& verb, const std::vector<std::string>& names) {
   const bool isAnyGiven = std::any_of(names.begin(), names.end(), [&](const std::string& name) {
      const CLI::Option* option = optionOf(verb, name);
      return option && option->count() > 0;
   });
   const std::string all = fmt::format("{}", fmt::join(names, ", "));
   return isAnyGiven ? fmt::format("only one of {} can be given", all)
                     : fmt::format("one of {} is needed", all);
}

std::string missing(const CLI::App& verb, const std::string& text) {
   const std::vector<std::string> group = namesIn(text);
   if (!group.empty()) {
      return oneOf(verb, group);
   }
   const CLI::Option* option = optionIn(verb, text);
   if (!option) {
      return text;
   }
   const std::string name = option->get_positional()
                               ? option->get_name(true, false)
                               : option->get_name() + ' ' + placeholderOf(*option);
   return fmt::format("{} is needed: {}", name, helpOf(*option));
}

/// An option with more or fewer values than it takes.
std::string mismatch(const CLI::App& verb, const std::string& text) {
   const CLI::Option* option = optionIn(verb, text);
   if (!option) {
      return text;
   }
   if (option->get_items_expected_max() == 0) {
      return fmt::format("{} takes no value", option->get_name());
   }
   return option->count() > 1
             ? fmt::format("{} is given more than once", option->get_name())
             : fmt::format("{} needs a value: {}", option->get_name(), placeholderOf(*option));
}

/// The names in a text as "--a requires --b", put into `sentence`.
std::string pair(const std::string& text, std::string_view relation, const char* sentence) {
   const std::size_t at = text.find(relation);
   return at == std::string::npos ? text
                                  : fmt::format(fmt::runtime(sentence), text.substr(0, at),
                                                text.substr(at + relation.size()));
}

} // namespace

std::string usageText(const CLI::App& app, const CLI::Error& error) {
   const CLI::App& verb = verbReached(app);
   std::string text = error.what();
   const std::vector<std::string> rest = app.remaining(true);
   const bool isRequired = is<CLI::RequiredError>(error);
   const bool isExtra = is<CLI::ExtrasError>(error);
   if (isRequired || isExtra) {
      // A mistyped option is why what it stands for is missing, and what follows it is too much.
      if (const auto option = std::find_if(rest.begin(), rest.end(), isOption);
          option != rest.end()) {
         return unknownOption(verb, *option);
      }
   }
   if (isRequired) {
      const bool isVerb = verb.get_require_subcommand_min() > 0 && verb.get_subcommands().empty();
      if (isVerb) {
         return rest.empty() ? missingVerb(verb) : unknownVerb(verb, rest.front());
      }
      return missing(verb, text);
   }
   if (isExtra && !rest.empty()) {
      return fmt::format("'{}' is a word too many", rest.front());
   }
   if (is<CLI::ArgumentMismatch>(error)) {
      return mismatch(verb, text);
   }
   if (is<CLI::ConversionError>(error)) {
      constexpr std::string_view begin = "Could not convert: ";
      return text.starts_with(begin) ? mismatch(verb, text.substr(begin.size())) : text;
   }
   if (is<CLI::RequiresError>(error)) {
      return pair(text, " requires ", "{} goes only with {}");
   }
   if (is<CLI::ExcludesError>(error)) {
      return pair(text, " excludes ", "{} goes without {}");
   }
   return text;
}

std::string usageMessage(const CLI::App& app, const std::string& text) {
   return fmt::format("{}: error: {}\nRun {} --help for the command line.\n", app.get_name(), text,
                      commandOf(verbReached(app)));
}

} // namespace Board
