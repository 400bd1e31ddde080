#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

/// What may be on the command line of a program, as its parser has it.
namespace Board {

/// The verbs of a program, or those of a verb that has some itself, as its help lists them.
std::vector<const CLI::App*> verbsOf(const CLI::App& app);

/// The verb that a line which was parsed, be it in vain, came to: `app` itself without any.
const CLI::App& verbReached(const CLI::App& app);

/// What one has to type for `verb`, with what it belongs to: "tarnreg shadow set".
std::string commandOf(const CLI::App& verb);

/// Calls `with` for every option that may stand behind `verb`: its own and those of what it belongs
/// to, those in groups included.
void forEachOption(const CLI::App& verb, const std::function<void(const CLI::Option&)>& with);

/// The option that is written as `word` behind `verb`, as "--file" or "-f"; none otherwise.
const CLI::Option* optionOf(const CLI::App& verb, const std::string& word);

/// What the help calls the value of an option, or of a place.
std::string placeholderOf(const CLI::Option& option);

} // namespace Board
