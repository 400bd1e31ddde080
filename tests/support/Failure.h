#pragma once

#include <exception>
#include <functional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <typeinfo>

#include "platform/entity/Errors.h"

namespace TestSupport {

/// What `body` throws, in a form that tests compare: the kind of exception, the code and category
/// of a system error, and the text.
class Failure {
public:
   Failure(std::string wantedKind, int wantedCode, std::string wantedText)
      : kind(std::move(wantedKind)), code(wantedCode), text(std::move(wantedText)) {}

   /// Runs `body`.
   explicit Failure(const std::function<void()>& body) {
      try {
         body();
      } catch (const Platform::ErrnoException& error) {
         _take("errno exception", error, error.code().value());
      } catch (const std::system_error& error) {
         _take(std::string(error.code().category().name()) + " error", error, error.code().value());
      } catch (const Platform::RangeError& error) {
         _take("range error", error);
      } catch (const std::invalid_argument& error) {
         _take("invalid argument", error);
      } catch (const std::out_of_range& error) {
         _take("out of range", error);
      } catch (const std::exception& error) {
         _take(typeid(error).name(), error);
      }
   }

   /// A std::system_error of the generic category, with the text it was made from.
   static Failure generic(int code, const std::string& text) {
      return {"generic error", code, std::system_error(code, std::generic_category(), text).what()};
   }

   /// A std::system_error of the system category.
   static Failure system(int code, const std::string& text) {
      return {"system error", code, std::system_error(code, std::system_category(), text).what()};
   }

   /// The framework's errno exception. Its text is the framework's.
   static Failure errnoException(int code) {
      return {"errno exception", code, Platform::ErrnoException(code).what()};
   }

   static Failure range(const std::string& text) { return {"range error", 0, text}; }
   static Failure invalidArgument(const std::string& text) { return {"invalid argument", 0, text}; }
   static Failure outOfRange(const std::string& text) { return {"out of range", 0, text}; }
   static Failure none() { return {"nothing", 0, ""}; }

   friend bool operator==(const Failure&, const Failure&) = default;
   friend std::ostream& operator<<(std::ostream& out, const Failure& failure) {
      return out << failure.kind << ' ' << failure.code << " \"" << failure.text << '"';
   }

   std::string kind = "nothing";
   int code = 0;
   std::string text;

private:
   void _take(std::string what, const std::exception& error, int errorCode = 0) {
      kind = std::move(what);
      code = errorCode;
      text = error.what();
   }
};

} // namespace TestSupport
