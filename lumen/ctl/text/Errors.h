#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace lumenctl {

/// The request could not be carried out; the text says why. Ends the program with status 1.
class Refused : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// lumend cannot be reached, has ended or does not answer in time: its log may say why.
class PlatformSilent : public Refused {
 public:
  using Refused::Refused;
};

/// The text of a Refused whose answer cannot be printed.
inline constexpr const char* outputFailed = "standard output cannot be written";

/// The command line is wrong, whatever the state of the router. Ends the program with status 2.
class WrongUsage : public std::runtime_error {
 public:
  /// `advice` is a sentence that names where to read on; empty: the command's --help.
  WrongUsage(const std::string& text, std::string advice = "")
      : std::runtime_error(text), advice_(std::move(advice)) {}

  [[nodiscard]] const std::string& advice() const { return advice_; }

 private:
  std::string advice_;
};

}  // namespace lumenctl
