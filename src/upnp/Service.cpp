#include "upnp/Service.h"

#include <algorithm>
#include <cassert>
#include <string_view>

#include "base/Log.h"
#include "upnp/Event.h"
#include "upnp/Soap.h"
#include "upnp/Subscription.h"
#include "xml/XMLNode.h"
#include "xml/XMLParser.h"

namespace {

/// The first child of this local name, or null.
const XMLNode* findChild(const XMLNode& parent, std::string_view wanted) {
  const auto found = std::ranges::find_if(
      parent.subNodes, [wanted](const XMLNode& child) { return localName(child.name) == wanted; });
  return found == parent.subNodes.end() ? nullptr : &*found;
}

/// The first attribute of this local name, or null.
const XMLProp* findProperty(const XMLNode& node, std::string_view wanted) {
  const auto found = std::ranges::find_if(
      node.properties, [wanted](const XMLProp& prop) { return localName(prop.name) == wanted; });
  return found == node.properties.end() ? nullptr : &*found;
}

}  // namespace

Service::Service(std::string typeName) : name(std::move(typeName)) {}

Service::~Service() = default;

Variable& Service::addVar(std::string variableName, Variable variable) {
  return variables.insert_or_assign(std::move(variableName), std::move(variable)).first->second;
}

void Service::addAction(std::string actionName, Action action) {
  assert(action.inVars.size() == action.inArgs.size());
  assert(action.outVars.size() == action.outArgs.size());
  actions.insert_or_assign(std::move(actionName), std::move(action));
}

void Service::addAct(std::string actionName, const std::vector<std::string>& outVars,
                     const std::vector<std::string>& outArgs) {
  Action action{{}, {}, outVars, outArgs, {}};
  if (outArgs.empty()) {
    for (const std::string& variable : outVars) action.outArgs.push_back("New" + variable);
  }
  addAction(std::move(actionName), std::move(action));
}

void Service::setVar(const std::string& variableName, const std::string& value) {
  const auto found = variables.find(variableName);
  if (found == variables.end()) return;
  Variable& variable = found->second;
  std::string before;
  (void)variable.getValue(before);
  variable.setValue(value);
  if (!variable.evented || value == before) return;
  for (const auto& [sid, subscription] : subscriptions) sendEvent(*subscription, variableName);
}

std::string Service::getVar(const std::string& variableName) const {
  std::string value;
  const auto found = variables.find(variableName);
  if (found != variables.end()) (void)found->second.getValue(value);
  return value;
}

HTTPMessage Service::post(const HTTPMessage& request) {
  const auto refuse = [](const auto&... why) {
    logLine(why...);
    return HTTPMessage(HTTP_BAD_REQUEST);
  };
  const std::string contentType = request.getField("CONTENT-TYPE");
  if (contentType.find("text/xml") == std::string::npos) {
    return refuse("POST method with bad CONTENT-TYPE: ", contentType);
  }
  const XMLParser parser(request.body);
  if (!parser.ok) return refuse("POST: with bad xml");
  const XMLNode& envelope = parser.root.subNodes.front();
  if (localName(envelope.name) != "Envelope") {
    return refuse("POST: XML bad node name: ", envelope.name);
  }
  const XMLProp* encoding = findProperty(envelope, "encodingStyle");
  if (encoding == nullptr) return refuse("POST: XML no encoding style");
  if (encoding->value != soapEncoding) return refuse("POST: XML bad encoding style");
  const XMLNode* body = findChild(envelope, "Body");
  if (body == nullptr) return refuse("POST: XML no body");
  std::string soapAction = request.getField("SOAPACTION");
  if (soapAction.empty()) return refuse("POST: with no SOAPACTION");

  if (soapAction.front() == '"') {
    soapAction.erase(0, 1);
    if (!soapAction.empty()) soapAction.pop_back();
  }
  if (soapAction == queryAction) return queryStateVariable(*body);
  return invokeAction(*body, soapAction.substr(soapAction.find('#') + 1));
}

