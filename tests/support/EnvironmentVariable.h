#pragma once

#include <stdlib.h>

#include <optional>
#include <string>

namespace TestSupport {

/// Sets an environment variable, or removes it, until the end of the scope.
class EnvironmentVariable {
public:
   EnvironmentVariable(std::string name, const std::optional<std::string>& value)
      : _name(std::move(name)) {
      if (const char* previous = ::getenv(_name.c_str())) {
         _previous = previous;
      }
      _set(value);
   }
   ~EnvironmentVariable() { _set(_previous); }
   EnvironmentVariable(const EnvironmentVariable&) = delete;
   EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;

private:
   void _set(const std::optional<std::string>& value) {
      if (value) {
         ::setenv(_name.c_str(), value->c_str(), 1);
      } else {
         ::unsetenv(_name.c_str());
      }
   }

   std::string _name;
   std::optional<std::string> _previous;
};

} // namespace TestSupport
