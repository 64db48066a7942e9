#pragma once

#include <chrono>

namespace lumen {

/// The processor time that a turn needs. What the LAN asks is answered in less.
inline constexpr std::chrono::microseconds shortTurn{100};

/// Asks the kernel to let this process, and what it starts from now on, run soon after it wakes,
/// even while another program computes, since its turns are short. Kernels before 6.12 take no
/// notice. A refusal is no harm: then a turn can begin some milliseconds later.
void takeShortTurns();

}  // namespace lumen