HTTPMessage Service::invokeAction(const XMLNode& body, const std::string& actionName) {
  logLine("action: ", actionName);
  const XMLNode* request = findChild(body, actionName);
  if (request == nullptr) {
    logLine("POST: XML has no such action");
    return HTTPMessage(HTTP_BAD_REQUEST);
  }
  const auto found = actions.find(actionName);
  if (found == actions.end()) {
    logLine("POST: no such action registered");
    return soapFault(UPNP_INVALID_ACTION);
  }
  const Action& action = found->second;
  std::vector<std::string> out;
  const UPNPStatus status =
      action.callback ? runHandler(action, *request, out) : readOutVars(action, out);
  if (status != UPNP_SUCCESS) return soapFault(status);

  XMLNode response("u:" + actionName + "Response");
  response.addProperty("xmlns:u", name);
  for (size_t i = 0; i < out.size(); ++i) response.addSubNode(action.outArgs[i], out[i]);
  return soapResponse(HTTP_OK, std::move(response));
}

UPNPStatus Service::readOutVars(const Action& action, std::vector<std::string>& out) const {
  for (size_t i = 0; i < action.outVars.size(); ++i) {
    const auto variable = variables.find(action.outVars[i]);
    if (variable == variables.end()) {
      logLine("bad var");
      return UPNP_INVALID_ACTION;
    }
    std::string value;
    if (!variable->second.getValue(value)) {
      logLine("bad val");
      return UPNP_INVALID_ACTION;
    }
    logLine("ret: ", action.outArgs[i], ", val: ", value);
    out.push_back(std::move(value));
  }
  return UPNP_SUCCESS;
}

UPNPStatus Service::runHandler(const Action& action, const XMLNode& request,
                               std::vector<std::string>& out) const {
  std::vector<std::string> in;
  for (size_t i = 0; i < action.inVars.size(); ++i) {
    const auto variable = variables.find(action.inVars[i]);
    if (variable == variables.end()) {
      logLine("POST: bad variable");
      return UPNP_INVALID_ACTION;
    }
    const XMLNode* argument = findChild(request, action.inArgs[i]);
    if (argument == nullptr) {
      logLine("POST: action xml doesn't have var: ", action.inArgs[i]);
      return UPNP_INVALID_ARGS;
    }
    logLine("arg: ", argument->name, ", val: ", argument->value);
    if (!variable->second.isValid(argument->value)) {
      logLine("POST: action xml bad variable value");
      return UPNP_INVALID_ARGS;
    }
    in.push_back(argument->value);
  }

  const UPNPStatus status = action.callback(in, out);
  if (status != UPNP_SUCCESS) return status;
  if (out.size() != action.outVars.size()) {
    logLine("bad ret");
    return UPNP_INVALID_ACTION;
  }
  for (size_t i = 0; i < out.size(); ++i) {
    logLine("ret: ", action.outArgs[i], ", val: ", out[i]);
  }
  return UPNP_SUCCESS;
}

HTTPMessage Service::queryStateVariable(const XMLNode& body) const {
  const XMLNode* query = findChild(body, "QueryStateVariable");
  if (query == nullptr) {
    logLine("POST: query variable xml bad");
    return HTTPMessage(HTTP_BAD_REQUEST);
  }
  const XMLNode* variableName = findChild(*query, "varName");
  if (variableName == nullptr) {
    logLine("POST: query variable xml var name bad");
    return HTTPMessage(HTTP_BAD_REQUEST);
  }
  logLine("query variable: ", variableName->value);
  const auto variable = variables.find(variableName->value);
  if (variable == variables.end()) {
    logLine("POST: no such variable name registered");
    return soapFault(UPNP_INVALID_VAR);
  }
  std::string value;
  if (!variable->second.getValue(value)) {
    logLine("POST: variable has no value");
    return soapFault(UPNP_INVALID_VAR);
  }
  XMLNode response("u:QueryStateVariableResponse");
  response.addProperty("xmlns:u", std::string(controlNamespace));
  response.addSubNode("return", value);
  return soapResponse(HTTP_OK, std::move(response));
}
