#include "description/UpnpIcon.h"

#include "base/Text.h"

XMLNode UpnpIcon::getDescription() const {
  XMLNode icon("icon");
  icon.addSubNode("mimetype", mimetype);
  icon.addSubNode("width", uinttostr(width));
  icon.addSubNode("height", uinttostr(height));
  icon.addSubNode("depth", uinttostr(depth));
  icon.addSubNode("url", url);
  return icon;
}
