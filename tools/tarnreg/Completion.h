#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}

namespace TarnReg {

/// What a word of a command line is, as the help calls it: PATTERN, NAME=VALUE, a device's NAME.
enum class WordKind {
   other,
   file,
   registers,
   assignments,
   conditions,
   devices,
   cores,
   tables,
   types,
   operations
};

/// The kind of what the help calls `placeholder`.
WordKind wordKindOf(std::string_view placeholder);

/// What a word may be completed to.
struct Completions {
   bool files = false;  ///< files too, which the shell knows itself
   bool isOpen = false; ///< a word goes on behind what is completed
   std::vector<std::string> words;
};

/// All names of one kind, whatever the word to be completed begins with.
using NamesOf = std::function<std::vector<std::string>(WordKind)>;

/// What the last one of `words`, those behind the program's name, may be completed to on the
/// command line of `app`: verbs, options and what they take as `app` has them, names as `names`
/// gives them.
Completions completionsOf(const CLI::App& app, const std::vector<std::string>& words,
                          const NamesOf& names);

} // namespace TarnReg
