#pragma once

namespace lumen {

/// Gives up what lumen-resolver does not need from its platform's connection on: see allowOnly. To
/// be called before the first byte of a name server is read.
void confineResolver();

}  // namespace lumen
