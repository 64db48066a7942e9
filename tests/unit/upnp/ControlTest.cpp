#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "http/Server.h"
#include "upnp/Service.h"
#include "upnp/SoapRequest.h"

namespace {

using Values = std::vector<std::string>;

const std::string lampType = "urn:schemas-example:service:Lamp:1";
const std::string badRequest = "HTTP/1.1 400 Bad Request\r\n\r\n";

/// A lamp whose brightness and colour can be set and read.
class Lamp : public Service {
 public:
  Lamp() : Service(lampType) {
    addVar("Brightness", {VAR_UI2, true}).setValue("50");
    addVar("Colour", {makeContainer("red", "green"), false}).setValue("red");
    addVar("Hours", {VAR_UI4, false});
    addVar("Note", {VAR_STRING, false}).setValue("");
    const Values both{"Brightness", "Colour"};
    addAct("Set", both, {"NewBrightness", "NewColour"}, {"Brightness"}, {"OldBrightness"}, this,
           &Lamp::set);
    addAct("Reset", {}, {}, {}, {}, this, &Lamp::reset);
    addAct("Get", both);
    addAct("GetAs", both, {"Light", "Tint"});
    addAct("GetHours", {"Brightness", "Hours"});
    addAct("GetWeight", {"Brightness", "Weight"});
    addAct("SetWeight", {"Weight"}, {"NewWeight"}, {}, {}, this, &Lamp::set);
  }

  UPNPStatus set(const Values& in, Values& out) {
    calls.push_back(in);
    out = answer;
    return status;
  }
  UPNPStatus reset(const Values& in, Values& /*out*/) {
    calls.push_back(in);
    return status;
  }

  Values answer{"50"};
  UPNPStatus status = UPNP_SUCCESS;
  std::vector<Values> calls;
};

/// A control point that sends requests to a lamp and sees the lines that are logged.
class Control : public ::testing::Test {
 protected:
  std::string post(const HTTPMessage& request) {
    testing::internal::CaptureStdout();
    const HTTPMessage reply = lamp.post(request);
    log = testing::internal::GetCapturedStdout();
    return bytesOf(reply);
  }

  std::string invoke(const std::string& action, const std::string& arguments = {}) {
    return post(actionRequest(lampType, action, arguments));
  }

  static std::string response(const std::string& action, const std::string& arguments) {
    return wholeReply("200 OK",
                      soapBody("    <u:" + action + "Response xmlns:u=\"" + lampType + "\">" +
                               arguments + "</u:" + action + "Response>\r\n"),
                      SERVER_STRING);
  }

  static std::string fault(int code, const std::string& description) {
    return wholeReply("500 Internal Server Error", faultBody(code, description), SERVER_STRING);
  }

