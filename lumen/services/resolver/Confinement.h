#pragma once

#include <span>
#include <string>

namespace lumen {

/// Gives up what lumen-resolver does not need from its platform's connection on: it opens only what
/// lies in /etc and in the folders of `configurations`, which may be replaced, and of what these
/// point to now (allowOnlyFiles), and makes the system calls of its list only (allowOnly). To be
/// called before the first byte of a name server is read.
void confineResolver(std::span<const std::string> configurations);

}  // namespace lumen
