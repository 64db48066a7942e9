#pragma once

namespace lumen {

/// Gives up what neither lumend nor any of its services needs, once lumend has its files, its
/// folder and its capabilities: see forbid. The services inherit it, and can give up more
/// themselves.
void confinePlatform();

}  // namespace lumen
