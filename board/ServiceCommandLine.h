#pragma once

#include <functional>
#include <memory>
#include <string>

#include "board/ServiceOptions.h"

namespace CLI {
class App;
}

namespace Board {

/// The command line of a daemon: options whose values are checked where they are given, with what
/// every daemon has, --metrics, --trace, --log, --check, --help and --version.
///
/// Lives on the stack of who parses; what options write to outlives it.
class ServiceCommandLine {
public:
   enum class Outcome {
      parsed, ///< there is work to do
      told,   ///< --help or --version, which have been printed on standard output
      wrong,  ///< standard error has been told what is
   };

   /// How often an option may be given.
   enum class Times { once, needed, many };

   /// Makes something of an option's text; what it throws is an error of usage.
   using Take = std::function<void(const std::string& text)>;

   /// `name` is the program's.
   ServiceCommandLine(const std::string& name, const std::string& description,
                      const std::string& footer, const std::string& version);
   ~ServiceCommandLine();
   ServiceCommandLine(const ServiceCommandLine&) = delete;
   ServiceCommandLine& operator=(const ServiceCommandLine&) = delete;

   /// An option `names`, "--long" or "--long,-l", with a value that the help calls `value`.
   void option(const char* names, const char* value, const char* help, Take take,
               Times times = Times::once);

   void flag(const char* name, bool& value, const char* help);

   /// Those that every daemon has; they come last in the help.
   void serviceOptions(ServiceArguments& arguments);

   Outcome parse(int argc, const char* const* argv);

private:
   const std::unique_ptr<CLI::App> _app;
};

} // namespace Board