  Lamp lamp;
  std::string log;
};

const std::string goodArguments = "<NewBrightness>70</NewBrightness><NewColour>green</NewColour>";
const std::string getResponse =
    "\r\n      <NewBrightness>50</NewBrightness>\r\n      <NewColour>red</NewColour>\r\n    ";

// Promise [soap-type]: A request whose CONTENT-TYPE does not contain `text/xml`, in lower case,
// gets 400 and logs `POST method with bad CONTENT-TYPE: ` with the value.
// Promise [soap-xml]: A body that is not well-formed XML gets 400 and logs `POST: with bad xml`.
// Promise [soap-envelope]: A body whose root is no `Envelope` gets 400 and logs `POST: XML bad node
// name: ` with the root's full name.
// Promise: An envelope without an `encodingStyle` gets 400 and logs `POST: XML no encoding style`.
// Promise [soap-encoding]: An `encodingStyle` that is not
// `http://schemas.xmlsoap.org/soap/encoding/`, byte for byte, gets 400 and logs `POST: XML bad
// encoding style`; the first of several counts.
// Promise [soap-body]: An envelope without a `Body` gets 400 and logs `POST: XML no body`.
// Promise [soap-action]: A request without SOAPACTION, or with an empty one, gets 400 and logs
// `POST: with no SOAPACTION`.
// Promise [soap-bare-400]: Refused with 400, a request gets the bare status, without a body.
TEST_F(Control, RefusesWhatIsNoSoapRequest) {
  const SoapRequest good = actionRequest(lampType, "Get");
  struct Spoiled {
    std::string reason;
    std::function<void(SoapRequest&)> spoil;
    std::string line;
  };
  const auto body = [](const std::string& text) {
    return [text](SoapRequest& request) { request.body = text; };
  };
  const std::string encoding = " s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"";
  const std::vector<Spoiled> table = {
      {"no type", [](SoapRequest& r) { r.contentType = ""; },
       "POST method with bad CONTENT-TYPE: "},
      {"another type", [](SoapRequest& r) { r.contentType = "text/plain"; },
       "POST method with bad CONTENT-TYPE: text/plain"},
      {"type in capitals", [](SoapRequest& r) { r.contentType = "TEXT/XML"; },
       "POST method with bad CONTENT-TYPE: TEXT/XML"},
      {"no body", body(""), "POST: with bad xml"},
      {"not well-formed", body(good.body + "<"), "POST: with bad xml"},
      {"another root", body("<s:Letter" + encoding + "/>"), "POST: XML bad node name: s:Letter"},
      {"no encoding style", body("<s:Envelope xmlns:s=\"x\"/>"), "POST: XML no encoding style"},
      {"another encoding style", body("<s:Envelope s:encodingStyle=\"x\"/>"),
       "POST: XML bad encoding style"},
      {"the first of two encoding styles counts",
       body("<s:Envelope a:encodingStyle=\"x\"" + encoding + "/>"), "POST: XML bad encoding style"},
      {"no body element", body("<s:Envelope" + encoding + "><s:Bod/></s:Envelope>"),
       "POST: XML no body"},
      {"no action field", [](SoapRequest& r) { r.soapAction = ""; }, "POST: with no SOAPACTION"},
  };
  for (const auto& [reason, spoil, line] : table) {
    SoapRequest request = good;
    spoil(request);
    EXPECT_EQ(post(request), badRequest) << reason;
    EXPECT_EQ(log, line + "\n") << reason;
  }
  EXPECT_EQ(post(good), response("Get", getResponse)) << "the next good one is answered";
}

// Promise [soap-order]: A control request is checked in this order: type, XML, root, encoding
// style, Body, SOAPACTION; the first that fails is the one that is logged.
TEST_F(Control, ChecksInTheOrderOfTheMessage) {
  struct Step {
    std::string contentType;
    std::string body;
    std::string line;
  };
  const std::string encoding = "encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"";
  const std::vector<Step> steps = {
      {"", "<a", "POST method with bad CONTENT-TYPE: \n"},
      {"text/xml", "<a", "POST: with bad xml\n"},
      {"text/xml", "<a/>", "POST: XML bad node name: a\n"},
      {"text/xml", "<Envelope/>", "POST: XML no encoding style\n"},
      {"text/xml", "<Envelope encodingStyle=\"\"/>", "POST: XML bad encoding style\n"},
      {"text/xml", "<Envelope " + encoding + "/>", "POST: XML no body\n"},
      {"text/xml", envelope(""), "POST: with no SOAPACTION\n"},
  };
  for (const auto& [contentType, body, line] : steps) {
    EXPECT_EQ(post(SoapRequest{contentType, "", body}), badRequest) << body;
    EXPECT_EQ(log, line) << body;
  }
  EXPECT_EQ(post(HTTPMessage()), badRequest) << "neither field is there";
}

// Promise: `text/xml` may stand anywhere in CONTENT-TYPE, with parameters around it.
TEST_F(Control, AcceptsTextXmlAnywhereInTheType) {
  SoapRequest request = actionRequest(lampType, "Get");
  for (const char* type : {"text/xml", "text/xml; charset=utf-8", "x/y, text/xml;q=1"}) {
    request.contentType = type;
    EXPECT_EQ(post(request), response("Get", getResponse)) << type;
  }
}

// Promise [soap-prefix]: Elements and attributes are matched by their local names: any prefix, or
// none, and no namespace is checked.
TEST_F(Control, MatchesElementsByTheirLocalNames) {
  const auto prefixed = [](const std::string& p) {
    return "<" + p + "Envelope " + p +
           "encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><" + p + "Header/><" + p +
           "Body><" + p + "Get/></" + p + "Body></" + p + "Envelope>";
  };
  SoapRequest request = actionRequest(lampType, "Get");
  for (const char* prefix : {"", "s:", "SOAP-ENV:", "a:b:"}) {
    request.body = prefixed(prefix);
    EXPECT_EQ(post(request), response("Get", getResponse)) << prefix;
  }
}

// Promise: The first Body counts.
TEST_F(Control, UsesTheFirstBody) {
  SoapRequest request = actionRequest(lampType, "Get");
  request.body =
      "<Envelope encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">"
      "<Body><Reset/></Body><Body><Get/></Body></Envelope>";
  EXPECT_EQ(post(request), badRequest);
  EXPECT_EQ(log, "action: Get\nPOST: XML has no such action\n");
}

// Promise: When SOAPACTION begins with a double quote, its first and last characters are dropped,
// whatever the last one is.
// Promise: The action is what follows the first `#` of SOAPACTION, or all of it when there is no
// `#`.
// Promise: The service type in SOAPACTION is not compared with the service that is asked.
TEST_F(Control, TakesTheActionNameFromSoapaction) {
  struct Named {
    std::string soapAction;
    std::string action;
    std::string reason;
  };
  const std::vector<Named> table = {
      {"\"" + lampType + "#Get\"", "Get", "quoted"},
      {lampType + "#Get", "Get", "bare"},
      {"\"urn:another:service:1#Get\"", "Get", "the type is not compared"},
      {"Get", "Get", "without a type"},
      {"\"Get\"", "Get", "quoted, without a type"},
      {"\"" + lampType + "#GetX", "Get", "the last character goes, whatever it is"},
      {"a#Get#Get", "Get#Get", "only the first # counts"},
      {"\"", "", "a quote alone"},
      {"\"\"", "", "nothing in quotes"},
      {"#", "", "nothing after #"},
      {" Get", " Get", "blanks stay"},
  };
  for (const auto& [soapAction, action, reason] : table) {
    SoapRequest request = actionRequest(lampType, "Get");
    request.soapAction = soapAction;
    (void)post(request);
    EXPECT_EQ(log.substr(0, log.find('\n')), "action: " + action) << reason;
  }
}

// Promise [soap-element]: An action that the body does not name gets a bare 400 and logs `POST: XML
// has no such action`.
TEST_F(Control, RefusesAnActionThatTheBodyDoesNotHave) {
  SoapRequest request = actionRequest(lampType, "Get");
  request.soapAction = "Reset";
  EXPECT_EQ(post(request), badRequest);
  EXPECT_EQ(log, "action: Reset\nPOST: XML has no such action\n");
  EXPECT_TRUE(lamp.calls.empty());
}

// Promise [fault-401]: An action that the service does not have is a fault 401 `Invalid Action` and
// logs `POST: no such action registered`.
TEST_F(Control, FaultsAnActionThatIsNotRegistered) {
  EXPECT_EQ(invoke("Explode"), fault(401, "Invalid Action"));
  EXPECT_EQ(log, "action: Explode\nPOST: no such action registered\n");
}

// Promise: An action logs `action: ` with its name.
// Promise: A read of variables answers them in the action's order and logs `ret: <argument>, val:
// <value>` for each.
// Promise: The answer to an action is the element `u:<action>Response` with the attribute
// `xmlns:u`, the service type, and one child for each result.
TEST_F(Control, AnswersAReadActionWithItsVariables) {
  EXPECT_EQ(invoke("Get"), response("Get", getResponse));
  EXPECT_EQ(log, "action: Get\nret: NewBrightness, val: 50\nret: NewColour, val: red\n");

  EXPECT_EQ(invoke("GetAs"), response("GetAs",
                                      "\r\n      <Light>50</Light>\r\n"
                                      "      <Tint>red</Tint>\r\n    "));
}

// Promise: Arguments sent to an action that takes none are ignored.
TEST_F(Control, ReadActionIgnoresArguments) {
  EXPECT_EQ(invoke("Get", "<NewColour>blue</NewColour>"), response("Get", getResponse));
}

// Promise [read-unset]: A read of a variable without a value is a fault 401 and logs `bad val`.
TEST_F(Control, FaultsAReadActionWhoseVariableHasNoValue) {
  EXPECT_EQ(invoke("GetHours"), fault(401, "Invalid Action"));
  EXPECT_EQ(log, "action: GetHours\nret: NewBrightness, val: 50\nbad val\n");
}

// Promise [read-unknown]: A read of a variable that the service does not have is a fault 401 and
// logs `bad var`.
TEST_F(Control, FaultsAReadActionWhoseVariableIsUnknown) {
  EXPECT_EQ(invoke("GetWeight"), fault(401, "Invalid Action"));
  EXPECT_EQ(log, "action: GetWeight\nret: NewBrightness, val: 50\nbad var\n");
}

// Promise [soap-arguments]: Arguments are matched by name, in any order; the first of a name
// counts, and those that the action does not know are ignored.
// Promise: Each argument logs `arg: <element>, val: <value>`.
TEST_F(Control, RunsTheHandlerWithTheArgumentsInItsOrder) {
  const std::string reply =
      invoke("Set",
             "<NewColour>green</NewColour><Extra>1</Extra><x:NewBrightness>70</x:NewBrightness>"
             "<NewColour>never</NewColour>");
  EXPECT_EQ(reply, response("Set", "\r\n      <OldBrightness>50</OldBrightness>\r\n    "));
  EXPECT_EQ(lamp.calls, (std::vector<Values>{{"70", "green"}}));
  EXPECT_EQ(log,
            "action: Set\narg: x:NewBrightness, val: 70\narg: NewColour, val: green\n"
            "ret: OldBrightness, val: 50\n");
}

// Promise: An action without results is answered with an empty element.
TEST_F(Control, RunsAHandlerWithoutArguments) {
  EXPECT_EQ(invoke("Reset"), response("Reset", ""));
  EXPECT_EQ(lamp.calls, std::vector<Values>{{}});
  EXPECT_EQ(log, "action: Reset\n");
}

TEST_F(Control, PassesAnEmptyArgumentAsEmpty) {
  EXPECT_EQ(invoke("Set", "<NewBrightness></NewBrightness><NewColour>red</NewColour>"),
            response("Set", "\r\n      <OldBrightness>50</OldBrightness>\r\n    "));
  EXPECT_EQ(lamp.calls, (std::vector<Values>{{"", "red"}}));
}

// Promise: An empty argument has the last text before it in the body, and is empty where there is
// none.
TEST_F(Control, GivesAnEmptyArgumentTheLastTextBeforeIt) {
  EXPECT_EQ(invoke("Set", "<NewColour>red</NewColour>\n<Note>70</Note><NewBrightness/>"),
            response("Set", "\r\n      <OldBrightness>50</OldBrightness>\r\n    "));
  EXPECT_EQ(lamp.calls, (std::vector<Values>{{"70", "red"}}));
}

// Promise: An argument or action name with line ends is one line of the log.
TEST_F(Control, LogsOneLineForAnActionNameOfSeveralLines) {
  SoapRequest request = actionRequest(lampType, "Get");
  request.soapAction = "Get\nexit";
  EXPECT_EQ(post(request), badRequest);
  EXPECT_EQ(log, "action: Get?exit\nPOST: XML has no such action\n");
}

// Promise [argument-unknown]: An argument whose variable the service does not have is a fault 401
// and logs `POST: bad variable`.
TEST_F(Control, FaultsAnArgumentWhoseVariableIsUnknown) {
  EXPECT_EQ(invoke("SetWeight", "<NewWeight>1</NewWeight>"), fault(401, "Invalid Action"));
  EXPECT_EQ(log, "action: SetWeight\nPOST: bad variable\n");
  EXPECT_TRUE(lamp.calls.empty());
}

// Promise [fault-missing]: A missing argument is a fault 402 `Invalid Args` and logs `POST: action
// xml doesn't have var: ` with its name.
// Promise [fault-first]: An action is not carried out when one of its arguments is refused.
TEST_F(Control, FaultsAMissingArgument) {
  EXPECT_EQ(invoke("Set", "<NewBrightness>70</NewBrightness>"), fault(402, "Invalid Args"));
  EXPECT_EQ(log,
            "action: Set\narg: NewBrightness, val: 70\n"
            "POST: action xml doesn't have var: NewColour\n");
  EXPECT_TRUE(lamp.calls.empty());
}

// Promise [fault-402]: An argument that is not valid for its variable is a fault 402 and logs
// `POST: action xml bad variable value`.
// Also proves [fault-first].
TEST_F(Control, FaultsAnInvalidArgument) {
  EXPECT_EQ(invoke("Set", "<NewBrightness>70</NewBrightness><NewColour>blue</NewColour>"),
            fault(402, "Invalid Args"));
  EXPECT_EQ(log,
            "action: Set\narg: NewBrightness, val: 70\narg: NewColour, val: blue\n"
            "POST: action xml bad variable value\n");
  EXPECT_TRUE(lamp.calls.empty());
}

// Promise: An action that fails is a fault with the code that it gave.
TEST_F(Control, FaultsWithTheCodeOfTheHandler) {
  lamp.status = UPNP_ACTION_FAILED;
  EXPECT_EQ(invoke("Set", goodArguments), fault(501, "Action Failed"));
  lamp.status = static_cast<UPNPStatus>(899);
  EXPECT_EQ(invoke("Reset"), fault(899, ""));
  EXPECT_EQ(log, "action: Reset\n");
}

// Promise [fault-results]: An action that gives too few or too many results is a fault 401 and logs
// `bad ret`.
TEST_F(Control, FaultsAHandlerThatReturnsTooFewOrTooManyValues) {
  for (const Values& answer : {Values{}, Values{"1", "2"}}) {
    lamp.answer = answer;
    EXPECT_EQ(invoke("Set", goodArguments), fault(401, "Invalid Action"));
    EXPECT_EQ(log,
              "action: Set\narg: NewBrightness, val: 70\narg: NewColour, val: green\nbad ret\n");
  }
}

// Promise: Results are not judged by their variables.
TEST_F(Control, DoesNotCheckOutValues) {
  lamp.answer = {"dazzling"};
  EXPECT_EQ(invoke("Set", goodArguments),
            response("Set", "\r\n      <OldBrightness>dazzling</OldBrightness>\r\n    "));
}

// Promise: A query is a SOAPACTION of `urn:schemas-upnp-org:control-1-0#QueryStateVariable`, with
// quotes or without; with another namespace it is an action.
// Promise [query]: A query logs `query variable: ` with the name and is answered with
// `u:QueryStateVariableResponse` in the namespace `urn:schemas-upnp-org:control-1-0` and its one
// child `return`.
// Promise [query-any]: Every variable can be queried, evented or not.
TEST_F(Control, AnswersTheValueOfAVariable) {
  const auto value = [](const std::string& text) {
    return wholeReply("200 OK",
                      soapBody("    <u:QueryStateVariableResponse"
                               " xmlns:u=\"urn:schemas-upnp-org:control-1-0\">\r\n"
                               "      <return>" +
                               text + "</return>\r\n    </u:QueryStateVariableResponse>\r\n"),
                      SERVER_STRING);
  };
  EXPECT_EQ(post(variableRequest("Brightness")), value("50")) << "evented";
  EXPECT_EQ(log, "query variable: Brightness\n");
  EXPECT_EQ(post(variableRequest("Colour")), value("red")) << "not evented";
  EXPECT_EQ(post(variableRequest("Note")), value("")) << "an empty value is a value";

  SoapRequest bare = variableRequest("Brightness");
  bare.soapAction = "urn:schemas-upnp-org:control-1-0#QueryStateVariable";
  EXPECT_EQ(post(bare), value("50")) << "without quotes";
}

// Promise [fault-404]: A query of a variable that the service does not have is a fault 404 `Invalid
// Var` and logs `POST: no such variable name registered`.
// Promise [query-unset]: A query of a variable without a value is a fault 404 and logs `POST:
// variable has no value`.
TEST_F(Control, FaultsAQueryOfAVariableThatIsUnknownOrHasNoValue) {
  EXPECT_EQ(post(variableRequest("Weight")), fault(404, "Invalid Var"));
  EXPECT_EQ(log, "query variable: Weight\nPOST: no such variable name registered\n");
  EXPECT_EQ(post(variableRequest("Hours")), fault(404, "Invalid Var"));
  EXPECT_EQ(log, "query variable: Hours\nPOST: variable has no value\n");
}

// Promise [query-form]: A query without its element gets 400 and logs `POST: query variable xml
// bad`; without `varName` in it, `POST: query variable xml var name bad`.
TEST_F(Control, RefusesAQueryWithoutItsElements) {
  SoapRequest request = variableRequest("Brightness");
  request.body = envelope("<u:Get/>");
  EXPECT_EQ(post(request), badRequest);
  EXPECT_EQ(log, "POST: query variable xml bad\n");
  request.body = envelope("<u:QueryStateVariable><u:name>Hours</u:name></u:QueryStateVariable>");
  EXPECT_EQ(post(request), badRequest);
  EXPECT_EQ(log, "POST: query variable xml var name bad\n");
}

TEST_F(Control, TreatsAQueryOfAnotherNamespaceAsAnAction) {
  SoapRequest request = variableRequest("Brightness");
  request.soapAction = "\"" + lampType + "#QueryStateVariable\"";
  EXPECT_EQ(post(request), fault(401, "Invalid Action"));
  EXPECT_EQ(log, "action: QueryStateVariable\nPOST: no such action registered\n");
}

}  // namespace
