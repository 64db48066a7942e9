// The names that lumenctl monitor and history give to fields and commands: scripts look for them in
// the JSON.

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "lumen/ctl/monitor/MessageNames.h"

namespace lumenctl {
namespace {

using Names = std::vector<std::pair<uint32_t, const char*>>;

constexpr Subject broker = {0, 0};
constexpr Subject resolver = {14, 0};
constexpr Subject interfaces = {20, 0};
constexpr Subject addresses = {20, 1};
constexpr Subject natRules = {20, 5};
constexpr Subject pinholes = {20, 7};
constexpr Subject gateway = {40, 0};
constexpr Subject pcp = {41, 0};
constexpr Subject web = {42, 0};
constexpr Subject identity = {65, 0};
constexpr Subject history = {66, 0};
constexpr Subject unknownService = {77, 3};

void expectFields(Subject subject, const Names& names) {
  for (const auto& [key, name] : names) {
    const FieldName* const field = findField(subject, key);
    ASSERT_NE(field, nullptr) << name;
    EXPECT_STREQ(field->name, name);
  }
}

void expectCommands(Subject subject, const Names& names) {
  for (const auto& [command, name] : names) EXPECT_EQ(commandName(subject, command), name);
}

TEST(MessageNames, OfSharedFields) {
  const Names names = {{0x08ff0007, "command"}, {0x08fe0001, "id"},      {0xa8fe0002, "records"},
                       {0x08fe0003, "cursor"},  {0x00fe0007, "dynamic"}, {0x00fe000a, "disabled"},
                       {0x08fe0013, "removed"}};
  for (const Subject subject : {unknownService, natRules, history}) expectFields(subject, names);
  EXPECT_EQ(findField(unknownService, 1), nullptr);
  EXPECT_EQ(findField({20, 2}, 0x20010005), nullptr) << "another handler";
}

TEST(MessageNames, OfFieldsOfEachService) {
  expectFields(broker, {{0x88000001, "services"},
                        {0x08000001, "command"},
                        {0x88000002, "path"},
                        {0x00000001, "on"},
                        {0x08fe0001, "number"},
                        {0x20010005, "name"},
                        {0x20000001, "state"},
                        {0x08000002, "process"},
                        {0x08000003, "restarts"},
                        {0x10000004, "starts-in-ms"},
                        {0x10000005, "resident-memory"},
                        {0x20000006, "program"}});
  expectFields(resolver, {{0x20000003, "name"}, {0x08000004, "address"}});
  expectFields(interfaces, {{0x08010001, "hardware-type"},
                            {0x08010003, "flags"},
                            {0x08010004, "index"},
                            {0x20010005, "name"},
                            {0x20010006, "display-name"},
                            {0x0001000e, "running"},
                            {0x08010010, "role"},
                            {0x100100fc, "bytes-received"},
                            {0x100100fd, "bytes-sent"},
                            {0x100100fe, "packets-received"},
                            {0x100100ff, "packets-sent"}});
  expectFields(addresses, {{0x08000005, "interface"}, {0x08000001, "address"}});
  expectFields(gateway, {{0x08000001, "interface"},
                         {0x08000002, "type"},
                         {0x00000001, "enabled"},
                         {0x00000002, "allow-disable-external"},
                         {0x00000003, "show-dummy-rule"}});
  expectFields(web, {{0x00000001, "enabled"},
                     {0x08000002, "port"},
                     {0x20000003, "names"},
                     {0x20000010, "served"},
                     {0x20000011, "problem"}});
  expectFields(identity, {{0x20000001, "identity"}});
  expectFields(
      history,
      {{0x20000001, "text"}, {0x28000002, "undo"}, {0x88000003, "path"}, {0x10000004, "time"}});
}

TEST(MessageNames, OfFieldsOfPortsAndTheirPolicy) {
  expectFields({20, 6}, {{0x08010040, "event"}, {0x08000034, "address-first"}});
  expectFields(natRules, {{0x20000027, "chain"},
                          {0x000001a3, "match-address"},
                          {0x08000034, "address-first"},
                          {0x08000035, "address-last"},
                          {0x00000196, "match-port"},
                          {0x08000009, "port-first"},
                          {0x0800000a, "port-last"},
                          {0x00000194, "match-protocol"},
                          {0x0800000b, "protocol"},
                          {0x08000028, "action"},
                          {0x000003ee, "translate-address"},
                          {0x080003e8, "client-first"},
                          {0x080003e9, "client-last"},
                          {0x000003ef, "translate-port"},
                          {0x080003ea, "client-port-first"},
                          {0x080003eb, "client-port-last"},
                          {0x20010020, "owner"},
                          {0x10010021, "seconds"},
                          {0x10010022, "connections"},
                          {0x10010025, "uses"},
                          {0x00010023, "stale"},
                          {0x00010024, "closed"},
                          {0x08010040, "event"},
                          {0x10010041, "time"},
                          {0x08010042, "user"},
                          {0x20010043, "reason"},
                          {0x20010044, "host"},
                          {0x20010030, "external-ports"},
                          {0x20010031, "internal-clients"},
                          {0x20010037, "internal-ports"},
                          {0x20010036, "router-ports"},
                          {0x08010032, "max-rules"},
                          {0x08010033, "max-rules-per-client"},
                          {0x00010034, "reset"},
                          {0x00010035, "reload"},
                          {0x00010038, "remotes-possible"}});
}

TEST(MessageNames, OfFieldsOfPinholesAndOfPcp) {
  expectFields(pinholes, {{0x20000001, "address"},
                          {0x08000002, "protocol"},
                          {0x08000003, "port"},
                          {0x08000004, "lease"},
                          {0x20000010, "owner"},
                          {0x10000011, "seconds"},
                          {0x08000012, "ended"},
                          {0x08000020, "refusal"},
                          {0x20000030, "problem"}});
  expectFields(pcp, {{0x00000001, "enabled"},
                     {0x20000002, "agents"},
                     {0x20000010, "served"},
                     {0x20000011, "problem"},
                     {0x08000012, "mappings"},
                     {0x08000013, "pinholes"}});
}

TEST(MessageNames, OfFieldsThatAreAddresses) {
  for (const uint32_t key : {0x08000034U, 0x08000035U, 0x080003e8U, 0x080003e9U}) {
    EXPECT_EQ(findField(natRules, key)->meaning, Meaning::address);
  }
  EXPECT_EQ(findField(addresses, 0x08000001)->meaning, Meaning::address);
  EXPECT_EQ(findField(resolver, 0x08000004)->meaning, Meaning::address);
}

TEST(MessageNames, OfCommands) {
  const Names shared = {{1, "list"},
                        {0xfe0002, "read"},
                        {0xfe0003, "set"},
                        {0xfe0004, "read-all"},
                        {0xfe0005, "add"},
                        {0xfe0006, "remove"},
                        {0xfe000b, "changed"},
                        {0xfe000d, "get-settings"},
                        {0xfe000e, "set-settings"},
                        {0x10004, "interface-changed"}};
  for (const Subject subject : {unknownService, broker, natRules}) expectCommands(subject, shared);
  expectCommands(broker, {{0x10, "register"},
                          {0x11, "subscribe"},
                          {0x12, "unsubscribe"},
                          {0x13, "unregister"},
                          {0x14, "services"},
                          {0x15, "monitor"}});
  expectCommands(resolver, {{3, "resolve"}});
  EXPECT_EQ(commandName(unknownService, 0x10), "command 0x10");
}

}  // namespace
}  // namespace lumenctl
