#include "tools/tarnreg/Completion.h"

#include <algorithm>
#include <utility>

#include <CLI/CLI.hpp>

#include "board/CommandTree.h"

namespace TarnReg {

namespace {

constexpr std::pair<std::string_view, WordKind> kinds[] = {{"PATTERN", WordKind::registers},
                                                           {"NAME=VALUE", WordKind::assignments},
                                                           {"CONDITION...", WordKind::conditions},
                                                           {"NAME", WordKind::devices},
                                                           {"CORE", WordKind::cores},
                                                           {"TABLE", WordKind::tables},
                                                           {"TYPE", WordKind::types},
                                                           {"OPERATION", WordKind::operations},
                                                           {"ARGUMENT", WordKind::registers},
                                                           {"FILE", WordKind::file},
                                                           {"LIST", WordKind::file},
                                                           {"DIRECTORY", WordKind::file}};

/// The words of "hex|dec|bin"; none for a text of another form.
std::vector<std::string> choicesOf(const std::string& placeholder) {
   const bool isChoice = placeholder.find('|') != std::string::npos &&
                         std::none_of(placeholder.begin(), placeholder.end(),
                                      [](char c) { return c >= 'A' && c <= 'Z'; });
   return isChoice ? CLI::detail::split(placeholder, '|') : std::vector<std::string>();
}

/// Goes through a command line as its parser does, as far as completion needs it.
class Walk {
public:
   Walk(const CLI::App& app, const NamesOf& names) : _verb(&app), _names(names) {}

   void word(const std::string& word) {
      if (_taking && (_left > 0 || !_isOption(word))) {
         --_left;
         if (_left <= 0 && !_takesMany(*_taking)) {
            _taking = nullptr;
         }
         return;
      }
      _taking = nullptr;
      if (!_onlyPlaces && word == "--") {
         _onlyPlaces = true;
      } else if (_isOption(word)) {
         const std::size_t equals = word.find('=');
         const CLI::Option* option = Board::optionOf(*_verb, word.substr(0, equals));
         if (option && option->get_items_expected_max() > 0 && equals == std::string::npos) {
            _taking = option;
            _left = 1;
         }
      } else if (const CLI::App* verb = _placesTaken == 0 ? _subVerb(word) : nullptr) {
         _verb = verb;
      } else {
         ++_placesTaken;
      }
   }

   Completions completions(const std::string& word) const {
      Completions out;
      const std::size_t equals = word.find('=');
      if (_taking && (_left > 0 || !_isOption(word))) {
         _value(Board::placeholderOf(*_taking), "", out);
      } else if (_isOption(word) && equals != std::string::npos) {
         if (const CLI::Option* option = Board::optionOf(*_verb, word.substr(0, equals))) {
            _value(Board::placeholderOf(*option), word.substr(0, equals + 1), out);
         }
      } else if (!_onlyPlaces && word.starts_with('-')) {
         _options(out);
      } else {
         _place(out);
      }
      std::erase_if(out.words,
                    [&](const std::string& candidate) { return !candidate.starts_with(word); });
      std::sort(out.words.begin(), out.words.end());
      out.words.erase(std::unique(out.words.begin(), out.words.end()), out.words.end());
      return out;
   }

private:
   bool _isOption(const std::string& word) const {
      return !_onlyPlaces && word.size() > 1 && word.front() == '-';
   }

   static bool _takesMany(const CLI::Option& option) {
      return option.get_items_expected_max() >= CLI::detail::expected_max_vector_size;
   }

   const CLI::App* _subVerb(const std::string& word) const {
      for (const CLI::App* verb : Board::verbsOf(*_verb)) {
         if (verb->get_name() == word) {
            return verb;
         }
      }
      return nullptr;
   }

   void _options(Completions& out) const {
      Board::forEachOption(*_verb, [&](const CLI::Option& option) {
         for (const std::string& name : option.get_lnames()) {
            out.words.push_back("--" + name);
         }
      });
   }

   void _value(const std::string& placeholder, const std::string& prefix, Completions& out) const {
      std::vector<std::string> words = choicesOf(placeholder);
      const WordKind kind = wordKindOf(placeholder);
      out.files = kind == WordKind::file;
      out.isOpen = kind == WordKind::assignments || kind == WordKind::conditions;
      if (kind != WordKind::other && kind != WordKind::file) {
         words = _names(kind);
      }
      for (const std::string& word : words) {
         out.words.push_back(prefix + word + (out.isOpen ? "=" : ""));
      }
   }

   void _place(Completions& out) const {
      const std::vector<const CLI::App*> verbs = Board::verbsOf(*_verb);
      for (const CLI::App* verb : verbs) {
         out.words.push_back(verb->get_name());
      }
      int left = _placesTaken;
      for (const CLI::Option* place :
           _verb->get_options([](const CLI::Option* option) { return option->get_positional(); })) {
         if (_takesMany(*place) || left-- == 0) {
            _value(Board::placeholderOf(*place), "", out);
            return;
         }
      }
   }

   const CLI::App* _verb;
   const NamesOf& _names;
   const CLI::Option* _taking = nullptr; // whose values come, if any
   int _left = 0;                        // how many have to
   int _placesTaken = 0;
   bool _onlyPlaces = false;
};

} // namespace

WordKind wordKindOf(std::string_view placeholder) {
   for (const auto& [text, kind] : kinds) {
      if (text == placeholder) {
         return kind;
      }
   }
   return WordKind::other;
}

Completions completionsOf(const CLI::App& app, const std::vector<std::string>& words,
                          const NamesOf& names) {
   Walk walk(app, names);
   for (std::size_t i = 0; i + 1 < words.size(); ++i) {
      walk.word(words[i]);
   }
   return walk.completions(words.empty() ? "" : words.back());
}

} // namespace TarnReg
