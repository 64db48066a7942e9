#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "igd/OSInfo.h"
#include "igd/Router.h"
#include "igd/WANCommonInterfaceConfig.h"
#include "igd/WANIPConnection.h"
#include "xml/XMLParser.h"

namespace {

/// What a description file (SCPD: UPnP Device Architecture 1.0, section 2.3) says, and what a
/// service registers, in the same form.
struct Description {
  using Arguments = std::vector<std::pair<std::string, std::string>>;  // name, related variable
  struct StateVariable {
    std::string dataType;
    bool evented = false;
    std::vector<std::string> allowed;
    bool operator==(const StateVariable&) const = default;
  };
  struct Call {
    Arguments in;
    Arguments out;
    bool operator==(const Call&) const = default;
  };

  std::map<std::string, StateVariable> variables;
  std::map<std::string, Call> actions;
};

void PrintTo(const Description::StateVariable& variable, std::ostream* out) {
  *out << variable.dataType << (variable.evented ? " evented" : "");
  for (const std::string& text : variable.allowed) *out << " '" << text << "'";
}

void PrintTo(const Description::Call& call, std::ostream* out) {
  for (const auto& [name, variable] : call.in) *out << " in " << name << ":" << variable;
  for (const auto& [name, variable] : call.out) *out << " out " << name << ":" << variable;
}

std::string readFile(const std::string& name) {
  std::ifstream file(PALINODE_ETC_DIR "/upnp/" + name, std::ios::binary);
  EXPECT_TRUE(file.good()) << name;
  return {std::istreambuf_iterator<char>(file), {}};
}

/// The children of `node`, which must be these elements in this order; "?" ends a name that may be
/// absent, "*" one that may be there any number of times.
std::vector<const XMLNode*> childrenOf(const XMLNode& node, const std::vector<std::string>& names) {
  std::vector<const XMLNode*> children;
  auto child = node.subNodes.begin();
  for (std::string name : names) {
    const char last = name.back();
    const bool optional = last == '?' || last == '*';
    if (optional) name.pop_back();
    size_t count = 0;
    for (; child != node.subNodes.end() && child->name == name; ++child) {
      if (++count > 1 && last != '*') break;
      children.push_back(&*child);
    }
    EXPECT_TRUE(optional || count > 0) << node.name << " lacks " << name;
  }
  EXPECT_EQ(child, node.subNodes.end()) << node.name << " has no place for " << child->name;
  return children;
}

Description::StateVariable readVariable(const XMLNode& node, std::string& name) {
  Description::StateVariable variable;
  const auto children = childrenOf(node, {"name", "dataType", "allowedValueList?"});
  if (children.size() < 2) return variable;
  name = children[0]->value;
  variable.dataType = children[1]->value;
  if (children.size() == 3) {
    for (const XMLNode* allowed : childrenOf(*children[2], {"allowedValue*"})) {
      variable.allowed.push_back(allowed->value);
    }
    EXPECT_FALSE(variable.allowed.empty()) << name;
  }
  EXPECT_EQ(node.properties.size(), 1U) << name;
  if (node.properties.size() == 1) {
    const XMLProp& events = node.properties.front();
    EXPECT_EQ(events.name, "sendEvents") << name;
    EXPECT_TRUE(events.value == "yes" || events.value == "no") << name;
    variable.evented = events.value == "yes";
  }
  return variable;
}

Description::Call readAction(const XMLNode& node, std::string& name) {
  Description::Call call;
  const auto children = childrenOf(node, {"name", "argumentList?"});
  if (children.empty()) return call;
  name = children[0]->value;
  if (children.size() == 1) return call;
  const auto arguments = childrenOf(*children[1], {"argument*"});
  EXPECT_FALSE(arguments.empty()) << name << ": no list without arguments";
  for (const XMLNode* argument : arguments) {
    const auto parts = childrenOf(*argument, {"name", "direction", "relatedStateVariable"});
    if (parts.size() != 3) continue;
    const std::string& direction = parts[1]->value;
    EXPECT_TRUE(direction == "in" || direction == "out") << name;
    EXPECT_TRUE(direction == "out" || call.out.empty()) << name << ": all in before any out";
    (direction == "in" ? call.in : call.out).emplace_back(parts[0]->value, parts[2]->value);
  }
  return call;
}

Description readDescription(const std::string& file) {
  Description description;
  const XMLParser parser(readFile(file));
  EXPECT_TRUE(parser.ok) << file;
  if (!parser.ok) return description;
  const XMLNode& scpd = parser.root.subNodes.front();
  EXPECT_EQ(scpd.name, "scpd");
  EXPECT_EQ(scpd.properties.size(), 1U);
  EXPECT_EQ(scpd.properties.front().name, "xmlns");
  EXPECT_EQ(scpd.properties.front().value, "urn:schemas-upnp-org:service-1-0");

  for (const XMLNode* part :
       childrenOf(scpd, {"specVersion", "actionList?", "serviceStateTable"})) {
    if (part->name == "specVersion") {
      std::string version;
      for (const XMLNode* number : childrenOf(*part, {"major", "minor"})) version += number->value;
      EXPECT_EQ(version, "10");
    } else if (part->name == "actionList") {
      for (const XMLNode* node : childrenOf(*part, {"action*"})) {
        std::string name;
        const Description::Call call = readAction(*node, name);
        EXPECT_TRUE(description.actions.emplace(name, call).second) << name << " twice";
      }
      EXPECT_FALSE(description.actions.empty()) << "no list without actions";
    } else {
      for (const XMLNode* node : childrenOf(*part, {"stateVariable*"})) {
        std::string name;
        const Description::StateVariable variable = readVariable(*node, name);
        EXPECT_TRUE(description.variables.emplace(name, variable).second) << name << " twice";
      }
    }
  }
  return description;
}

Description describe(const Service& service) {
  const std::map<VarType, std::string> dataTypes = {
      {VAR_UI4, "ui4"}, {VAR_UI2, "ui2"}, {VAR_STRING, "string"}, {VAR_BOOLEAN, "boolean"}};
  Description description;
  for (const auto& [name, variable] : service.getVariables()) {
    description.variables[name] = {dataTypes.at(variable.type), variable.evented, variable.allowed};
  }
  for (const auto& [name, action] : service.getActions()) {
    Description::Call& call = description.actions[name];
    for (size_t i = 0; i < action.inArgs.size(); ++i) {
      call.in.emplace_back(action.inArgs[i], action.inVars[i]);
    }
    for (size_t i = 0; i < action.outArgs.size(); ++i) {
      call.out.emplace_back(action.outArgs[i], action.outVars[i]);
    }
  }
  return description;
}

template <typename T>
void expectSame(const std::map<std::string, T>& file, const std::map<std::string, T>& code) {
  for (const auto& [name, entry] : file) {
    const auto found = code.find(name);
    ASSERT_NE(found, code.end()) << name << " is described but not registered";
    EXPECT_EQ(entry, found->second) << name;
  }
  for (const auto& [name, entry] : code) {
    EXPECT_TRUE(file.contains(name)) << name << " is registered but not described";
  }
}

class DescriptionFiles : public Router {
 protected:
  void expectDescribed(const std::string& file, const Service& service) {
    const Description written = readDescription(file);
    const Description registered = describe(service);
    expectSame(written.variables, registered.variables);
    expectSame(written.actions, registered.actions);
    for (const auto& [name, call] : written.actions) {
      for (const auto& arguments : {call.in, call.out}) {
        std::set<std::string> names;
        for (const auto& [argument, variable] : arguments) {
          EXPECT_TRUE(names.insert(argument).second) << name << ": " << argument << " twice";
          EXPECT_TRUE(written.variables.contains(variable)) << name << ": " << variable;
        }
      }
    }
  }
};

// Promise [scpd-complete]: The service descriptions that are served list exactly the variables and
// actions that the services have, in both directions: types, evented flags, allowed values,
// arguments, directions, related variables and order.
// Also proves [ip-variables], [ip-actions].
TEST_F(DescriptionFiles, DescribeTheIpConnection) {
  std::optional<WANIPConnection> connection;
  (void)logged([&] { connection.emplace(7U, 0U); });
  expectDescribed("wanipconn.xml", *connection);
}

// Also proves [scpd-complete], [common-variables].
TEST_F(DescriptionFiles, DescribeTheCommonInterfaceConfig) {
  expectDescribed("wancommonifcfg.xml", WANCommonInterfaceConfig(lm::message()));
}

// Also proves [scpd-complete], [osinfo].
TEST_F(DescriptionFiles, DescribeTheOsInfo) { expectDescribed("osinfo.xml", OSInfo()); }

// Promise [file-fits]: The description files that are installed fit into one read and begin with
// the XML declaration.
TEST_F(DescriptionFiles, FitIntoOneRead) {
  for (const char* name : {"wanipconn.xml", "wancommonifcfg.xml", "osinfo.xml", "logo16.gif",
                           "logo32.gif", "logo48.gif"}) {
    EXPECT_LT(readFile(name).size(), 16384U) << name;
  }
}

// Also proves [file-fits].
TEST_F(DescriptionFiles, StartWithTheXmlDeclaration) {
  for (const char* name : {"wanipconn.xml", "wancommonifcfg.xml", "osinfo.xml"}) {
    EXPECT_TRUE(readFile(name).starts_with("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n")) << name;
  }
}

// Promise [icon-colours]: The icons that are installed are GIFs of 256 colours and 16, 32 and 48
// pixels.
TEST_F(DescriptionFiles, IconsAreGifsOf256ColoursInTheirSizes) {
  for (const unsigned size : {16U, 32U, 48U}) {
    const std::string icon = readFile("logo" + std::to_string(size) + ".gif");
    const auto byte = [&icon](size_t at) { return static_cast<unsigned char>(icon.at(at)); };
    const auto number = [&byte](size_t at) { return byte(at) + 256U * byte(at + 1); };
    ASSERT_GT(icon.size(), 800U) << size;
    EXPECT_EQ(icon.substr(0, 6), "GIF89a") << size;
    EXPECT_EQ(number(6), size);
    EXPECT_EQ(number(8), size);
    EXPECT_EQ(byte(10) & 0x80U, 0x80U) << "a global colour table";
    EXPECT_EQ(byte(10) & 0x07U, 7U) << "of 256 entries";
    // After the header, the table and the extension with the transparent colour: the image.
    const size_t image = 13 + 256 * 3 + 8;
    EXPECT_EQ(byte(image), 0x2C) << size;
    EXPECT_EQ(number(image + 5), size);
    EXPECT_EQ(number(image + 7), size);
    EXPECT_EQ(byte(image + 10), 8) << "8 bits a pixel";
    EXPECT_EQ(byte(icon.size() - 1), 0x3B) << size;
  }
}

}  // namespace
