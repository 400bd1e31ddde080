#pragma once

#include <string>

namespace CLI {
class App;
class Error;
} // namespace CLI

namespace Board {

/// What is wrong with a command line, as one who typed it understands it: `error` is what `app`
/// threw when it parsed the line. Whatever the parser says in words of its own is said in others,
/// and with a verb or an option of another name those that are near it.
std::string usageText(const CLI::App& app, const CLI::Error& error);

/// The whole of what a program says of it: with its name, and where to read on.
std::string usageMessage(const CLI::App& app, const std::string& text);

} // namespace Board
