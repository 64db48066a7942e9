#pragma once

#include "xml/XMLParser.h"

namespace fuzz {

/// Requires what every parsed document promises: its bounds, and that what is written of the tree
/// reads as the same tree.
void checkDocument(const XMLParser& document);

}  // namespace fuzz
