#pragma once

namespace CLI {
class App;
}

namespace Board {

/// Has the help of `app`, and of the subcommands that are added to it from now on, say what a
/// program or verb does by the whole of its description, which has examples first, before usage and
/// options; but in the list of a program's verbs by the description's first line.
void helpFormatIs(CLI::App& app);

} // namespace Board
