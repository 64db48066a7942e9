#pragma once

#include <string>

#include "xml/XMLNode.h"

/// One icon of a device.
struct UpnpIcon {
  std::string mimetype;     ///< e.g. "image/gif"
  unsigned int width = 0;   ///< in pixels
  unsigned int height = 0;  ///< in pixels
  unsigned int depth = 0;   ///< colour depth in bits
  std::string url;          ///< the path under which it is served

  /// The "icon" element.
  [[nodiscard]] XMLNode getDescription() const;
};
