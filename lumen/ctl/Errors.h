#pragma once

#include <stdexcept>

namespace lumenctl {

/// What was asked for could not be done; the text says why. Ends the program with status 1.
class Refused : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// lumend cannot be reached, has ended or does not answer in time: its log may say why.
class PlatformSilent : public Refused {
 public:
  using Refused::Refused;
};

/// The command line asks for something that makes no sense. Ends the program with status 2.
class WrongUsage : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace lumenctl
