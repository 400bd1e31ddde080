#pragma once

#include <cstdint>

#include <CLI/CLI.hpp>

/// What the values of options have to be. For sources of command lines only: it needs CLI11.
namespace Board {

/// A whole number, decimal, 0x hexadecimal or 0b binary, from `least` to `most`.
CLI::Validator wholeNumber(std::uint64_t least, std::uint64_t most);

/// A time in seconds, with a fraction if need be, from 0 to a year: beyond that the arithmetic of
/// clocks ends.
CLI::Validator secondsUpToAYear();

} // namespace Board
